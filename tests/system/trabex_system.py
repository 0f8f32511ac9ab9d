"""What the system tests share: a place of their own, the programs of a story, clients and scripted servers.

A story is one script test_*.py in this folder; its cases are the methods of classes derived from Story. A case
starts what it needs through self (self.trabex(), self.sample_server(), self.postfix(), ...). All of it listens on
loopback, on ports that no other test uses, keeps its files in one temporary folder and is gone when the case ends.

Nothing sleeps for time: a case waits for an event (wait_until, or a read from a socket) and fails at the bound.

    ./test_relay.py                        all cases of the story with build/release
    ./test_relay.py Story.test_x           one of them
    ./test_relay.py --build build/asan     with the programs of another build
    ./test_relay.py --through direct       without Trabex in between (or haproxy), to tell a mistake of the test
                                           from one of the program
    ./test_relay.py --keep                 leaves the temporary folder of a case that fails
"""

import argparse
import atexit
import contextlib
import os
import random
import re
import shutil
import signal
import smtplib
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import traceback
import unittest
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
LOOPBACK = "127.0.0.1"
DOMAIN = "test.example"

# Postfix and haproxy live where an ordinary user's path does not lead.
os.environ["PATH"] += ":/usr/sbin:/sbin"


class Options:
    """What the command line of a story settles for all of its cases."""

    build = REPO / "build" / "release"
    through = "trabex"
    keep = False
    # Every bound is multiplied by this: sanitizers and busy machines are slow.
    patience = 1.0


def bound(seconds):
    return seconds * Options.patience


def wait_until(condition, what, seconds=20):
    """Waits for `condition` to be true and returns its value; fails with `what` at the bound."""
    end = time.monotonic() + bound(seconds)
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"waited {bound(seconds):g} seconds in vain for {what}")
        time.sleep(0.005)


# ---------------------------------------------------------------------------------------------------- ports

_reserved_ports = []


def free_port():
    """A loopback port for a server of this process, below the range that the system gives out by itself.

    The tests that run beside this one share the machine; a socket name taken for the life of the process keeps
    them from choosing the same port.
    """
    while True:
        port = random.randrange(12000, 32000)
        reservation = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        probe = socket.socket()
        try:
            reservation.bind(f"\0port of a test {port}")
            probe.bind((LOOPBACK, port))
        except OSError:
            reservation.close()
            continue
        finally:
            probe.close()
        _reserved_ports.append(reservation)
        return port


def sockets_of_system(port, state):
    """The IPv4 sockets with the local port `port` in `state`, as rows of the system's table."""
    wanted = f":{port:04X}"
    with open("/proc/net/tcp", encoding="ascii") as table:
        rows = [line.split() for line in table][1:]
    return [row for row in rows if row[1].endswith(wanted) and row[3] == state]


def is_listening(port):
    """Whether anybody listens on the port. Asks the system, since a connection would be a session."""
    return bool(sockets_of_system(port, "0A"))


def connections_to(port):
    """How many established connections the server on the port has."""
    return len(sockets_of_system(port, "01"))


# ---------------------------------------------------------------------------------------------------- place


class Place:
    """A temporary folder and everything that has to be put away, in reverse order, when it is left."""

    def __init__(self, name):
        # Postfix's own user has to reach its folders below.
        self.folder = Path(tempfile.mkdtemp(prefix=f"trabex-{name}-"))
        self.folder.chmod(0o755)
        self.keep = False
        self._leaving = contextlib.ExitStack()
        self._numbers = {}

    def on_leaving(self, action, *arguments):
        self._leaving.callback(action, *arguments)

    def new_folder(self, name):
        number = self._numbers[name] = self._numbers.get(name, 0) + 1
        folder = self.folder / (name if number == 1 else f"{name}{number}")
        folder.mkdir(mode=0o755)
        return folder

    def end_all(self):
        """Ends what was started, in reverse order; the files stay, for whoever wants to explain a failure."""
        self._leaving.close()

    def remove(self):
        if self.keep:
            print(f"kept: {self.folder}")
        else:
            shutil.rmtree(self.folder, ignore_errors=True)

    def leave(self):
        try:
            self.end_all()
        finally:
            self.remove()


