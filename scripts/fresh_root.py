"""A bare Debian 12 in a folder, in which commands run as on a machine of its own, but for the network.

What runs in it has process ids, mounts and terminals of its own, which end with the first process there. Nothing of this
machine's is mounted into it, and of its files it gets only apt's set-up and what names are looked up with.
"""

import contextlib
import fcntl
import os
import re
import shutil
import signal
import struct
import subprocess
import termios
import time
from pathlib import Path

SUITE = "bookworm"
MAKE_SECONDS = 1200
# ioctls on the controlling side of a terminal that Python has no names for.
TIOCSPTLCK = 0x40045431
TIOCGPTPEER = 0x5441

_APT = Path("/etc/apt")
_HOST_CERTIFICATES = Path("/etc/ssl/certs/ca-certificates.crt")
_COPY_OF_CERTIFICATES = "/etc/apt/certificates-of-the-host.crt"
# The folder becomes "/" of the namespaces, as on a machine: in a mere chroot some system calls are refused.
MOUNTS = """set -e
mount --rbind "$1" "$1"
mount -t proc proc "$1/proc"
mount -t tmpfs -o mode=755 tmpfs "$1/dev"
cd "$1/dev"
mkdir pts shm
for node in null:1:3 zero:1:5 full:1:7 random:1:8 urandom:1:9 tty:5:0; do
  IFS=: read -r name major minor <<EOF
$node
EOF
  mknod -m 666 "$name" c "$major" "$minor"
done
mount -t devpts -o newinstance,ptmxmode=666,mode=620,gid=5 devpts pts
mount -t tmpfs -o mode=1777 tmpfs shm
ln -s pts/ptmx ptmx
ln -s /proc/self/fd fd
ln -s fd/0 stdin
ln -s fd/1 stdout
ln -s fd/2 stderr
cd "$1"
pivot_root . .
umount -l .
"""


class Failed(Exception):
    """A step that failed, with what explains it."""


def _is_debian():
    with contextlib.suppress(OSError):
        return f"VERSION_CODENAME={SUITE}\n" in Path("/etc/os-release").read_text(encoding="utf-8")
    return False


def _sources():
    """The files that name this machine's package sources."""
    files = [_APT / "sources.list", *sorted((_APT / "sources.list.d").glob("*.list")),
             *sorted((_APT / "sources.list.d").glob("*.sources"))]
    return [file for file in files if file.is_file() and re.search(r"(?m)^\s*[^#\s]", file.read_text(encoding="utf-8"))]


def _apt_options():
    """How this machine's apt fetches: proxies, time-outs, certificates. Not the commands that it calls, since the root
    does not have them."""
    dump = subprocess.run(["apt-config", "dump", "Acquire"], stdout=subprocess.PIPE, text=True, check=True).stdout
    lines = [line for line in dump.splitlines()
             if not re.match(r"Acquire::cdrom|\S*Proxy-?Auto-?Detect", line, re.IGNORECASE)]
    return "".join(f"{line}\n" for line in lines)


