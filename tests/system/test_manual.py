#!/usr/bin/env python3
"""What the pages of docs/ and README.md show works: their settings are checked, their commands run, their dialogues played.

manual_pages.py says how a page tells what cannot be; these blocks are counted.
"""

import re
import tempfile
import unittest
from collections import Counter
from pathlib import Path

from copied_root import can_be_made
from manual_pages import (PACKAGE, REPO, RUN, TESTED_ELSEWHERE, BadPage, all_blocks, as_pattern, complete, pages,
                          read_blocks)
from page_machine import CLIENT, SETTINGS, PageMachine
from trabex_system import main, only_ipv4

# What a page needs beside what every page has: changes of /etc/trabex/25.ini.
PAGE_SETTINGS = {
    "greylisting.md": {"GreyListing": {"Enabled": 1, "Log": 1}},
    "greylisting-tool.md": {"GreyListing": {"Enabled": 1}},
    "monitoring.md": {"Service": {"StatusHTTP": "127.0.0.1:9425"}},
    "operations.md": {"GreyListing": {"Enabled": 1}},
}
# And what is done before its first block, as a shell script; the blocks of a page run in /, as it does.
PAGE_SCRIPTS = {
    "explain.md": r"""awk 'BEGIN { l[1] = "[Common]"; l[5] = "LocalIPs = 10.0.0.0/8"; l[6] = "ValidateRDNS = 2"
        l[7] = "LocalDomains = x.example"; l[12] = "HostsWhiteList = *.example.org"; l[18] = "ValidateHELO = 8"
        l[19] = "HELOBlackList = *.lan"; l[20] = "MaxSize = 10M"; l[41] = "RecipientsBlackListRemote = *@x.example"
        for (i = 1; i <= 41; ++i) print l[i] }' > trabex.ini""",
    "hardening.md": "touch /etc/trabex/mx.key",
    "greylisting-tool.md": "echo 'from=<me@example.org>, to=<you@example.net>, relay=mail.example.net[192.0.2.7]:25' > sent.log",
    "lists.md": "mkdir -p /etc/postgrey; echo 'example.net' > /etc/postgrey/whitelist_clients;"
                " echo 'example.com REJECT' > /etc/postfix/sender_access",
}

# Files that blocks name.
_FILE = re.compile(r"/etc/trabex/[\w.-]+\.(?:list|pem|key)\b")
_CERTIFICATE = ("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc -subj /CN=mx.example.org -days 9"
                " -keyout /etc/trabex/test.key -out /tmp/test.crt 2>&1 &&"
                " cat /tmp/test.crt /etc/trabex/test.key > /etc/trabex/test.pem && chown trabex: /etc/trabex/test.*")


def here(block):
    """Whether this script runs it."""
    return block.language in RUN and block.page not in TESTED_ELSEWHERE and not set(block.marks) & {"not run", "run by"}


class PageTrial:
    """One page, block by block."""

    def __init__(self, machine, page):
        self._machine = machine
        machine.write_settings(PAGE_SETTINGS.get(page))
        machine.must(_CERTIFICATE)
        self._running = None
        self._start("/etc/trabex/25.ini")
        # So that there is something to be found in the logs.
        for recipient in ("you@example.org", "them@elsewhere.example"):
            machine.send(CLIENT, recipient)
        machine.must(PAGE_SCRIPTS.get(page, "true"))

    def _start(self, ini):
        """The instance has these settings, as they are now."""
        if ini != self._running or ini == "/etc/trabex/page.ini":
            self._machine.start_trabex(ini)
            self._running = ini

    def run(self, block):
        """Returns what is wrong, or None."""
        if RUN[block.language] == "commands":
            self._start("/etc/trabex/25.ini")
        return getattr(self, f"_run_{block.language}")(block)

    def _run_ini(self, block):
        """--check has nothing to say, or what the page tells."""
        for file in set(_FILE.findall(block.text)):
            if not self._machine.root.path(file).exists():
                self._machine.must(["sh", "-c", "case $1 in *.list) touch $1;; *) cp -p /etc/trabex/test.${1##*.} $1;; esac",
                                    "sh", file])
        self._machine.write("/etc/trabex/page.ini", complete(block.text, SETTINGS))
        done = self._machine.run("trabex --check --offline --port 25 --inifile /etc/trabex/page.ini")
        found = done.stdout.splitlines()
        expected = block.marks.get("finds", [])
        if not expected:
            return None if (done.returncode, found) == (0, ["OK"]) else done.stdout
        if len(found) != len(expected) + 1:
            return f"{len(expected)} findings are expected:\n{done.stdout}"
        missing = [text for text in expected if not any(text in line for line in found)]
        return f"not found: {missing}\n{done.stdout}" if missing else None

    def _run_smtp(self, block):
        """With the page's latest settings."""
        if self._machine.root.path("/etc/trabex/page.ini").exists():
            self._start("/etc/trabex/page.ini")
        self._machine.write("/tmp/dialogue", block.text)
        done = self._machine.run([REPO / "tests/system/play_dialogue.py", "/tmp/dialogue", block.mark("client", CLIENT),
                                  "192.0.2.25", "25"])
        return done.stdout if done.returncode != 0 else None

    def _run_sh(self, block):
        done = self._machine.run(block.text)
        if done.returncode != int(block.mark("status", "0")):
            return f"{block.text}ended with {done.returncode}:\n{done.stdout}"
        return None

    def _run_console(self, block):
        """Each command, and what it says."""
        for command, expected in re.findall(r"(?m)^\$ (.*)\n((?:(?!\$ ).*\n)*)", block.text):
            said = self._machine.run(["sh", "-c", command]).stdout.replace("\r\n", "\n")
            # A line that is "…" alone is any number of lines, also none.
            pattern = "".join(r"(?:.*\n)*" if line == "…\n" else as_pattern(line) for line in expected.splitlines(keepends=True))
            if not re.fullmatch(pattern, said):
                return f"{command}\nsaid\n{said}"
        return None


