#!/usr/bin/env python3
"""sample/Trabex.ini tells the truth: every key is there, what it says is the default is the default."""

import re

from trabex_system import REPO, Options, Scenario, free_port, main, only_ipv4

SAMPLE = REPO / "sample" / "Trabex.ini"
# What the sample sets for ./run, and what a test has to set for itself.
OWN = {"BindIP", "BindPort", "ServerIP", "ServerPort", "LogPath", "LocalHostName", "Database", "Log"}


@only_ipv4("no client comes")
class SampleIni(Scenario):
    def setUp(self):
        super().setUp()
        if Options.sandbox is not None:
            self.skipTest("the file says itself what Sandbox is")

    def dump(self, text):
        """The configuration that Trabex has in force with this file, as it writes it into its log."""
        proxy = self.trabex(free_port(), start=False, json_log=False)
        proxy.ini.write_text(text.replace("[Common]\n", proxy.ini.read_text() + "Log=2\n", 1), encoding="utf-8")
        proxy.start()
        self.assertEqual(proxy.end(), 0)
        log = proxy.log()
        self.assertNotIn("Error ", log)
        lines = log[log.index("[Common]"):].split("\r\n")
        section = ""
        values = {}
        for line in lines:
            if line.startswith("["):
                section = line
            elif (found := re.match(r"(\w+) =(?: (.*))?$", line)):
                # Section Common has a key Log of its own.
                if found.group(1) not in OWN or (section, found.group(1)) == ("[GreyListing]", "Log"):
                    values.setdefault(section + found.group(1), []).append(found.group(2) or "")
        return values

    def test_defaults(self):
        sample = SAMPLE.read_text(encoding="utf-8")
        # A setting that is commented out has no blank after the semicolon; prose has one.
        settings = re.sub(r"(?m)^;(?=[A-Za-z])", "", sample)
        self.assertNotEqual(settings, sample)
        # The keys of this run are written in front of the sample's other keys.
        settings = re.sub(rf"(?m)^({'|'.join(OWN - {'Log'})})=.*\n", "", settings)
        common, grey = settings.split("[GreyListing]")
        common = re.sub(r"(?m)^Log=.*\n", "", common)
        with_sample = self.dump(f"{common}[GreyListing]{grey}")
        with_nothing = self.dump("[Common]\n")
        self.assertEqual(with_sample, with_nothing)
        self.assertGreater(len(with_nothing), 50)

    def test_every_key_is_in_it(self):
        sample = SAMPLE.read_text(encoding="utf-8")
        for key in self.dump("[Common]\n"):
            section, name = re.match(r"(\[\w+\])(\w+)", key).groups()
            body = sample.split(section, 1)[1].split("\n[", 1)[0]
            self.assertRegex(body, rf"(?m)^;?{name}=", key)


if __name__ == "__main__":
    main()
