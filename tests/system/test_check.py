#!/usr/bin/env python3
"""The check of the settings and their dump, with the program as people run it."""

import os
import subprocess

from trabex_system import DOMAIN, LOOPBACK, Scenario, free_port, main, program, run_trabex


class Check(Scenario):
    def setUp(self):
        super().setUp()
        self.folder = self.place.new_folder("check")
        self.ini = self.folder / "Trabex.ini"
        self.port = free_port()

    def write(self, *lines):
        text = [b"[Common]", f"BindIP={LOOPBACK}".encode(), f"BindPort={self.port}".encode(),
                f"LocalDomains={DOMAIN}".encode(), f"LogPath={self.folder / 'Log'}".encode()]
        text += [line if isinstance(line, bytes) else line.encode() for line in lines]
        self.ini.write_bytes(b"\n".join(text) + b"\n")

    def check(self, *arguments):
        """What the check prints without the name of the file, and its exit status."""
        status, said, errors = run_trabex("--check", "/I", self.ini, *arguments)
        self.assertEqual(errors, "")
        return status, [line.removeprefix(str(self.ini)) for line in said.splitlines()]

    def test_a_good_file_is_ok_and_nothing_is_touched(self):
        self.write()
        before = {path: path.stat().st_mtime_ns for path in self.folder.iterdir()}
        self.assertEqual(self.check("--offline"), (0, ["OK"]))
        self.assertEqual({path: path.stat().st_mtime_ns for path in self.folder.iterdir()}, before)

    def test_what_is_wrong_is_named_with_its_line(self):
        self.write("Timeot=60", "MaxSize=-3K", "IPAllowList=1.2.3", "SendersWhiteList=a@b, x@y",
                   "SendersBlackList=X@Y", b"HostsBlackList=\xff[x", "[ResponseChanges]", "RCPT.Private=<550 x>",
                   "RCPT.Relayin=<550 x>", "550=<550 {%fromm%}>", "[Comon]")
        self.assertEqual(self.check("--offline"), (1, [
            ':6: error: [Common] Timeot: Unknown key. (did you mean "Timeout"?)',
            ":7: error: [Common] MaxSize: Value -3 lies out of allowed range: from -2 to 922337203685476. "
            '(in "-3K")',
            ':8: error: [Common] IPAllowList: Invalid IP address: "1.2.3".',
            ":8: warning: [Common] IPAllowList: Bad entries have left the list empty. It refuses everybody.",
            ':9: warning: [Common] SendersWhiteList: "x@y" stands in SendersBlackList too.',
            ':11: error: [Common] HostsBlackList: Invalid Regular Expression in string: "\\xFF[x".',
            ":11: warning: [Common] HostsBlackList: Bad entries have left the list empty.",
            ":13: warning: [ResponseChanges] RCPT.Private: The reply never comes: PrivateRecipients is empty.",
            ':14: error: [ResponseChanges] RCPT.Relayin: No reply has this key. (did you mean "RCPT.Relaying"?)',
            ':15: error: [ResponseChanges] 550: Unknown macro "{%fromm%}". (did you mean "{%from%}"?)',
            ':16: error: [Comon]: Invalid section name: "Comon". (did you mean "Common"?)',
            "7 errors, 4 warnings"]))

    def test_a_running_instance_is_not_disturbed(self):
        server = self.sample_server()
        proxy = self.trabex(server.port, {})
        status, said, errors = run_trabex("--check", "/I", proxy.ini)
        self.assertEqual((status, errors), (0, ""), said)
        client = self.connect(proxy.address)
        self.assertEqual(client.read_reply()[:3], "220")

    def test_a_missing_file_and_a_loop(self):
        status, said, errors = run_trabex("--check", "/I", self.folder / "none.ini")
        self.assertEqual((status, errors), (1, ""))
        self.assertIn("none.ini: error: Error reading initialization file", said)
        self.write(f"ServerIP={LOOPBACK}", f"ServerPort={self.port}")
        self.assertEqual(self.check(), (1, [
            ":6: error: [Common] ServerIP: Loop detected: Server IP address and port point to listening address and "
            "port.", "1 errors, 0 warnings"]))

    def test_a_server_name_is_asked_for_unless_offline(self):
        self.write("ServerIP=no-such-host.invalid")
        self.assertEqual(self.check("--offline"), (0, ["OK"]))
        status, lines = self.check()
        self.assertEqual((status, len(lines)), (0, 2), lines)
        self.assertRegex(lines[0], r'^:6: warning: \[Common\] ServerIP: "no-such-host\.invalid" is not found now: ')
        self.assertEqual(lines[1], "0 errors, 1 warnings")

    def test_for_another_user(self):
        if os.geteuid() != 0:
            self.skipTest("needs root to become somebody else")
        copy = self.place.new_folder("program") / "Trabex"
        copy.write_bytes(program("Trabex").read_bytes())
        copy.chmod(0o755)
        self.write()
        for folder in (self.folder, copy.parent):
            folder.chmod(0o755)
        self.ini.chmod(0o644)

        def check(*arguments):
            done = subprocess.run([copy, "--check", "--offline", "/I", self.ini, *arguments], capture_output=True,
                                  text=True, stdin=subprocess.DEVNULL, timeout=20, check=False)
            return done.returncode, done.stdout.replace(str(self.ini), ""), done.stderr

        if subprocess.run(["setpriv", "--reuid", "nobody", "--regid", "nogroup", "--clear-groups", "test", "-r",
                           self.ini], check=False).returncode != 0:
            self.skipTest("another user does not reach the folder of the tests")
        self.assertEqual(check(), (0, "OK\n", ""))
        self.assertEqual(check("--user", "nobody"), (
            1, f':5: error: [Common] LogPath: The folder of the log, "{self.folder}", is not writable for this user.\n'
               "1 errors, 0 warnings\n", ""))
        # What this user may not: to listen on a low port, to write beside the database.
        (self.folder / "Log").mkdir(mode=0o777)
        (self.folder / "Log").chmod(0o777)
        self.write("BindPortTLS=465", "[TLS]", "Certificate=/c.pem", "[GreyListing]", "Enabled=1", "HostsBlackList=",
                   f"Database={self.folder}/grey.gldb")
        said = check("--user", "nobody")[1]
        self.assertIn(f':12: error: [GreyListing] Database: The folder of the database, "{self.folder}", is not writable '
                      "for this user.\n", said)
        first_free = int(open("/proc/sys/net/ipv4/ip_unprivileged_port_start", encoding="ascii").read())
        warning = ":6: warning: [Common] BindPortTLS: This user has no right to listen on port 465.\n"
        self.assertEqual(warning in said, first_free > 465)
        self.assertNotIn(warning, check()[1], "root may")
        self.write()
        self.assertEqual(check("--user", "no-such-user"), (2, "", 'Trabex: There is no user "no-such-user".\n'))
        self.ini.chmod(0o600)
        self.assertEqual(check("--user", "nobody")[0], 1)

    def test_output_that_cannot_be_written(self):
        self.write()
        for request in (["--check", "--offline"], ["--dump"]):
            with open("/dev/full", "wb") as full:
                done = subprocess.run([program("Trabex"), *request, "/I", self.ini], stdout=full, stderr=subprocess.PIPE,
                                      text=True, stdin=subprocess.DEVNULL, timeout=20, check=False)
            self.assertEqual((done.returncode, done.stderr), (1, "Trabex: Standard output could not be written.\n"))

    def test_options_of_others(self):
        for arguments in (("--offline",), ("--dump", "--offline"), ("--live",),
                          ("--check", "--dump")):
            status, said, errors = run_trabex(*arguments)
            self.assertEqual((status, said), (2, ""), arguments)
            self.assertRegex(errors, "^Trabex: Only ")


