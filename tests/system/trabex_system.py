"""What the system tests share: a place of their own, the programs of a scenario, clients and scripted servers.

A scenario is one script test_*.py in this folder; its cases are the methods of classes derived from Scenario. A case
starts what it needs through self (self.trabex(), self.sample_server(), self.postfix(), ...). All of it listens on
loopback, on ports that no other test uses, keeps its files in one temporary folder and is gone when the case ends.

Nothing sleeps for time: a case waits for an event (wait_until, or a read from a socket) and fails at the bound.

    ./test_relay.py                        all cases of the scenario with build/release
    ./test_relay.py Scenario.test_x        one of them
    ./test_relay.py --build build/asan     with the programs of another build
    ./test_relay.py --through direct       without Trabex in between (or haproxy), to tell a mistake of the test
                                           from one of the program
    ./test_relay.py --ipv6                 on ::1 instead of 127.0.0.1
    ./test_relay.py --sandbox 2            with this value of Sandbox in each file that names none
    ./test_relay.py --keep                 leaves the temporary folder of a case that fails
"""

import argparse
import atexit
import contextlib
import os
import re
import signal
import subprocess
import sys
import time
import traceback
import unittest
from pathlib import Path

# The scenarios take everything from here.
from addresses import FAMILY, IPV6, bracketed, endpoint, enter_own_network, in_family, only_ipv4  # noqa: F401
from dialogue import (Connection, HungUp, Smtp, connect, describe_difference, received_header,  # noqa: F401
                      trusting, without_received)
from certificates import Authority, replace_file  # noqa: F401
from json_lines import Collection, read_line
from mail_servers import (Balancer, Direct, HaProxy, Postfix, SampleServer, ScriptedServer,  # noqa: F401
                          SmtpSink, bracketed_networks, polite_server)
from processes import (DOMAIN, LOOPBACK, REPO, Options, Place, Process, bound,  # noqa: F401
                       connections_not_closed, connections_to, free_port, is_listening, keeps_freed_memory, program, queued_bytes, unread_bytes, wait_until)
from terminal import Terminal  # noqa: F401
from unpacked_servers import Exim, EximClient, OpenSmtpd, OpenSmtpdClient, exim_list  # noqa: F401

json_lines = Collection()  # of all runs of this script
_STAMP = re.compile(r"^\d\d/\d\d/\d\d \d\d:\d\d:\d\d ")


def ini_text(settings, sections=None):
    """The text of an initialization file. A value that is a list gives one line per element."""
    lines = []
    for section, keys in {"Common": settings, **(sections or {})}.items():
        lines.append(f"[{section}]")
        for key, value in keys.items():
            for single in value if isinstance(value, (list, tuple)) else [value]:
                lines.append(f"{key}={single}")
    return "\n".join(lines) + "\n"