@only_ipv4("the pages name both families")
class Pages(unittest.TestCase):
    def try_page(self, path):
        blocks = [block for block in read_blocks(path) if here(block)]
        if not blocks:
            return
        if not can_be_made():
            self.skipTest("a copy of this machine takes root, and a machine that lets it mount file systems")
        with PageMachine() as machine:
            trial = PageTrial(machine, path.name)
            for block in blocks:
                with self.subTest(block=block.place()):
                    if wrong := trial.run(block):
                        self.fail(f"{block.place()}: {wrong}")


def add_pages():
    for path in pages():
        # There are two of the name README.md.
        name = path.name if path.parent == REPO / "docs" else f"top_{path.name}"
        name = "test_" + re.sub(r"\W", "_", name.removesuffix(".md"))
        setattr(Pages, name, lambda self, path=path: self.try_page(path))


class Form(unittest.TestCase):
    def test_each_page_can_be_read(self):
        for path in pages():
            with self.subTest(page=path.name):
                read_blocks(path)

    def test_marks_are_about_what_they_may_be_about(self):
        allowed = {"not run": RUN, "run by": RUN, "status": {"sh"}, "finds": {"ini"}, "client": {"smtp"}}
        for block in all_blocks():
            for mark in block.marks:
                self.assertIn(block.language, allowed[mark], f"{block.place()}: {mark}")
            self.assertIn(block.mark("run by", PACKAGE), {PACKAGE}, block.place())

    def test_count(self):
        """Says how many blocks are run, and which cannot be."""
        blocks = [block for block in all_blocks() if block.language in RUN]
        of_package = [block for block in blocks if block.mark("run by")]
        of_others = [block for block in blocks if block.page in TESTED_ELSEWHERE and "not run" not in block.marks]
        not_run = [block for block in blocks if "not run" in block.marks]
        kinds = Counter(RUN[block.language] for block in blocks if here(block))
        self.assertEqual(sum(kinds.values()) + len(of_package) + len(of_others) + len(not_run), len(blocks))
        for block in not_run:
            print(f"  not run: {block.place()}: {block.mark('not run')}")
        print(f"{len(blocks)} blocks of the pages: {', '.join(f'{kinds[kind]} {kind}' for kind in sorted(kinds))} run here, "
              f"{len(of_package)} by {PACKAGE}, {len(of_others)} by {', '.join(TESTED_ELSEWHERE.values())}; "
              f"{len(not_run)} not run")


class Links(unittest.TestCase):
    def test_the_index_has_every_page(self):
        index = (REPO / "docs/README.md").read_text(encoding="utf-8")
        listed = re.findall(r"(?m)^\| \[([\w-]+\.md)\]\(\1\) \| \w", index)
        self.assertEqual(sorted(listed), sorted(path.name for path in (REPO / "docs").glob("*.md") if path.name != "README.md"))

    def test_links_lead_somewhere(self):
        for path in [REPO / "README.md", REPO / "CONTRIBUTING.md", *pages()]:
            for link in re.findall(r"\]\(([^)\s]+)\)", path.read_text(encoding="utf-8")):
                if link.startswith(("http://", "https://")):
                    continue
                file, _, anchor = link.partition("#")
                with self.subTest(page=path.name, link=link):
                    target = path.parent / file if file else path
                    self.assertTrue(target.exists())
                    if anchor:
                        self.assertIn(anchor, anchors(target))


def anchors(path):
    """What a link may name in a page: its headings in small letters, with hyphens for blanks."""
    headings = re.findall(r"(?m)^#+ (.*)$", path.read_text(encoding="utf-8"))
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


class TheReader(unittest.TestCase):
    """What reads the pages does not let a block slip by."""

    def read(self, text):
        with tempfile.TemporaryDirectory() as folder:
            page = Path(folder) / "page.md"
            page.write_text(text, encoding="utf-8")
            return read_blocks(page)

    def test_blocks_and_marks(self):
        first, second = self.read("# One\nSaid.\n<!-- status: 1 -->\n```sh\nfalse\n```\n\n```ini\n[Common]\n```\n")
        self.assertEqual((first.heading, first.said, first.text, first.marks, first.line),
                         ("One", "Said. ", "false\n", {"status": ["1"]}, 4))
        self.assertEqual((second.language, second.text, second.marks), ("ini", "[Common]\n", {}))

    def test_what_no_page_has(self):
        for text in ("    indented\n", "```\nx\n```\n", "```shell\nx\n```\n", "```sh\nx\n", "<!-- nonsense -->\n",
                     "<!-- status: 1 -->\n", "<!-- status: 1 -->\nText.\n```sh\nx\n```\n", "~~~\nx\n~~~\n"):
            with self.subTest(text=text), self.assertRaises(BadPage):
                self.read(text)

    def test_all_not_run(self):
        blocks = self.read("<!-- all not run: it builds -->\n```sh\nx\n```\n```ini\n[Common]\n```\n")
        self.assertEqual([block.mark("not run") for block in blocks], ["it builds", None])

    def test_complete(self):
        self.assertEqual(complete("[Common]\nA = 1\n", {"A": 0, "B": 2}), "[Common]\nB=2\nA = 1\n")
        self.assertEqual(complete("[TLS]\nA = 1\n", {"A": 0}), "[Common]\nA=0\n\n[TLS]\nA = 1\n")


add_pages()

if __name__ == "__main__":
    main()