class FreshRoot:
    def __init__(self, folder):
        self._folder = folder
        self._lock = None
        self._space = None  # what holds the namespaces
        self._network = None  # what holds the network namespace, where there is one
        self._first = 0  # the id of the first process in them

    def path(self, inside):
        return self._folder / inside.lstrip("/")

    def claim(self):
        """Takes the folder for this process, until remove()."""
        if not _is_debian():
            raise Failed(f"this machine is no Debian 12 ({SUITE}), whose package sources the root needs")
        self._folder.parent.mkdir(exist_ok=True)
        self._lock = os.open(self._folder.parent, os.O_RDONLY)
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise Failed("another test of this folder with a root of its own is running") from None

    def make(self):
        """Makes the folder, and what runs in it."""
        self._delete()  # an earlier run may have been killed over it
        self._folder.mkdir()
        self._open_namespaces()
        options = self._folder.with_suffix(".apt-options")
        try:
            options.write_text(_apt_options(), encoding="utf-8")
            # For a repository that wants a password.
            hook = 'cp -a /etc/apt/auth.conf "$1/etc/apt/" 2> /dev/null; cp -a /etc/apt/auth.conf.d "$1/etc/apt/"; true'
            made = self._enter(["mmdebstrap", "--mode=root", "--variant=minbase", "--format=directory",
                                f"--aptopt={options}", "--dpkgopt=force-unsafe-io", f"--setup-hook={hook}",
                                SUITE, self._folder, *_sources()], seconds=MAKE_SECONDS)
        finally:
            options.unlink(missing_ok=True)
        if made.returncode != 0:
            raise Failed(f"mmdebstrap failed:\n{made.stdout}")
        self._copy_apt_set_up()
        for name in ("hosts", "resolv.conf", "hostname"):
            with contextlib.suppress(FileNotFoundError):
                shutil.copyfile(Path("/etc") / name, self.path(f"/etc/{name}"))
        mounted = self._enter(["sh", "-c", MOUNTS, "sh", self._folder], seconds=60)
        if mounted.returncode != 0:
            raise Failed(f"the root's own file systems could not be mounted:\n{mounted.stdout}")

    def _open_namespaces(self):
        # The first process lives as long as this one, whose end closes the pipe; a shell collects the orphans.
        self._space = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "sh", "-c", "echo there; cat; :"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        said = self._space.stdout.readline()
        if said != b"there\n":
            said += self._space.communicate()[0]
            raise Failed(f"no namespaces can be made here: {said.decode(errors='replace')}")
        pid = self._space.pid
        self._first = int(Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii"))

    def _copy_apt_set_up(self):
        """The keys and the certificates that the sources need; the sources and options are there."""
        text = "\n".join(file.read_text(encoding="utf-8") for file in _sources())
        options = _apt_options()
        wanted = [_APT / "trusted.gpg", *(_APT / "trusted.gpg.d").glob("*"), *(_APT / "keyrings").glob("*"),
                  *map(Path, re.findall(r"(?i)signed-by[:=]\s*(/[^\s\],]+)", text)),
                  *map(Path, re.findall(r'(?i)::(?:CaInfo|SslCert|SslKey|CrlFile) "(/[^"]+)"', options))]
        for file in wanted:
            copy = self.path(str(file))
            if file.is_file() and not copy.exists():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(file, copy)
        if "https:" in text and _HOST_CERTIFICATES.exists() and "https::cainfo" not in options.lower():
            shutil.copyfile(_HOST_CERTIFICATES, self.path(_COPY_OF_CERTIFICATES))
            self.path("/etc/apt/apt.conf.d/99certificates").write_text(
                f'Acquire::https::CaInfo "{_COPY_OF_CERTIFICATES}";\n', encoding="ascii")

    def _command(self, command):
        network = [f"--net=/proc/{self._network.pid}/ns/net"] if self._network else []
        return ["nsenter", f"--target={self._first}", "--mount", "--pid", *network, "--", *map(str, command)]

    def isolate_network(self, addresses):
        """What is started from now on has a network of its own: loopback, which has these addresses too."""
        self._network = subprocess.Popen(["unshare", "--net", "--kill-child", "sh", "-c", "echo there; cat"],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True)
        self._network.stdout.readline()
        inside = ["nsenter", f"--net=/proc/{self._network.pid}/ns/net", "ip"]
        subprocess.run([*inside, "link", "set", "lo", "up"], check=True)
        for address in addresses:
            subprocess.run([*inside, "address", "add", address, "dev", "lo"], check=True)

    def _enter(self, command, seconds):
        """Runs a command of this machine's in the namespaces, to its end."""
        try:
            return subprocess.run(self._command(command), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True, errors="replace", timeout=seconds, check=False,
                                  start_new_session=True)
        except subprocess.TimeoutExpired:
            raise Failed(f"{command[0]} did not end within {seconds} seconds") from None

    def start(self, command, cwd="/", **streams):
        """Starts a command in the root, with a bare environment; returns the child, whose status is the command's."""
        environment = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root",
                       "TERM": "xterm"}
        for name in ("http_proxy", "https_proxy", "ftp_proxy", "no_proxy"):
            environment.update({key: os.environ[key] for key in (name, name.upper()) if key in os.environ})
        inside = ["sh", "-c", 'cd "$0" && exec "$@"', cwd, *command]
        return subprocess.Popen(self._command(inside), env=environment, start_new_session=True, **streams)

    def run(self, command, seconds):
        """Runs a command in the root to its end; returns its status and what it said."""
        child = self.start(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        try:
            said, _ = child.communicate(timeout=seconds)
        except subprocess.TimeoutExpired:
            raise Failed(f"{command[0]} did not end within {seconds} seconds") from None
        return subprocess.CompletedProcess(command, child.returncode, said.decode(errors="replace"))

    def open_terminal(self):
        """A new terminal of the root's own; returns the descriptors of its controlling and of its other side."""
        no_terminal_of_ours = os.O_RDWR | os.O_NOCTTY | os.O_CLOEXEC
        master = os.open(f"/proc/{self._first}/root/dev/pts/ptmx", no_terminal_of_ours)
        fcntl.ioctl(master, TIOCSPTLCK, struct.pack("i", 0))
        other = fcntl.ioctl(master, TIOCGPTPEER, no_terminal_of_ours)
        fcntl.ioctl(other, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
        return master, other

    def processes_left(self, seconds=5):
        """What still runs in the root, once those that are about to end have had this time."""
        end = time.monotonic() + seconds
        while (left := self._processes()) and time.monotonic() < end:
            time.sleep(0.05)
        return left

    def _processes(self):
        space = os.readlink(f"/proc/{self._first}/ns/pid")
        found = []
        for folder in Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if os.readlink(folder / "ns" / "pid") != space:
                    continue
                state, parent = (folder / "stat").read_text(encoding="utf-8").rpartition(")")[2].split()[:2]
                words = (folder / "cmdline").read_bytes().split(b"\0")
                # The first process and what it waits with.
                if state == "Z" or int(folder.name) == self._first or (int(parent), words[0]) == (self._first, b"cat"):
                    continue
                found.append(f"{folder.name}: {b' '.join(words).decode(errors='replace')}")
        return found

    def remove(self):
        """Ends everything and deletes the folder; returns what is left of it all the same, or an empty text."""
        self.end_all()
        self._delete()
        os.close(self._lock)
        mounts = [line for line in Path("/proc/self/mounts").read_text(encoding="utf-8").splitlines()
                  if str(self._folder) in line]
        return "\n".join(mounts + ([str(self._folder)] if self._folder.exists() else []))

    def end_all(self):
        """Ends everything that runs in it, and the namespaces with it."""
        if self._space is not None:
            with contextlib.suppress(ProcessLookupError):
                # Its end comes after that of all others there.
                os.kill(self._first, signal.SIGKILL) if self._first else self._space.kill()
            self._space.wait()
        if self._network is not None:
            self._network.communicate()  # its end is that of its input

    def _delete(self):
        subprocess.run(["rm", "-rf", "--one-file-system", "--", str(self._folder)], check=False)