class Process:
    """A child process with its output in files; it is ended by its id, and only by that."""

    def __init__(self, place, name, command, environment=None, cwd=None):
        self.name = name
        self.folder = place.new_folder(f"{name}.out")
        self.command = [str(part) for part in command]
        with open(self.folder / "stdout", "wb") as out, open(self.folder / "stderr", "wb") as err:
            self._child = subprocess.Popen(
                self.command, stdin=subprocess.DEVNULL, stdout=out, stderr=err, cwd=cwd,
                env={**os.environ, **(environment or {})}, start_new_session=True)
        self.pid = self._child.pid

    def stdout(self):
        return (self.folder / "stdout").read_text(errors="replace")

    def stderr(self):
        return (self.folder / "stderr").read_text(errors="replace")

    def status(self):
        """The exit status, or None while it runs; the negative signal number when a signal ended it."""
        return self._child.poll()

    def send_signal(self, number):
        self._child.send_signal(number)

    def wait(self, seconds=20):
        """Waits for the end and returns the exit status."""
        try:
            return self._child.wait(bound(seconds))
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self.name} did not end within {bound(seconds):g} seconds") from None

    def wait_listening(self, port, seconds=30):
        def listening_or_ended():
            return is_listening(port) or self.status() is not None

        wait_until(listening_or_ended, f"{self.name} to listen on port {port}", seconds)
        if self.status() is not None:
            raise AssertionError(f"{self.name} ended with status {self.status()}: {self.stderr()}")

    def end(self, number=signal.SIGTERM):
        """Asks for the end and returns the exit status; kills what does not end by itself, and fails then."""
        if self.status() is None:
            self.send_signal(number)
        try:
            return self.wait()
        except AssertionError:
            self.send_signal(signal.SIGKILL)
            self._child.wait()
            raise

    def resident_bytes(self):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as table:
            for line in table:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1]) * 1024
        raise AssertionError(f"no memory figure of {self.name}")


def program(name):
    """The path of a program of the build under test."""
    path = Options.build / name
    if not path.exists():
        raise AssertionError(f"{path} has not been built")
    return path


# --------------------------------------------------------------------------------------------------- Trabex

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

    def __init__(self, place, server_port, settings=None, sections=None, arguments=("/HI",), start=True):
        self._place = place
        self.folder = place.new_folder("trabex")
        self.ini = self.folder / "Trabex.ini"
        self.log_folder = self.folder / "Log"
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        self.arguments = list(arguments)
        self.sections = sections
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
        new.write_text(ini_text(self.settings, self.sections), encoding="utf-8")
        new.replace(self.ini)

    def command(self):
        return [program("Trabex"), "/I", self.ini, *self.arguments]

    def start(self):
        self.process = Process(self._place, "Trabex", self.command())
        self._place.on_leaving(self._leave)
        self.process.wait_listening(self.port)
        return self

    def end(self, number=signal.SIGTERM):
        """Ends it in order and returns the exit status."""
        return self.process.end(number)

    def _leave(self):
        if self.process.status() is None:
            status = self.end()
            if status != 0:
                raise AssertionError(f"Trabex ended with status {status}:\n{self.process.stderr()}")
        if "ERROR: " in self.process.stderr() or "runtime error" in self.process.stderr():
            raise AssertionError(self.process.stderr())

    def log(self):
        """The text of its log files, in the order of their names."""
        files = sorted(self.log_folder.glob("*.log"))
        return b"".join(file.read_bytes() for file in files).decode("utf-8", errors="replace")

    def log_lines(self):
        """The messages of the log without their time stamps."""
        lines = self.log().split("\r\n")
        return [_STAMP.sub("", line) for line in lines if line]

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


class HaProxy:
    """HAProxy that relays bytes between two loopback ports with one thread: the peer to compare with."""

    def __init__(self, place, server_port, connections=5000):
        folder = place.new_folder("haproxy")
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        configuration = folder / "haproxy.cfg"
        configuration.write_text(
            f"global\n  nbthread 1\n  maxconn {connections}\n"
            "defaults\n  mode tcp\n  timeout connect 10s\n  timeout client 10m\n  timeout server 10m\n"
            f"listen smtp\n  bind {LOOPBACK}:{self.port}\n  server real {LOOPBACK}:{server_port}\n")
        self.process = Process(place, "haproxy", ["haproxy", "-db", "-f", configuration])
        # SIGTERM is its immediate stop; it reports it as a signal or as status 143.
        place.on_leaving(self.process.end)
        self.process.wait_listening(self.port)