class Trabex:
    """Trabex with an initialization file of its own, in front of the server on a loopback port.

    `settings` are keys of section Common beside (or instead of) those below, `sections` the other sections,
    `arguments` further switches. It is running and listening when the constructor returns, unless `start` is
    false. When the place is left it is asked to end and must do so with status 0 and without a word on standard
    error: a sanitizer's report is one.
    """

    def __init__(self, place, server_port, settings=None, sections=None, arguments=("/HI",), start=True,
                 json_log=False):
        self._place = place
        self.folder = place.new_folder("trabex")
        self.ini = self.folder / "Trabex.ini"
        self.log_folder = self.folder / "Log"
        self.server_port = server_port
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        self.arguments = list(arguments)
        self.wrapper = []  # a command that starts it, such as nohup
        self.json_log = self.folder / "trabex.json"
        self.sections = {**(sections or {})}
        if json_log:
            self.sections["Service"] = {"JsonLog": self.json_log, **self.sections.get("Service", {})}
        self.settings = {"BindIP": LOOPBACK, "BindPort": self.port, "ServerIP": LOOPBACK,
                         "ServerPort": server_port, "LogPath": self.log_folder, "LocalHostName": "proxy.example"}
        self.settings.update(settings or {})
        self.write_ini()
        self.process = None
        if start:
            self.start()

    def write_ini(self, **changes):
        """Writes the file anew with these settings changed, as an editor does: a new file renamed over it."""
        self.settings.update(changes)
        new = self.ini.with_suffix(".new")
        sections = dict(self.sections)
        if Options.sandbox is not None:
            sections["Service"] = {"Sandbox": Options.sandbox, **sections.get("Service", {})}
        new.write_text(ini_text(self.settings, sections), encoding="utf-8")
        new.replace(self.ini)

    def command(self):
        return [*self.wrapper, program("Trabex"), "/I", self.ini, *self.arguments]

    def start(self):
        self.process = Process(self._place, "Trabex", self.command())
        self._place.on_leaving(self._leave_json_log)
        self._place.on_leaving(self._leave, self.process)
        self.process.wait_listening(self.port)
        return self

    def end(self, number=signal.SIGTERM):
        """Ends it in order and returns the exit status."""
        return self.process.end(number)

    @staticmethod
    def _leave(process):
        if process.status() is None:
            status = process.end()
            if status != 0:
                raise AssertionError(f"Trabex ended with status {status}:\n{process.stderr()}")
        if "ERROR: " in process.stderr() or "runtime error: " in process.stderr():
            raise AssertionError(process.stderr())

    def json_events(self):
        """The lines of the log in JSON. The last one may be cut off where the program was killed."""
        if not self.json_log.exists():
            return []
        return [read_line(line) for line in self.json_log.read_bytes().split(b"\n")[:-1]]

    def _leave_json_log(self):
        if self.json_log.exists():
            self.json_events()
            json_lines.add(self.json_log.read_bytes().split(b"\n")[:-1])

    def log(self):
        """The text of its log files, in the order of their names."""
        files = sorted(self.log_folder.glob("*.log"))
        return b"".join(file.read_bytes() for file in files).decode("utf-8", errors="replace")

    def log_lines(self):
        """The messages of the log without their time stamps, and without the one that --sandbox adds."""
        lines = [_STAMP.sub("", line) for line in self.log().split("\r\n") if line]
        if Options.sandbox is not None and "Sandbox" not in self.sections.get("Service", {}):
            lines = [line for line in lines if line != "Sandbox in force."]
        return lines

    def wait_for_log(self, text, times=1, seconds=20):
        """Waits until at least `times` log lines hold `text`."""
        def found():
            return sum(text in line for line in self.log_lines()) >= times

        wait_until(found, f"{times} log lines with {text!r}", seconds)


def run_trabex(*arguments, executable=None, seconds=20, environment=None):
    """Runs Trabex to its end and returns (status, standard output, standard error)."""
    done = subprocess.run([str(executable or program("Trabex")), *map(str, arguments)], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=bound(seconds), check=False,
                          env={**os.environ, **(environment or {})})
    return done.returncode, done.stdout, done.stderr


class Scenario(unittest.TestCase):
    """One case's surroundings."""

    def setUp(self):
        self.place = Place(self._testMethodName)
        self._fronts = []
        self._mail_servers = []
        # Clean-ups run from the last to the first. A failure in end_all() is the case's failure.
        self.addCleanup(self.place.remove)
        self.addCleanup(self.place.end_all)
        # An interrupted case does not come to its clean-ups.
        atexit.register(self.place.leave)
        self.addCleanup(atexit.unregister, self.place.leave)

    def trabex(self, server_port, settings=None, json_log=True, **more):
        """Trabex itself; a case that needs it does not run through anything else. Each run tests its log in JSON, too."""
        if Options.through != "trabex":
            self.skipTest("needs Trabex itself")
        trabex = Trabex(self.place, server_port, settings, json_log=json_log, **more)
        self._fronts.append(trabex)
        return trabex

    def front(self, server_port, settings=None, **more):
        """What relays between the clients and the server in this run: Trabex, unless --through says otherwise."""
        if Options.through == "direct":
            return Direct(server_port)
        if Options.through == "haproxy":
            return HaProxy(self.place, server_port)
        return self.trabex(server_port, settings, **more)

    def sample_server(self, *arguments):
        return SampleServer(self.place, *arguments)

    def scripted_server(self, dialogue=None):
        return ScriptedServer(self.place, dialogue)

    def postfix(self, settings=None, **more):
        return self._mail_server(Postfix(self.place, settings, **more))

    def exim(self, settings=None, **more):
        return self._mail_server(Exim(self.place, settings, **more))

    def opensmtpd(self, settings=(), arguments=(), **more):
        return self._mail_server(OpenSmtpd(self.place, settings, arguments, **more))

    def _mail_server(self, server):
        self._mail_servers.append(server)
        return server

    def connect(self, address, **more):
        connection = connect(address, **more)
        self.addCleanup(connection.close)
        return connection

    def assertSame(self, sent, arrived, what):
        difference = describe_difference(sent, arrived)
        if difference:
            self.fail(f"{what}: {difference}")

    def explain(self):
        """What helps to understand a failure: the logs' last lines."""
        for front in self._fronts:
            lines = front.log().splitlines()
            print("\n".join(["    --- Trabex's log:", *(f"    {line[:300]}" for line in lines[-60:])]))
            if front.process:
                print(f"    --- Trabex's status {front.process.status()}, standard error:\n"
                      f"{front.process.stderr()}")
        for server in self._mail_servers:
            print("\n".join([f"    --- {type(server).__name__}'s log:",
                             *(f"    {line}" for line in server.log().splitlines()[-20:])]))


