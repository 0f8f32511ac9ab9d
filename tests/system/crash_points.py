"""Runs a program and kills it at one of its system calls (tests/support/linux/kill_at_call.cpp)."""

import contextlib
import os
import signal
import subprocess
import threading
from pathlib import Path
from typing import NamedTuple

from processes import bound, program, wait_until


class Stop(NamedTuple):
    """One end of a system call: before the system does anything of it (`entry`), or after all of it (`exit`)."""

    who: int      # 0 is the program; the copies that it forks follow
    number: int   # among those of this process
    living: int   # processes
    moment: str
    call: str
    result: str   # "-" before the call
    paths: tuple

    def __str__(self):
        return f"{'copy' if self.who else 'program'}, {self.moment} {self.number} {self.call} {' '.join(self.paths)}"

    def is_call(self, call, ending=""):
        """Whether it is the end of a call that succeeded, of this name, on a path with this ending."""
        return (self.call == call and self.moment == "exit" and not self.result.startswith("-") and
                (not ending or any(path.endswith(ending) for path in self.paths)))


class Point(NamedTuple):
    """Who is killed, and at which stop of whom: victims are `program`, `copies` or `all`; with `none` it is held."""

    stop: Stop
    victims: str

    def __str__(self):
        return f"{self.victims} at {self.stop} (--at {self.option()[1]})"

    def option(self):
        return ["--at", f"{self.stop.who}:{self.stop.number}:{self.victims}"]


def point_of(option):
    """The point of which this is the option WHO:NUMBER:VICTIMS; what is called there is not known."""
    who, number, victims = option.split(":")
    return Point(Stop(int(who), int(number), 0, "", "", "-", ()), victims)


def kill_points(stops):
    """Every way to kill the program, its copy, or both at one of these stops."""
    points = []
    for stop in stops:
        points += [Point(stop, victims) for victims in (("program", "copies", "all") if stop.living > 1 else ("all",))]
    return points


class TracedRun:
    """The command under kill_at_call. Without `start_at` it counts from begin_counting() on."""

    def __init__(self, folder, command, point=None, start_at=None, options=()):
        start = ["--wait"] if start_at is None else ["--from", start_at]
        at = point.option() if point else []
        self._stderr = folder / "stderr"
        with open(self._stderr, "ab") as err:
            self._tracer = subprocess.Popen(
                list(map(str, [program("tests/kill_at_call"), *start, *at, *options, "--", *command])),
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=err, start_new_session=True, text=True)
        self._lines = []
        self._stops = []
        self._pid = self._pid_handle = None
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        wait_until(lambda: self.said("started") or self.ended(), "the command to start")

    def _read(self):
        for line in self._tracer.stdout:
            words = line.split()
            if words[0] == "started":
                # No other process is ever meant, even if the number is used again.
                with contextlib.suppress(ProcessLookupError):
                    self._pid = int(words[1])
                    self._pid_handle = os.pidfd_open(self._pid)
            if words[0] == "stop":
                self._stops.append(Stop(int(words[1]), int(words[2]), int(words[3]), *words[4:7], tuple(words[7:])))
            self._lines.append(words)

    def stderr(self):
        return self._stderr.read_text(errors="replace")

    def stops(self):
        return list(self._stops)

    def said(self, *words):
        return any(line[:len(words)] == list(words) for line in list(self._lines))

    def killed(self):
        return self.said("killed")

    def ended(self):
        return self._tracer.poll() is not None

    def program_status(self):
        """Of the program itself; None while it runs."""
        return next((int(words[2]) for words in list(self._lines) if words[:2] == ["ended", "0"]), None)

    def sleeps(self):
        """Whether the program waits for something to happen."""
        try:
            stat = Path(f"/proc/{self._pid}/stat").read_text(encoding="utf-8")
        except (FileNotFoundError, ProcessLookupError):
            return False
        return stat.rpartition(")")[2].split()[0] == "S"

    def begin_counting(self):
        self._tracer.send_signal(signal.SIGUSR1)
        wait_until(lambda: self.said("counting") or self.ended(), "the counting")

    def end_counting(self):
        self._tracer.send_signal(signal.SIGUSR2)
        wait_until(lambda: self.said("not", "counting") or self.ended(), "the end of the counting")

    def go_on(self):
        """Lets go what was held."""
        self._tracer.send_signal(signal.SIGUSR1)

    def signal_program(self, number):
        with contextlib.suppress(ProcessLookupError):
            if self._pid_handle is not None:
                signal.pidfd_send_signal(self._pid_handle, number)

    def wait_until(self, condition, what, seconds=30):
        """Until the condition is true, or everything has ended."""
        wait_until(lambda: condition() or self.ended(), what, seconds)

    def wait(self, seconds=30):
        try:
            self._tracer.wait(bound(seconds))
        except subprocess.TimeoutExpired:
            raise AssertionError(f"still running: {self._lines[-5:]}") from None
        self._reader.join(bound(seconds))

    def close(self):
        """Ends what still runs: the tracer's end is that of all that it traces."""
        if not self.ended():
            self._tracer.send_signal(signal.SIGTERM)
        self.wait()
        if self._pid_handle is not None:
            os.close(self._pid_handle)
            self._pid_handle = None