class Direct:
    """No proxy at all: the server itself, under the same face."""

    def __init__(self, server_port):
        self.port = server_port
        self.address = (LOOPBACK, server_port)


# -------------------------------------------------------------------------------------------------- terminal


class Terminal:
    """A terminal (tmux, with a server of its own) in which one command runs."""

    def __init__(self, place, command, columns=100, rows=30, environment=None):
        self._folder = place.new_folder("terminal")
        configuration = self._folder / "tmux.conf"
        configuration.write_text("set -g remain-on-exit on\nset -g status off\nset -g escape-time 0\n")
        self._environment = {key: value for key, value in os.environ.items() if key != "TMUX"}
        self._environment.update({"LC_ALL": "C.UTF-8", **(environment or {})})
        self._tmux("-f", configuration, "new-session", "-d", "-s", "story", "-x", columns, "-y", rows,
                   "--", *command)
        place.on_leaving(self.close)
        self.pid = int(self._tmux("display-message", "-p", "#{pane_pid}"))

    def _tmux(self, *arguments):
        done = subprocess.run(["tmux", "-u", "-S", str(self._folder / "socket"), *map(str, arguments)],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=bound(20),
                              check=False, env=self._environment)
        if done.returncode != 0:
            raise AssertionError(f"tmux {arguments[0]}: {done.stderr}")
        return done.stdout

    def screen(self):
        """The lines that can be seen now, without blanks at their ends."""
        return self._tmux("capture-pane", "-p").split("\n")

    def keys(self, *keys):
        """Presses keys, in tmux's names ("q", "C-c", "NPage", "Down", "Enter")."""
        self._tmux("send-keys", *keys)

    def resize(self, columns, rows):
        self._tmux("resize-window", "-x", columns, "-y", rows)

    def wait_for(self, condition, what, seconds=20):
        """Waits until `condition` holds for the lines of the screen; returns them."""
        last = []

        def holds():
            last[:] = self.screen()
            return condition(last)

        try:
            wait_until(holds, what, seconds)
        except AssertionError as error:
            raise AssertionError(f"{error}; the screen is:\n" + "\n".join(last)) from None
        return last

    def wait_for_text(self, text, seconds=20):
        return self.wait_for(lambda lines: any(text in line for line in lines), f"{text!r} on the screen", seconds)

    def status(self):
        """The exit status of the command, or None while it runs."""
        dead, status = self._tmux("display-message", "-p", "#{pane_dead} #{pane_dead_status}").rstrip("\n").split(" ")
        return int(status) if dead == "1" else None

    def wait(self, seconds=20):
        wait_until(lambda: self.status() is not None, "the command to end", seconds)
        return self.status()

    def close(self):
        self._tmux("kill-server")


# ---------------------------------------------------------------------------------------------- mail servers


class StoredMessage:
    """One message as the sample mail server stored it."""

    def __init__(self, path):
        self.path = path
        self.content = path.read_bytes()
        self.helo = self.client = self.sender = ""
        self.recipients = []
        for line in path.with_suffix(".envelope").read_text(errors="surrogateescape").splitlines():
            name, value = line.split(": ", 1)
            if name == "rcpt":
                self.recipients.append(value)
            elif name == "mail":
                self.sender = value
            elif name == "helo":
                self.helo = value
            elif name == "client":
                self.client = value


class SampleServer:
    """The sample mail server; it keeps each message byte for byte."""

    def __init__(self, place, *arguments, mail=None):
        self.mail = mail or place.new_folder("mail")
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        self.process = Process(place, "sample_mail_server",
                               [program("tools/sample_mail_server/sample_mail_server"),
                                "--port", self.port, "--folder", self.mail, *arguments])
        place.on_leaving(self._leave)
        self.process.wait_listening(self.port)

    def _leave(self):
        status = self.process.end()
        if status != 0:
            raise AssertionError(f"the sample mail server ended with status {status}:\n{self.process.stderr()}")

    def count(self):
        return len(list(self.mail.glob("*.eml")))

    def messages(self):
        """All messages in the order of their arrival."""
        return [StoredMessage(path) for path in sorted(self.mail.glob("*.eml"), key=lambda path: int(path.stem))]

    def wait_for_messages(self, count, seconds=60):
        wait_until(lambda: self.count() >= count, f"{count} messages", seconds)
        return self.messages()


