#!/usr/bin/env python3
"""The command line, the initialization file's place, and everything that can be wrong at the start."""

import os
import re
import socket
import subprocess
import time

from trabex_system import (FAMILY, IPV6, LOOPBACK, Process, Scenario, bound, endpoint, free_port, ini_text,
                           is_listening, main, program, run_trabex, wait_until)

HELP = """Command line switches:

/P <portnumber>, /PORT <portnumber> - specify port to listen;
/M, /MINIMIZE - run minimized;
/HI, /HIDE - run hidden;
/I <ini file pathname>, /INIFILE <ini file pathname> - specify initialization file;
/L <log dir>, /LOGPATH <log dir> - specify log directory;
/X, /EXIT - close another instance;
/H, /?, /HELP - show this message."""


class CommandLine(Scenario):
    def setUp(self):
        super().setUp()
        program("Trabex")

    def test_help(self):
        for switch in ("/H", "/h", "/?", "/HELP", "/help", "-h", "--help", "-?"):
            status, out, err = run_trabex(switch)
            self.assertEqual((status, out.replace("\r\n", "\n").rstrip("\n"), err), (0, HELP, ""), switch)

    def test_version(self):
        self.assertEqual(run_trabex("--version"), (0, "Trabex 3.04.012\n", ""))

    def test_errors(self):
        for arguments, message in (
                (["/Q"], 'Invalid switch "/Q".'), (["/quiet"], 'Invalid switch "/quiet".'),
                (["x"], 'Invalid switch "x".'),
                (["/P", "0"], 'Invalid port number "0".'), (["/PORT", "70000"], 'Invalid port number "70000".'),
                (["/p", "abc"], 'Invalid port number "abc".'), (["--port", "-5"], 'Invalid port number "-5".'),
                (["/HI", "/Q", "/H"], 'Invalid switch "/Q".')):
            status, out, err = run_trabex(*arguments)
            self.assertEqual((status, out, err.rstrip("\r\n")), (2, "", f"Trabex: {message}"), arguments)
        status, _, err = run_trabex("/P")
        self.assertEqual(status, 2)
        self.assertIn("Trabex: Invalid port number", err)


class Paths(Scenario):
    """Where the initialization file and the log are."""

    def setUp(self):
        super().setUp()
        self.server = self.sample_server()
        # The rest is Trabex's: these start copies of it by hand.
        self.port = free_port()
        self.settings = {"BindIP": LOOPBACK, "BindPort": self.port, "ServerIP": LOOPBACK,
                         "ServerPort": self.server.port}

    def run_session(self, command, cwd=None, told=""):
        process = Process(self.place, "Trabex", command, cwd=cwd)
        self.place.on_leaving(process.end)
        process.wait_listening(self.port)
        client = self.connect((LOOPBACK, self.port))
        self.assertEqual(client.read_reply()[:3], "220")
        client.close()
        self.assertEqual(process.end(), 0)
        self.assertEqual((process.stdout(), process.stderr()), ("", told))

    def only_log(self, folder):
        log, = folder.glob("*.log")
        self.assertIn(b" started.\r\n", log.read_bytes())
        return log.name

    def test_beside_the_program(self):
        """Both are named by the executable, and symbolic links to it are followed."""
        copy = self.place.copy_program("Trabex", "Renamed")
        (copy.parent / "Renamed.ini").write_text(ini_text(self.settings))
        self.run_session([copy], cwd="/")
        self.assertRegex(self.only_log(copy.parent / "Log"), rf"^Renamed-{self.port}-\d{{6}}\.log$")
        link = self.place.new_folder("links") / "Link"
        link.symlink_to(copy)
        self.run_session([link, "/HI"], cwd="/")
        self.assertEqual(len(list((copy.parent / "Log").iterdir())), 1)

    def test_given_paths(self):
        copy = self.place.copy_program("Trabex")
        current = self.place.new_folder("current")
        (current / "sub").mkdir()
        text = ini_text({**self.settings, "LogPath": self.place.folder / "Log"})
        for given, file in (("with blank.ini", copy.parent / "with blank.ini"), ("./here.ini", current / "here.ini"),
                            ("../up.ini", current.parent / "up.ini"), (".\\sub\\win.ini", current / "sub" / "win.ini"),
                            (str(current / "absolute.ini"), current / "absolute.ini")):
            with self.subTest(given=given):
                file.write_text(text)
                self.run_session([copy, "/HI", "/I", given], cwd=current)
                file.unlink()

    def test_log_path_of_the_command_line(self):
        """It wins, and means plain logging whatever the file says."""
        for level in (0, 2):
            ini = self.place.folder / "x.ini"
            ini.write_text(ini_text({**self.settings, "Log": level, "LogPath": self.place.folder / "not this"}))
            log = self.place.folder / f"given{level}"
            self.run_session([program("Trabex"), "/I", ini, "/L", log])
            log_file = log / self.only_log(log)
            self.assertNotIn(b"[Common]", log_file.read_bytes())
            self.assertFalse((self.place.folder / "not this").exists())

    def test_port_of_the_command_line(self):
        ini = self.place.folder / "x.ini"
        ini.write_text(ini_text({**self.settings, "BindPort": 1, "LogPath": self.place.folder / "Log"}))
        self.run_session([program("Trabex"), "/I", ini, "-p", self.port])
        self.assertIn(f"-{self.port}-", self.only_log(self.place.folder / "Log"))

    def test_no_log(self):
        ini = self.place.folder / "x.ini"
        ini.write_text(ini_text({**self.settings, "Log": 0, "LogPath": self.place.folder / "Log"}))
        self.run_session([program("Trabex"), "/I", ini])
        self.assertFalse((self.place.folder / "Log").exists())

    def test_log_that_cannot_be_written(self):
        """Costs the log, not the service, and who starts it is told."""
        occupied = self.place.folder / "file"
        occupied.write_text("")
        for log, why in ((self.place.folder / "no" / "parent", "Path not found"),
                         (occupied, "Path not found"), ("/proc/nothing", "Path not found")):
            ini = self.place.folder / "x.ini"
            ini.write_text(ini_text({**self.settings, "LogPath": log}))
            day = time.strftime("%y%m%d")
            self.run_session([program("Trabex"), "/I", ini], told=f'Trabex: Unable to open log file "{log}/'
                             f'Trabex-{self.port}-{day}.log". {why}. Nothing is logged.\n')
        self.assertEqual(occupied.read_text(), "")

    def test_no_standard_streams(self):
        """As some service managers start their services."""
        ini = self.place.folder / "x.ini"
        ini.write_text(ini_text({**self.settings, "LogPath": self.place.folder / "Log"}))
        child = subprocess.Popen(["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", str(program("Trabex")), "/I", str(ini)])
        self.place.on_leaving(child.kill)
        wait_until(lambda: is_listening(self.port), "Trabex to listen")
        client = self.connect((LOOPBACK, self.port))
        self.assertEqual(client.read_reply()[:3], "220")
        self.assertEqual(client.command("EHLO client.example")[:3], "250")
        child.terminate()
        self.assertEqual(child.wait(bound(20)), 0)