class _Result(unittest.TestResult):
    """One line per case as it ends, and what explains a failure."""

    def __init__(self):
        super().__init__()
        self.passed = 0
        self._begun = 0.0
        self._words = {}

    @staticmethod
    def _name(case):
        return f"{Path(sys.argv[0]).stem}.{type(case).__name__}.{case._testMethodName}"

    def startTest(self, test):
        super().startTest(test)
        self._begun = time.monotonic()
        self._words[test] = "passed"

    def _failed(self, test, error):
        # A case may fail twice: in itself, and when its place is left.
        case = getattr(test, "test_case", test)
        self._words[case] = "FAILED"
        print(f"  {self._name(case)}:\n" + "".join(traceback.format_exception(*error)))
        if isinstance(case, Scenario) and hasattr(case, "place"):
            case.place.keep = Options.keep
            with contextlib.suppress(OSError):
                case.explain()
        sys.stdout.flush()

    def addError(self, test, err):
        super().addError(test, err)
        self._failed(test, err)

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self._failed(test, err)

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            print(f"  in {subtest._subDescription()}:")
            self._failed(test, err)

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self._words[test] = f"skipped ({reason})"

    def stopTest(self, test):
        super().stopTest(test)
        word = self._words.get(test, "FAILED")
        self.passed += word == "passed"
        print(f"  {word:7} {time.monotonic() - self._begun:6.1f} s  {self._name(test)}", flush=True)

    def failed(self):
        return sum(word == "FAILED" for word in self._words.values())


def add_options(parser):
    parser.add_argument("--build", type=Path, default=Options.build, help="the build folder under test")
    parser.add_argument("--through", choices=["trabex", "haproxy", "direct"], default=Options.through)
    parser.add_argument("--patience", type=float, default=Options.patience, help="factor for all bounds")
    parser.add_argument("--ipv6", action="store_true", help="on ::1; that takes root")
    parser.add_argument("--sandbox", type=int, default=Options.sandbox, help="Sandbox in each file that names none")
    parser.add_argument("--keep", action="store_true", help="keep the folders of cases that fail")


def take_options(arguments):
    Options.build = arguments.build.resolve()
    Options.through = arguments.through
    Options.patience = arguments.patience
    Options.keep = arguments.keep
    Options.sandbox = arguments.sandbox


def main():
    """Runs the cases of the calling script; the last line counts them."""
    parser = argparse.ArgumentParser(description=sys.modules["__main__"].__doc__)
    parser.add_argument("cases", nargs="*", help="Class.method; all when none is given")
    add_options(parser)
    arguments = parser.parse_args()
    take_options(arguments)
    if arguments.ipv6 and not IPV6:
        enter_own_network()
        print("  skipped (no network of its own)\n0 passed, 0 failed, 1 skipped")
        return
    loader = unittest.defaultTestLoader
    module = sys.modules["__main__"]
    suite = (loader.loadTestsFromNames(arguments.cases, module) if arguments.cases
             else loader.loadTestsFromModule(module))
    result = _Result()
    # SIGTERM ends the scenario like Ctrl-C, so that everything it started is put away.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    suite.run(result)
    failed = max(result.failed(), 0 if result.wasSuccessful() else 1)
    if wrong := json_lines.why_not_read_by_jq():
        print(f"  the log in JSON: {wrong}")
        failed += 1
    print(f"{result.passed} passed, {failed} failed, {len(result.skipped)} skipped")
    sys.exit(1 if failed else 0)