class SmtpSink:
    """Postfix's own sink: takes mail as fast as it comes and forgets it."""

    def __init__(self, place, connections=4096):
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        command = ["smtp-sink", "-m", connections]
        if os.geteuid() == 0:
            command += ["-u", "nobody"]
        self.process = Process(place, "smtp-sink", [*command, f"{LOOPBACK}:{self.port}", connections])
        place.on_leaving(self.process.end)
        self.process.wait_listening(self.port)


class Postfix:
    """A Postfix of the story's own: everything it has is in the place, and it delivers into one Maildir."""

    def __init__(self, place, settings=None):
        if os.geteuid() != 0:
            raise unittest.SkipTest("Postfix runs as root only")
        folder = place.new_folder("postfix")
        self._configuration = folder / "etc"
        self._queue = folder / "queue"
        self.maildir = folder / "box" / "mail"
        self._log = folder / "postfix.log"
        for path in (self._configuration, self._queue, folder / "data", folder / "box"):
            path.mkdir()
        shutil.chown(folder / "data", "postfix")
        shutil.chown(folder / "box", "nobody", "nogroup")
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        nobody = os.stat(folder / "box").st_uid, os.stat(folder / "box").st_gid
        main = {
            "compatibility_level": "3.6", "queue_directory": self._queue, "data_directory": folder / "data",
            "command_directory": "/usr/sbin", "daemon_directory": "/usr/lib/postfix/sbin", "mail_owner": "postfix",
            "setgid_group": "postdrop", "maillog_file": self._log, "maillog_file_prefixes": folder,
            "inet_interfaces": LOOPBACK, "inet_protocols": "ipv4", "myhostname": "server.example",
            "mynetworks": "127.0.0.0/8", "mydestination": "", "alias_maps": "", "alias_database": "",
            "local_recipient_maps": "", "virtual_mailbox_domains": f"static:{DOMAIN}",
            "virtual_mailbox_base": folder / "box", "virtual_mailbox_maps": "static:mail/",
            "virtual_uid_maps": f"static:{nobody[0]}", "virtual_gid_maps": f"static:{nobody[1]}",
            "virtual_mailbox_limit": 0, "mailbox_size_limit": 0, "message_size_limit": 0,
            # The content is to be compared: nothing is added to it, and an empty disk is no condition.
            "local_header_rewrite_clients": "", "queue_minfree": 0, "smtpd_peername_lookup": "no",
            "virtual_destination_concurrency_limit": 20, "virtual_destination_recipient_limit": 1,
            "smtpd_client_connection_count_limit": 0, "default_process_limit": 100,
        }
        # Only the given domain is ours; a static map says yes to all, and relaying is then no question.
        main.update(settings or {})
        (self._configuration / "main.cf").write_text("".join(f"{key} = {value}\n" for key, value in main.items()))
        (self._configuration / "master.cf").write_text("".join(
            f"{line}\n" for line in (
                f"{LOOPBACK}:{self.port} inet n - n - - smtpd",
                "cleanup unix n - n - 0 cleanup", "qmgr unix n - n 300 1 qmgr", "rewrite unix - - n - - trivial-rewrite",
                "bounce unix - - n - 0 bounce", "defer unix - - n - 0 bounce", "trace unix - - n - 0 bounce",
                "verify unix - - n - 1 verify", "flush unix n - n 1000? 0 flush", "proxymap unix - - n - - proxymap",
                "proxywrite unix - - n - 1 proxymap", "smtp unix - - n - - smtp", "relay unix - - n - - smtp",
                "showq unix n - n - - showq", "error unix - - n - - error", "retry unix - - n - - error",
                "discard unix - - n - - discard", "local unix - n n - - local", "virtual unix - n n - - virtual",
                "lmtp unix - - n - - lmtp", "anvil unix - - n - 1 anvil", "scache unix - - n - 1 scache",
                "tlsmgr unix - - n 1000? 1 tlsmgr", "pickup unix n - n 60 1 pickup",
                "postlog unix-dgram n - n - 1 postlogd")))
        self.process = Process(place, "postfix", ["postfix", "-c", self._configuration, "start-fg"])
        place.on_leaving(self._leave)
        try:
            self.process.wait_listening(self.port)
        except AssertionError as error:
            raise AssertionError(f"{error}\n{self.log()}") from None

    def _leave(self):
        if self.process.status() is None:
            subprocess.run(["postfix", "-c", str(self._configuration), "stop"], stdin=subprocess.DEVNULL,
                           capture_output=True, timeout=bound(30), check=False)
        self.process.end()

    def log(self):
        return self._log.read_text(errors="replace") if self._log.exists() else ""

    def count(self):
        return len(list(self.maildir.glob("new/*")))

    def wait_for_messages(self, count, seconds=120):
        """Waits for `count` messages and returns (recipient, content) of each; the lines end in LF here."""
        wait_until(lambda: self.count() >= count, f"{count} messages in the Maildir", seconds)
        return [self._split(path.read_bytes()) for path in self.maildir.glob("new/*")]

    @staticmethod
    def _split(content):
        """Recipient and content, without the lines that Postfix puts in front."""
        head = re.match(rb"Return-Path: .*\nX-Original-To: (.*)\nDelivered-To: .*\nReceived: .*\n(?:[ \t].*\n)*", content)
        if not head:
            raise AssertionError(f"not as Postfix delivers: {content[:400]!r}")
        return head.group(1).decode("ascii"), content[head.end():]


