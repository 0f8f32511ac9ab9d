"""Processes, ports and places: what a system test needs to start something and to put it away again."""

import contextlib
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

from addresses import FAMILY, LOOPBACK
from listening_ports import listening_ports

REPO = Path(__file__).resolve().parents[2]
DOMAIN = "test.example"

# Postfix and haproxy live where an ordinary user's path does not lead.
os.environ["PATH"] += ":/usr/sbin:/sbin"


class Options:
    """What the command line of a scenario settles for all of its cases."""

    build = REPO / "build" / "release"
    through = "trabex"
    keep = False
    sandbox = None  # the value of Sandbox in files that name none
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


_reserved_ports = []


def reserve_port(port):
    """Whether the loopback port is free; then no other test of this machine gets it while this process lives.

    The tests that run beside this one share the machine; a socket name taken for the life of the process keeps
    them from choosing the same port.
    """
    reservation = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    probe = socket.socket(FAMILY)
    try:
        reservation.bind(f"\0port of a test {port}")
        probe.bind((LOOPBACK, port))
    except OSError:
        reservation.close()
        return False
    finally:
        probe.close()
    _reserved_ports.append(reservation)
    return True


def free_port():
    """A loopback port for a server of this process, below the range that the system gives out by itself."""
    while True:
        port = random.randrange(12000, 32000)
        if reserve_port(port):
            return port


class SystemSocket:
    """One row of the system's tables of TCP sockets."""

    ESTABLISHED, CLOSE_WAIT, LISTEN = "01", "08", "0A"

    def __init__(self, row):
        _, local, remote, self.state, queues = row.split()[:5]
        self.local_port = int(local.split(":")[1], 16)
        self.remote_port = int(remote.split(":")[1], 16)
        # For a listening socket the second is its backlog.
        self.unsent, self.unread = (int(count, 16) for count in queues.split(":"))


def sockets_of_system():
    rows = []
    for family in ("tcp", "tcp6"):
        with contextlib.suppress(FileNotFoundError), open(f"/proc/net/{family}", encoding="ascii") as table:
            rows += table.readlines()[1:]
    # A table that changes while it is read may show a socket twice.
    return [SystemSocket(row) for row in {tuple(row.split()[1:3]): row for row in rows}.values()]


def is_listening(port):
    """Whether anybody listens on the port. Asks the system, since a connection would be a session."""
    ports = listening_ports()
    if ports is None:
        ports = {row.local_port for row in sockets_of_system() if row.state == SystemSocket.LISTEN}
    return port in ports


def connections_to(port):
    """How many established connections the server on the port has."""
    return sum(row.local_port == port and row.state == SystemSocket.ESTABLISHED for row in sockets_of_system())


def connections_not_closed(port):
    """How many connections to the server on the port their clients keep: all of them, and those it has closed."""
    states = [row.state for row in sockets_of_system() if row.remote_port == port]
    return (sum(state in (SystemSocket.ESTABLISHED, SystemSocket.CLOSE_WAIT) for state in states),
            states.count(SystemSocket.CLOSE_WAIT))


def queued_bytes(port):
    """What the connections of the server on the port hold: (unsent by the clients, unread by the server)."""
    rows = [row for row in sockets_of_system() if row.state == SystemSocket.ESTABLISHED]
    return (sum(row.unsent for row in rows if row.remote_port == port),
            sum(row.unread for row in rows if row.local_port == port))


def unread_bytes(*ports):
    """What the clients of the servers on these ports have not read yet, for each port."""
    rows = [row for row in sockets_of_system() if row.state == SystemSocket.ESTABLISHED]
    return tuple(sum(row.unread for row in rows if row.remote_port == port) for port in ports)


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

    def copy_program(self, name, new_name=None):
        """A copy of a program of the build in a folder of its own, which becomes the program's directory."""
        copy = self.new_folder("program") / (new_name or Path(name).name)
        shutil.copy(program(name), copy)
        return copy

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
                env={**os.environ, **(environment or {})}, start_new_session=True,
                # The tests themselves may run under nohup.
                preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_DFL))
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

    def _memory_bytes(self, figure):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as table:
            for line in table:
                if line.startswith(figure):
                    return int(line.split()[1]) * 1024
        raise AssertionError(f"no memory figure of {self.name}")

    def resident_bytes(self):
        return self._memory_bytes("VmRSS:")

    def peak_bytes(self):
        return self._memory_bytes("VmHWM:")


def keeps_freed_memory():
    """Whether the build under test is one with sanitizers, whose memory figures say nothing of the program's own use."""
    cache = (Options.build / "CMakeCache.txt").read_text(encoding="utf-8")
    return bool(re.search(r"^TRABEX_SANITIZE:\w+=.", cache, re.MULTILINE))


def program(name):
    """The path of a program of the build under test."""
    path = Options.build / name
    if not path.exists():
        raise AssertionError(f"{path} has not been built")
    return path