class Dump(Scenario):
    def test_of_the_file_and_of_the_instance_are_the_same(self):
        server = self.sample_server()
        proxy = self.trabex(server.port, {"LocalDomains": DOMAIN, "MaxSize": "1536K", "SendersBlackList": '"a,b", *@x.example'})
        status, of_file, errors = run_trabex("--dump", "/I", proxy.ini)
        self.assertEqual((status, errors), (0, ""))
        self.assertIn("\nMaxSize = 1536K\n", of_file)
        status, of_instance, errors = run_trabex("--dump", "--live", "/P", proxy.port)
        self.assertEqual((status, errors), (0, ""))
        self.assertEqual(of_instance, of_file)

        proxy.ini.write_text(of_file, encoding="utf-8")
        self.assertEqual(run_trabex("--dump", "/I", proxy.ini), (0, of_file, ""))
        status, said, _ = run_trabex("--check", "/I", proxy.ini)
        self.assertEqual((status, said), (0, "OK\n"))

    def test_without_an_instance(self):
        self.assertEqual(run_trabex("--dump", "--live", "/P", free_port())[0], 3)


class Told(Scenario):
    def test_a_start_tells_what_is_wrong(self):
        server = self.sample_server()
        proxy = self.trabex(server.port, {"Timeout": "x", "LogPath": "/no/such/folder"})
        self.assertEqual(proxy.process.stderr().splitlines(), [
            'Trabex: Unable to open log file "' + proxy.process.stderr().split('"')[1] +
            '". Path not found. Nothing is logged.',
            'Trabex: Error parsing initialization file. Section: "Common", Key name: "Timeout", Error number: 380, '
            'Description: Value is not a number: "x". The default is taken: 300'])


if __name__ == "__main__":
    main()