class ScriptedServer:
    """A server whose every move a case decides: `dialogue(connection)` runs in a thread per connection.

    An exception in a dialogue fails the case when the place is left. The default dialogue is polite_server().
    """

    def __init__(self, place, dialogue=None):
        self._dialogue = dialogue or polite_server()
        self._listener = socket.create_server((LOOPBACK, 0), backlog=256)
        self.port = self._listener.getsockname()[1]
        self.address = (LOOPBACK, self.port)
        self._failures = []
        self._threads = []
        self.connections = []
        self._accepting = threading.Thread(target=self._accept, daemon=True)
        self._accepting.start()
        place.on_leaving(self._leave)

    def _accept(self):
        while True:
            try:
                accepted, _ = self._listener.accept()
            except OSError:
                return
            connection = Connection(accepted)
            self.connections.append(connection)
            thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _serve(self, connection):
        try:
            self._dialogue(connection)
        except (HungUp, ConnectionError, BrokenPipeError):
            pass
        except Exception:
            self._failures.append(traceback.format_exc())
        finally:
            connection.close()

    def stop_listening(self):
        # close() alone would leave the accept of the thread waiting.
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._accepting.join(bound(10))

    def _leave(self):
        self.stop_listening()
        for connection in self.connections:
            with contextlib.suppress(OSError):
                connection.socket.shutdown(socket.SHUT_RDWR)
        for thread in self._threads:
            thread.join(bound(10))
        if self._failures:
            raise AssertionError("in a scripted server:\n" + "\n".join(self._failures))


# ----------------------------------------------------------------------------------------- clients and lines


class HungUp(Exception):
    """The peer closed the connection where more was expected."""


