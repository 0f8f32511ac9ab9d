"""What the stories of the program for Windows share: Trabex.exe under Wine, its windows, the keyboard and the mouse.

They are scenarios like those of tests/system and take the same options; the clients and servers are programs of this system,
so --build is still the folder of its own build. What is tested, and where, comes from the environment:

    TRABEX_WINDOWS_BUILD   the folder of the build for Windows
    WINEPREFIX             a prefix whose wineserver runs already
    DISPLAY                a display with a window manager, for the stories of windows

A story that fails only because Wine is not Windows says so by @wine_cannot(reason).
"""

import json
import os
import select
import subprocess
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "system"))

from processes import Process, bound, wait_until  # noqa: E402
from trabex_system import Options, Scenario, Trabex, ini_text  # noqa: E402

BUILD = Path(os.environ.get("TRABEX_WINDOWS_BUILD", "build/windows")).resolve()
SHOTS = BUILD / "shots"
# Wine's own remarks are no output of the program.
os.environ.setdefault("WINEDEBUG", "-all")


def wine_cannot(reason):
    """Marks a story that fails only because of Wine; run_stories.py counts them."""
    return unittest.skip(f"Wine: {reason}")


def windows_path(path):
    """A path of this system as the program sees it."""
    return "Z:" + str(path).replace("/", "\\")


def as_windows(value):
    if isinstance(value, Path):
        return windows_path(value)
    if isinstance(value, (list, tuple)):
        return [as_windows(single) for single in value]
    return value


def program(name):
    path = BUILD / name
    if not path.exists():
        raise AssertionError(f"{path} has not been built")
    return path


def command(name, *arguments):
    """The command that runs a program of the build for Windows."""
    return ["wine", str(program(name)), *(str(as_windows(argument)) for argument in arguments)]


def run_trabex(*arguments, seconds=60, executable=None):
    """Runs Trabex to its end with its output in pipes; returns (status, standard output, standard error)."""
    done = subprocess.run(["wine", str(executable or program("Trabex.exe")), *map(str, map(as_windows, arguments))],
                          stdin=subprocess.DEVNULL, capture_output=True, timeout=bound(seconds), check=False)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


class WineTrabex(Trabex):
    """Trabex.exe, in front of the server on a loopback port; settings that are paths are given as the program wants them.

    It is asked to end by "/X", and must do so with status 0.
    """

    def write_ini(self, in_place=False, **changes):
        self.settings.update(changes)
        text = ini_text({key: as_windows(value) for key, value in self.settings.items()},
                        {section: {key: as_windows(value) for key, value in keys.items()}
                         for section, keys in self.sections.items()})
        target = self.ini if in_place else self.ini.with_suffix(".new")
        target.write_bytes(text.replace("\n", "\r\n").encode())
        if not in_place:
            target.replace(self.ini)

    def command(self):
        return command("Trabex.exe", "/I", self.ini, *self.arguments)

    def start(self):
        self.process = Process(self._place, "Trabex", self.command())
        self._place.on_leaving(self._leave_json_log)
        self._place.on_leaving(self._leave_in_order, self.process)
        self.process.wait_listening(self.port, 60)
        return self

    def ask_to_end(self):
        return run_trabex("/I", self.ini, "/X")

    def end(self):
        """Ends it in order and returns the exit status."""
        self.ask_to_end()
        return self.process.wait()

    def _leave_in_order(self, process):
        if process.status() is not None:
            return
        try:
            status = self.end()
        except AssertionError:
            process.end()  # killed, so that the next story has its display for itself
            raise
        if status != 0:
            raise AssertionError(f"Trabex ended with status {status}:\n{process.stderr()}")


class Reader:
    """Asks windows what they show (window_reader.cpp)."""

    def __init__(self, place):
        self._child = subprocess.Popen(command("tests/windows/window_reader.exe"), stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        place.on_leaving(self._leave)

    def ask(self, request):
        self._child.stdin.write(request.encode() + b"\n")
        self._child.stdin.flush()
        if not select.select([self._child.stdout], [], [], bound(60))[0]:
            raise AssertionError(f"no answer to {request!r}")
        return json.loads(self._child.stdout.readline())

    def _leave(self):
        self._child.stdin.close()
        try:
            self._child.wait(bound(20))
        except subprocess.TimeoutExpired:
            self._child.kill()
            self._child.wait()
        self._child.stdout.close()


class WineScenario(Scenario):
    def setUp(self):
        super().setUp()
        self._reader = None

    def trabex(self, server_port, settings=None, **more):
        # What is relayed to is one of ours, and its client is told by name.
        more.setdefault("json_log", True)
        front = WineTrabex(self.place, server_port, settings, **more)
        self._fronts.append(front)
        return front

    @property
    def reader(self):
        if self._reader is None:
            self._reader = Reader(self.place)
        return self._reader


def xdotool(*arguments):
    """Moves, clicks and types on the display; returns what was printed."""
    done = subprocess.run(["xdotool", *map(str, arguments)], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=bound(30), check=False)
    return done.stdout.strip()


def take_shot(name):
    """A picture of the whole display, for people; what is tested is asked of the windows."""
    SHOTS.mkdir(parents=True, exist_ok=True)
    subprocess.run(["import", "-window", "root", str(SHOTS / f"{name}.png")], stdin=subprocess.DEVNULL, check=True,
                   timeout=bound(60))


__all__ = ["BUILD", "Options", "WineScenario", "WineTrabex", "command", "program", "run_trabex", "take_shot", "wait_until",
           "windows_path", "wine_cannot", "xdotool"]
