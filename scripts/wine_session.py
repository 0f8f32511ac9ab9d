"""What ./test --windows runs its programs in: a prefix of Wine in build/, one wineserver, one display without a screen, and
folders that go with them. At the end nothing of it is left, whatever happened.
"""

import contextlib
import ctypes
import os
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import uuid
from pathlib import Path

# Everything that is started finds its run in its environment, and can be found by it.
MARK = "TRABEX_WINDOWS_RUN"
PR_SET_PDEATHSIG = 1
# So long may what is asked to end put away what it has made.
SECONDS_TO_END = 90


class Failed(Exception):
    """What ends the run."""


def processes_of(mark):
    """The numbers of the processes that were started in this run, and of those that they started."""
    wanted = f"{MARK}={mark}".encode()
    for entry in Path("/proc").iterdir():
        # One that has gone, or is another user's, is none of them.
        with contextlib.suppress(OSError):
            if entry.name.isdigit() and wanted in (entry / "environ").read_bytes().split(b"\0"):
                yield int(entry.name)


def end_with_parent():
    """Called in a child: it is asked to end when this process ends, even when that is killed."""
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


class Children:
    """Runs commands, and ends them when the run ends before they do."""

    def __init__(self):
        self._running = set()
        self._ending = False
        self._lock = threading.Lock()

    def _start(self, command, cwd, environment, output):
        with self._lock:
            if self._ending:
                raise Failed("interrupted")
            child = subprocess.Popen([str(part) for part in command], cwd=cwd, stdin=subprocess.DEVNULL, stdout=output,
                                     stderr=subprocess.STDOUT, env=environment, start_new_session=True)
            self._running.add(child)
            return child

    def run(self, command, seconds, cwd, environment=None):
        """Returns the status, everything that was said, and whether it ended within its time; its whole process group is
        asked to end then.
        """
        # No pipe: services of Wine that a program starts would hold it open when that has ended.
        with tempfile.TemporaryFile() as output:
            child = self._start(command, cwd, environment, output)
            in_time = True
            try:
                child.wait(seconds)
            except subprocess.TimeoutExpired:
                in_time = False
            finally:
                if child.poll() is None:
                    end_session(child, SECONDS_TO_END)
                    child.wait()
                with self._lock:
                    self._running.discard(child)
            output.seek(0)
            text = output.read().decode(errors="replace")
        if not in_time:
            text += f"\n{Path(str(command[0])).name} did not end within {seconds} seconds\n"
        return (child.returncode if in_time else 1), text, in_time

    def end(self):
        """No more are started, and those that run are ended; whoever waits for them sees to the rest."""
        with self._lock:
            self._ending = True
            running = list(self._running)
        for child in running:
            ask_to_end(child)
        end = time.monotonic() + SECONDS_TO_END
        for child in running:
            end_session(child, max(0.0, end - time.monotonic()))


def ask_to_end(child):
    """Asks the child's whole process group: a shell would end at once and leave what it has started, such as a build, which
    has to end its compilers.
    """
    with contextlib.suppress(ProcessLookupError):
        os.killpg(child.pid, signal.SIGTERM)


def processes_of_session(session):
    """The numbers of the processes of a session that have not ended, whatever their process groups are."""
    for entry in Path("/proc").iterdir():
        # One that has gone is none of them.
        with contextlib.suppress(OSError):
            if entry.name.isdigit():
                # Behind the name, which may hold anything.
                state, _, _, its_session = (entry / "stat").read_text(errors="replace").rpartition(")")[2].split()[:4]
                if int(its_session) == session and state not in "ZX":
                    yield int(entry.name)


def end_session(child, seconds):
    """Asks the child and what it has started to end, which may take so long, and kills what is left of its session then."""
    ask_to_end(child)
    end = time.monotonic() + seconds
    while time.monotonic() < end and any(processes_of_session(child.pid)):
        child.poll()
        time.sleep(0.05)
    for number in list(processes_of_session(child.pid)):
        with contextlib.suppress(ProcessLookupError):
            os.kill(number, signal.SIGKILL)


@contextlib.contextmanager
def ended(process):
    """Ends the process at the end of the block: asks it first."""
    try:
        yield process
    finally:
        process.terminate()
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


@contextlib.contextmanager
def xvfb(environment):
    """A display of its own; gives its name."""
    reading, writing = os.pipe()
    # In a session of its own, so that Ctrl-C does not reach it before those who draw on it.
    server = subprocess.Popen(["Xvfb", "-displayfd", str(writing), "-screen", "0", "1280x1024x24", "-nolisten", "tcp"],
                              pass_fds=[writing], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, env=environment, start_new_session=True,
                              preexec_fn=end_with_parent)
    os.close(writing)
    with ended(server), os.fdopen(reading) as told:
        number = told.readline().strip()
        if not number:
            raise Failed("Xvfb does not start")
        yield f":{number}"


@contextlib.contextmanager
def wineserver(environment):
    """The server of the prefix, which stays until the end; the programs of the prefix end with it."""
    server = subprocess.Popen(["wineserver", "--foreground", "--persistent"], env=environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
                              preexec_fn=end_with_parent)
    with ended(server):
        yield


@contextlib.contextmanager
def services(environment):
    """Keeps the services of the prefix at work, which otherwise end, and begin anew, between any two programs."""
    program = subprocess.Popen(["wine", "cmd.exe"], env=environment, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, start_new_session=True)
    with ended(program):
        yield
    program.stdin.close()


def kill_processes_of(mark):
    """Kills by their numbers whatever is still there of the run."""
    end = time.monotonic() + 10
    while time.monotonic() < end and (left := list(processes_of(mark))):
        for number in left:
            with contextlib.suppress(ProcessLookupError):
                os.kill(number, signal.SIGKILL)
        time.sleep(0.1)


@contextlib.contextmanager
def signals_held():
    """What would interrupt this thread waits until the end of the block."""
    before = signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, before)


@contextlib.contextmanager
def wine_session(prefix, temporary, children, **variables):
    """Gives the environment for programs of Wine. `temporary` is a folder that is made, and removed at the end; it holds
    what they put into their temporary and their home folder, and Wine's server its socket.
    """
    mark = uuid.uuid4().hex
    shutil.rmtree(temporary, ignore_errors=True)
    home = temporary / "home"
    home.mkdir(parents=True)
    prefix.mkdir(parents=True, exist_ok=True)
    environment = {name: value for name, value in os.environ.items() if not name.startswith(("XDG_", "WINE"))}
    environment |= {MARK: mark, "HOME": str(home), "TMPDIR": str(temporary), "WINEPREFIX": str(prefix), "WINEARCH": "win64",
                    "WINEDEBUG": "-all",
                    # None of them is needed: two would ask whether to be fetched, one writes into the user's menus.
                    "WINEDLLOVERRIDES": "mscoree,mshtml,winemenubuilder.exe=", **variables}
    try:
        with xvfb(environment) as display:
            environment["DISPLAY"] = display
            with wineserver(environment):
                try:
                    yield environment
                except BaseException:
                    # While their server and their display are still there.
                    children.end()
                    raise
    finally:
        with signals_held():
            kill_processes_of(mark)
            shutil.rmtree(temporary, ignore_errors=True)