class Connection:
    """A connected socket, line by line. Every read and write fails at the bound instead of waiting for ever."""

    def __init__(self, connected, seconds=30):
        self.socket = connected
        self.socket.settimeout(bound(seconds))
        self._received = bytearray()

    def send(self, data):
        self.socket.sendall(data)

    def send_line(self, line):
        self.send(line.encode("utf-8", errors="surrogateescape") + b"\r\n")

    def _receive(self):
        try:
            data = self.socket.recv(65536)
        except TimeoutError:
            raise AssertionError(f"nothing more came; so far unread: {bytes(self._received)!r}") from None
        if not data:
            raise HungUp(bytes(self._received))
        self._received += data

    def read_line(self):
        """The next line, without its CR LF."""
        while (end := self._received.find(b"\r\n")) < 0:
            self._receive()
        line = self._received[:end].decode("utf-8", errors="surrogateescape")
        del self._received[:end + 2]
        return line

    def read_bytes(self, count):
        while len(self._received) < count:
            self._receive()
        data = bytes(self._received[:count])
        del self._received[:count]
        return data

    def read_content(self):
        """Message content after DATA up to the single dot, the dots undoubled."""
        lines = []
        while (line := self.read_raw_line()) != b".\r\n":
            lines.append(line[1:] if line.startswith(b".") else line)
        return b"".join(lines)

    def read_raw_line(self):
        while (end := self._received.find(b"\r\n")) < 0:
            self._receive()
        line = bytes(self._received[:end + 2])
        del self._received[:end + 2]
        return line

    def read_reply(self):
        """A complete reply, its lines joined by LF."""
        lines = [self.read_line()]
        while lines[-1][3:4] == "-":
            lines.append(self.read_line())
        return "\n".join(lines)

    def command(self, line):
        """Sends a command line and returns the reply."""
        self.send_line(line)
        return self.read_reply()

    def read_to_end(self):
        """Everything up to the peer's orderly close."""
        try:
            while True:
                self._receive()
        except HungUp:
            data = bytes(self._received)
            self._received.clear()
            return data

    def finish_sending(self):
        """Half-closes: the peer sees our end, and can still be heard."""
        self.socket.shutdown(socket.SHUT_WR)

    def reset(self):
        """Breaks the connection off with a reset."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def close(self):
        self.socket.close()


def connect(address, source=None, receive_buffer=None):
    """A client's connection; `source` is the client's own address ("127.0.0.7")."""
    client = socket.socket()
    if receive_buffer:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    client.settimeout(bound(30))
    if source:
        client.bind((source, 0))
    client.connect(address)
    return Connection(client)


def polite_server(extensions=("8BITMIME", "CHUNKING"), content=None, replies=None):
    """The dialogue of a server that accepts everything.

    `replies` maps a verb to what is said instead: a text, or a function of (connection, line) that returns a text
    or None when it said everything itself. Message content is appended to the list `content`.
    """
    def dialogue(connection):
        connection.send_line("220 server.example ESMTP")
        while True:
            line = connection.read_line()
            verb = line.split(" ")[0].upper()
            own = (replies or {}).get(verb)
            if callable(own):
                own = own(connection, line)
                if own is None:
                    continue
            if own is not None:
                connection.send_line(own)
            elif verb == "EHLO":
                lines = ["server.example", *extensions]
                connection.send("".join(f"250{'-' if i + 1 < len(lines) else ' '}{text}\r\n"
                                        for i, text in enumerate(lines)).encode("ascii"))
            elif verb == "DATA":
                connection.send_line("354 go on")
                message = connection.read_content()
                if content is not None:
                    content.append(message)
                connection.send_line("250 taken")
            elif verb == "BDAT":
                message = connection.read_bytes(int(line.split(" ")[1]))
                if content is not None:
                    content.append(message)
                connection.send_line("250 taken")
            elif verb == "QUIT":
                connection.send_line("221 bye")
                return
            else:
                connection.send_line("250 ok")
    return dialogue


class Smtp(smtplib.SMTP):
    """Python's own client, with BDAT added."""

    def __init__(self, address, source=None):
        super().__init__(*address, local_hostname="client.example", timeout=bound(60),
                         source_address=(source, 0) if source else None)

    def bdat(self, sender, recipients, chunks):
        """Sends a message in these chunks; raises when anything is refused."""
        self.ehlo_or_helo_if_needed()
        self._expect(250, self.mail(sender))
        for recipient in recipients:
            self._expect(250, self.rcpt(recipient))
        for i, chunk in enumerate(chunks):
            last = " LAST" if i + 1 == len(chunks) else ""
            self.send(f"BDAT {len(chunk)}{last}\r\n".encode("ascii") + chunk)
            self._expect(250, self.getreply())

    @staticmethod
    def _expect(code, reply):
        if reply[0] != code:
            raise smtplib.SMTPResponseException(*reply)


_RECEIVED = re.compile(
    rb"\AReceived: from (?P<helo>\S*) \((?P<name>\S+) \[(?P<ip>[0-9.]+)\]\) by (?P<by>\S+)\r?\n"
    rb"      with (?P<protocol>E?SMTP); "
    rb"(?:Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d\d (?:Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) \d{4} "
    rb"\d\d:\d\d:\d\d [+-]\d{4}\r?\n")


def without_received(content):
    """The content without the header that Trabex puts in front; fails when it is not there (exactly once)."""
    if Options.through != "trabex":
        return content
    header = _RECEIVED.match(content)
    if not header:
        raise AssertionError(f"no Received header in front: {content[:300]!r}")
    return content[header.end():]