class BadStart(Scenario):
    """Starts that fail: the reason is in the log and on standard error, the status is 1."""

    def run_bad(self, text, port, *arguments):
        """Returns the log's messages."""
        ini = self.place.folder / "bad.ini"
        if text is not None:
            ini.write_bytes(text if isinstance(text, bytes) else text.encode())
        log = self.place.new_folder("logs") / "Log"
        status, out, err = run_trabex("/I", ini, "/HI", "/P", port, "/L", log, *arguments)
        lines = [line[18:] for file in log.glob("*.log")
                 for line in file.read_bytes().decode(errors="replace").split("\r\n") if line]
        self.assertEqual((status, out), (1, ""), f"{err}{lines}")
        self.assertNotIn("ERROR:", err)
        self.assertTrue(err.strip(), "it says why")
        return lines, err

    def test_port_in_use(self):
        with socket.create_server((LOOPBACK, 0), family=FAMILY) as listener:
            port = listener.getsockname()[1]
            lines, err = self.run_bad(ini_text({"BindIP": LOOPBACK}), port)
        self.assertEqual(lines[0], "Trabex 3.04.012 started.")
        self.assertRegex(lines[1], rf"^Error 10048 binding to {re.escape(endpoint(port))}\. .")
        self.assertEqual(lines[2:], ["Trabex 3.04.012 stopped."])
        self.assertIn(lines[1], err)

    def test_address_of_somebody_else(self):
        lines, _ = self.run_bad(ini_text({"BindIP": "192.0.2.1"}), free_port())
        self.assertRegex(lines[1], r"^Error 10049 binding to 192\.0\.2\.1:\d+\. .")

    def test_loop(self):
        port = free_port()
        message = "Loop detected: Server IP address and port point to listening address and port."
        for server in (LOOPBACK, "ip6-localhost" if IPV6 else "localhost", "::" if IPV6 else "0.0.0.0"):
            lines, err = self.run_bad(ini_text({"BindIP": LOOPBACK, "ServerIP": server, "ServerPort": port}), port)
            self.assertEqual(lines, ["Trabex 3.04.012 started.", message, "Trabex 3.04.012 stopped."], server)
            self.assertIn(message, err)

    def not_started(self, text):
        lines, err = self.run_bad(text, free_port())
        self.assertEqual(lines[-1], "Trabex 3.04.012 not started due to an error in initialization file.")
        self.assertIn(lines[-1], err)
        return lines[:-1]

    def test_syntax_errors(self):
        head = "[Common]\nIgnoreIniErrors=0\n"
        for line, description in (
                ("[Common", 'Invalid line: "[Common".'), ("[Other]", 'Invalid section name: "Other".'),
                ("[ Common ]", 'Invalid section name: " Common ".'), ("novalue", 'Invalid line: "novalue".'),
                ("IgnoreIniErrors=0", 'Key "IgnoreIniErrors"  in section "Common" defined more than once.')):
            lines = self.not_started(f"{head}{line}\n")
            self.assertEqual(lines, [f'Error reading initialization file "{self.place.folder}/bad.ini", line 3. '
                                     f"Error number: 321, Description: {description}"])

    def test_value_errors(self):
        for line, number, description in (
                ("Timeout=", 380, "Integer value expected."), ("Timeout=abc", 380, 'Value is not a number: "abc".'),
                ("MaxConnections=70000", 380, "Value 70000 lies out of allowed range: from 0 to 65535."),
                ("MaxSize=5X", 380, 'Value is not a number: "5X".'),
                ("BindIP=localhost", 380, 'Inadmissible string: "localhost".'),
                ("IPBlackList=1.2.3", 380, 'Invalid IP address: "1.2.3".'),
                ("IPBlackList=10.0.0.1/8", 380, 'Subnet mask "8" is inadmissible for IP address "10.0.0.1".'),
                ("SendersBlackList=[a", 93, 'Invalid Regular Expression in string: "[a".'),
                ("SendersBlackList=a,A", 457, 'Expression "A" specified more than once.')):
            lines = self.not_started(f"[Common]\nIgnoreIniErrors=0\n{line}\n")
            self.assertEqual(lines, [f'Error parsing initialization file. Section: "Common", Key name: '
                                     f'"{line.split("=")[0]}", Error number: {number}, Description: {description}'])

    def test_early_key_errors(self):
        """The settings that must be known first are no less strict."""
        self.run_bad("[Common]\nIgnoreIniErrors=2\n", free_port())
        self.run_bad("[Common]\nIgnoreIniErrors=0\nLog=3\n", free_port())

    def test_ignored_errors(self):
        """Each is in the log, the rest of the file counts, and the service runs."""
        server = self.sample_server()
        proxy = self.trabex(server.port, start=False)
        with open(proxy.ini, "a", encoding="utf-8") as ini:
            ini.write("[Common]\nnovalue\nTimeout=abc\nMaxConnections=1\n[Other]\nkey=value\n[Common]\nMaxBadSeq=\n")
        proxy.start()
        text = proxy.ini.read_text().splitlines()
        place = f'Error reading initialization file "{proxy.ini}", line '
        wrong = "Error parsing initialization file. Section: \"Common\", Key name: "
        proxy.wait_for_log("Listen on: ")
        self.assertEqual(proxy.log_lines()[:5], [
            f'{place}{text.index("novalue") + 1}. Error number: 321, Description: Invalid line: "novalue".',
            f'{place}{text.index("[Other]") + 1}. Error number: 321, Description: Invalid section name: "Other".',
            f'{place}{text.index("key=value") + 1}. Error number: 321, Description: '
            'Section name expected: "key=value".',
            f'{wrong}"Timeout", Error number: 380, Description: Value is not a number: "abc".',
            f'{wrong}"MaxBadSeq", Error number: 380, Description: Integer value expected.'])
        first = self.connect(proxy.address)
        self.assertEqual(first.read_reply()[:3], "220")
        self.assertEqual(self.connect(proxy.address).read_reply()[:3], "421", "MaxConnections counts")

    def test_missing_or_unreadable_file(self):
        """Every setting has its default then; so that nobody listens for the world here, the port is taken."""
        with socket.create_server(("127.0.0.1", 0)) as listener:
            port = listener.getsockname()[1]
            missing = self.run_bad(None, port)[0]
            (self.place.folder / "bad.ini").mkdir()
            unreadable = self.run_bad(None, port)[0]
        for lines in (missing, unreadable):
            self.assertRegex(lines[0], r'^Error reading initialization file "[^"]+/bad\.ini"\. Error number: \d+, Desc')
            self.assertEqual(lines[1], "Trabex 3.04.012 started.")
            self.assertRegex(lines[2], rf"^Error 10048 binding to 0\.0\.0\.0:{port}\. .")
        self.assertIn("Error number: 53, Description: File not found", missing[0])

    def test_hostile_files(self):
        """A file of anything is no reason to fall over."""
        for content in (b"\0" * 10_000, bytes(range(256)) * 100, b"IPBlackList=" + b"1.2.3.4-," * 50_000,
                        b"[" * 100_000, b"\xef\xbb\xbf[Common]\nnovalue", os.urandom(100_000)):
            self.run_bad(b"[Common]\nIgnoreIniErrors=0\n" + content, free_port())


if __name__ == "__main__":
    main()