def received_header(content):
    """The parts of Trabex's own header, as text by name."""
    header = _RECEIVED.match(content)
    if not header:
        raise AssertionError(f"no Received header in front: {content[:300]!r}")
    return {name: value.decode("ascii") for name, value in header.groupdict().items()}


def describe_difference(sent, arrived):
    """A short word on the first byte that differs; comparing large contents by assertEqual floods the screen."""
    if sent == arrived:
        return ""
    at = next((i for i, (a, b) in enumerate(zip(sent, arrived)) if a != b), min(len(sent), len(arrived)))
    return (f"sent {len(sent)} bytes, {len(arrived)} arrived; they differ from byte {at} on: "
            f"{sent[max(0, at - 20):at + 40]!r} became {arrived[max(0, at - 20):at + 40]!r}")


# ---------------------------------------------------------------------------------------------------- stories


class Story(unittest.TestCase):
    """One case's surroundings."""

    def setUp(self):
        self.place = Place(self._testMethodName)
        self._fronts = []
        self._postfixes = []
        # Clean-ups run from the last to the first. A failure in end_all() is the case's failure.
        self.addCleanup(self.place.remove)
        self.addCleanup(self.place.end_all)
        # An interrupted case does not come to its clean-ups.
        atexit.register(self.place.leave)
        self.addCleanup(atexit.unregister, self.place.leave)

    def trabex(self, server_port, settings=None, **more):
        """Trabex itself; a case that needs it does not run through anything else."""
        if Options.through != "trabex":
            self.skipTest("needs Trabex itself")
        trabex = Trabex(self.place, server_port, settings, **more)
        self._fronts.append(trabex)
        return trabex

    def front(self, server_port, settings=None, **more):
        """What stands between the clients and the server in this run: Trabex, unless --through says otherwise."""
        if Options.through == "direct":
            return Direct(server_port)
        if Options.through == "haproxy":
            return HaProxy(self.place, server_port)
        return self.trabex(server_port, settings, **more)

    def sample_server(self, *arguments):
        return SampleServer(self.place, *arguments)

    def scripted_server(self, dialogue=None):
        return ScriptedServer(self.place, dialogue)

    def postfix(self, settings=None):
        postfix = Postfix(self.place, settings)
        self._postfixes.append(postfix)
        return postfix

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
        for postfix in self._postfixes:
            print("\n".join(["    --- Postfix's log:", *(f"    {line}" for line in postfix.log().splitlines()[-20:])]))


class _Result(unittest.TestResult):
    """One line per case as it ends, and what explains a failure."""

    def __init__(self):
        super().__init__()
        self.passed = 0
        self._begun = 0.0
        self._words = {}

    @staticmethod
    def _name(case):
        return f"{Path(sys.argv[0]).stem}.{case._testMethodName}"

    def startTest(self, test):
        super().startTest(test)
        self._begun = time.monotonic()
        self._words[test] = "passed"

    def _failed(self, test, error):
        # A case may fail twice: in itself, and when its place is left.
        case = getattr(test, "test_case", test)
        self._words[case] = "FAILED"
        print(f"  {self._name(case)}:\n" + "".join(traceback.format_exception(*error)))
        if isinstance(case, Story) and hasattr(case, "place"):
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
    parser.add_argument("--keep", action="store_true", help="keep the folders of cases that fail")


def take_options(arguments):
    Options.build = arguments.build.resolve()
    Options.through = arguments.through
    Options.patience = arguments.patience
    Options.keep = arguments.keep


def main():
    """Runs the cases of the calling script; the last line counts them."""
    parser = argparse.ArgumentParser(description=sys.modules["__main__"].__doc__)
    parser.add_argument("cases", nargs="*", help="Class.method; all when none is given")
    add_options(parser)
    arguments = parser.parse_args()
    take_options(arguments)
    loader = unittest.defaultTestLoader
    module = sys.modules["__main__"]
    suite = (loader.loadTestsFromNames(arguments.cases, module) if arguments.cases
             else loader.loadTestsFromModule(module))
    result = _Result()
    # SIGTERM ends the story like Ctrl-C, so that everything it started is put away.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    suite.run(result)
    failed = max(result.failed(), 0 if result.wasSuccessful() else 1)
    print(f"{result.passed} passed, {failed} failed, {len(result.skipped)} skipped")
    sys.exit(1 if failed else 0)
