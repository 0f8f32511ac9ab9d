"""Exim, OpenSMTPD and postgrey for the scenarios.

The Debian packages of the first two exclude that of Postfix and each other, so they are not installed: the packages are
unpacked, and each server runs with a folder of its own as its "/". That folder holds its program, the libraries that this loads, its
users, its configuration, its queue, its log and its mailbox.
"""

import contextlib
import fcntl
import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest
from pathlib import Path

from addresses import LOOPBACK, bracketed, in_family
from processes import Process, bound, free_port, wait_until

# Ids that no distribution gives to anybody.
_USER_ID = 64901


def unpacked_package(name):
    """The folder with the files of a Debian package, which is downloaded when it is not there yet.

    It stays, in the user's cache, for the next run.
    """
    cache = Path(os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache") / "trabex-tests"
    cache.mkdir(parents=True, exist_ok=True)
    folder = cache / name
    with open(cache / f"{name}.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not folder.exists():
            with tempfile.TemporaryDirectory(dir=cache) as work:
                _download(name, work)
                archive, = Path(work).glob("*.deb")
                _run("dpkg", "-x", archive, Path(work) / "files")
                (Path(work) / "files").rename(folder)
    return folder


def unpack_all():
    """For runs in a network of their own, from where nothing can be downloaded."""
    for name in ("exim4-daemon-light", "exim4-daemon-heavy", "exim4-base", "exim4-config", "opensmtpd", "postgrey", "postfix-doc", *_POSTGREY_LIBRARIES):
        unpacked_package(name)


# What postgrey loads beyond Perl itself.
_POSTGREY_LIBRARIES = ("libnet-server-perl", "libnetaddr-ip-perl", "libberkeleydb-perl", "libio-multiplex-perl")


def postgrey_perl_folders():
    """Where postgrey finds its modules."""
    places = [unpacked_package(name) / "usr" for name in _POSTGREY_LIBRARIES]
    folders = [folder for place in places for folder in (place / "share" / "perl5", *place.glob("lib/*/perl5/*"),
                                                         *place.glob("lib/*/perl5"))]
    return [folder for folder in folders if folder.is_dir()]


def _download(name, folder):
    download = ["apt-get", "download", "--quiet", "-o", "APT::Sandbox::User=root", name]
    with contextlib.suppress(AssertionError):
        _run(*download, cwd=folder)
        return
    # The lists of packages are missing or old.
    _run("apt-get", "update", "--quiet")
    _run(*download, cwd=folder)


def _run(*command, cwd=None):
    done = subprocess.run(list(map(str, command)), cwd=cwd, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          errors="replace", timeout=bound(300), check=False)
    if done.returncode != 0:
        raise AssertionError(f"{command[0]} failed:\n{done.stdout}{done.stderr}")
    return done.stdout


class Root:
    """A folder that is "/" to the programs of one package.

    `programs` are those whose libraries it needs, `users` the names of accounts. The program of the scenario runs in it
    with run() or start().
    """

    def __init__(self, place, package, programs, users):
        if os.geteuid() != 0:
            raise unittest.SkipTest(f"{package} runs as root only")
        self.folder = place.new_folder(package)
        self._place = place
        self._package = package
        for path in ("dev", "etc", "tmp", "usr/bin", "usr/lib", "usr/lib64", "usr/sbin", "var/mail", "var/run"):
            (self.folder / path).mkdir(parents=True)
        for name in ("bin", "lib", "lib64", "sbin"):
            (self.folder / name).symlink_to(f"usr/{name}")
        (self.folder / "tmp").chmod(0o1777)
        self._make_null_device()
        self._make_users(users)
        # No server of this machine's is to be asked for names.
        (self.folder / "etc" / "hosts").write_text("127.0.0.1 localhost\n::1 localhost ip6-localhost\n" +
                                                   in_family("127.0.0.2 client.test\n127.0.0.9 local.test\n"))
        (self.folder / "etc" / "resolv.conf").write_text("lookup file\n")
        shutil.copytree(unpacked_package(package) / "usr", self.folder / "usr", symlinks=True, dirs_exist_ok=True,
                        ignore=shutil.ignore_patterns("share"))
        shutil.copy("/bin/sh", self.folder / "bin" / "sh")
        for program in ("bin/sh", *programs):
            self._copy_libraries(self.folder / program)

    def _make_null_device(self):
        null = self.folder / "dev" / "null"
        os.mknod(null, 0o20666, os.makedev(1, 3))
        null.chmod(0o666)
        try:
            null.open("r+b").close()
        except PermissionError:
            # A file system for temporary files may know no devices. None of the servers reads what it wrote there.
            null.unlink()
            null.touch()
            null.chmod(0o666)

    def _make_users(self, names):
        users = {"root": 0, **{name: _USER_ID + i for i, name in enumerate(names)}}
        etc = self.folder / "etc"
        (etc / "passwd").write_text("".join(f"{name}:x:{number}:{number}::/var/mail/{name}:/bin/sh\n"
                                            for name, number in users.items()))
        (etc / "group").write_text("".join(f"{name}:x:{number}:\n" for name, number in users.items()))
        self._users = users

    def _copy_libraries(self, program):
        needed = _run("ldd", program)
        missing = re.findall(r"(\S+) => not found", needed)
        if missing:
            raise AssertionError(f"{self._package} needs libraries that are not installed: {', '.join(missing)}")
        for library in re.findall(r"(/\S+) \(0x", needed):
            copy = self.folder / library.lstrip("/")
            copy.parent.mkdir(parents=True, exist_ok=True)
            if not copy.exists():
                shutil.copy(library, copy)

    def new_folder(self, path, user="root"):
        folder = self.folder / path
        folder.mkdir(parents=True)
        os.chown(folder, self._users[user], self._users[user])
        return folder

    def put(self, file, user="root"):
        """A copy of a file that `user` alone can read; returns its name inside."""
        folder = self.folder / "etc" / "files"
        folder.mkdir(exist_ok=True)
        copy = folder / file.name
        shutil.copy(file, copy)
        os.chown(copy, self._users[user], self._users[user])
        copy.chmod(0o600)
        return f"/etc/files/{file.name}"

    def start(self, name, *command):
        process = Process(self._place, name, ["chroot", self.folder, *command])
        self._place.on_leaving(self._leave, process)
        return process

    def _leave(self, process):
        if process.status() is None:
            process.end()
        # Those that it has started may be waiting for a client that is gone.
        for number in self.processes():
            with contextlib.suppress(ProcessLookupError):
                os.kill(number, signal.SIGTERM)
        wait_until(lambda: not self.processes(), f"{process.name} to be gone")

    def processes(self):
        """The ids of all processes that live in it."""
        found = []
        for link in Path("/proc").glob("[0-9]*/root"):
            with contextlib.suppress(OSError):
                if os.readlink(link) == str(self.folder):
                    found.append(int(link.parent.name))
        return found

    def run(self, *command, text=b""):
        """Runs a program to its end with `text` as its input; returns (status, what it said)."""
        done = subprocess.run(["chroot", str(self.folder), *map(str, command)], input=text, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=bound(120), check=False)
        return done.returncode, done.stdout.decode(errors="replace")


def _texts_of(folder, pattern):
    """The texts of all files below a folder with such names."""
    return "\n".join(path.read_text(errors="surrogateescape") for path in sorted(folder.rglob(pattern)))


class _MaildirServer:
    """What a server has that runs in a Root and delivers everything into one Maildir there.

    `_head` matches what it puts in front of a message; its group is the recipient.
    """

    _head = None

    def count(self):
        return len(list(self.maildir.glob("new/*")))

    def wait_for_messages(self, count, seconds=120):
        """Waits for `count` messages and returns (recipient, content) of each; the lines end in LF here."""
        wait_until(lambda: self.count() >= count, f"{count} messages in the Maildir", seconds)
        return [self._split(path.read_bytes()) for path in self.maildir.glob("new/*")]

    def _split(self, content):
        head = self._head.match(content)
        if not head:
            raise AssertionError(f"not as {type(self).__name__} delivers: {content[:400]!r}")
        return head.group(1).decode("ascii"), content[head.end():]


def exim_list(*addresses):
    """A list of Exim's, whose usual separator is a colon."""
    return "<; " + " ; ".join(map(in_family, addresses))


class Exim(_MaildirServer):
    """An Exim that takes mail from loopback for any domain and delivers it into one Maildir.

    `settings` are main options beside (or instead of) those below; None means that there is no value. With
    `queue_only` it keeps what it takes in its queue. With a `certificate` it offers STARTTLS, and has a second port,
    `tls_port`, with TLS from the first byte.
    """

    _head = re.compile(rb"Return-path: .*\nEnvelope-to: (.*)\nReceived: .*\n(?:[ \t].*\n)*")

    def __init__(self, place, settings=None, certificate=None):
        # Only the heavy one takes a PROXY header, and it takes longer for each connection.
        package = "exim4-daemon-heavy" if "hosts_proxy" in (settings or {}) else "exim4-daemon-light"
        self._root = Root(place, package, ["usr/sbin/exim4"], ["Debian-exim"])
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        self.queue = self._root.new_folder("var/spool/exim4", "Debian-exim")
        self._log = self._root.new_folder("var/log/exim4", "Debian-exim") / "mainlog"
        self.maildir = self._root.new_folder("var/mail/box", "Debian-exim")
        main = {
            "primary_hostname": "server.example", "exim_path": "/usr/sbin/exim4", "local_interfaces": exim_list(LOOPBACK),
            "daemon_smtp_ports": self.port, "acl_smtp_rcpt": "accept", "acl_smtp_data": "accept",
            "log_selector": "+all -subject -msg_id", "host_lookup": "", "rfc1413_query_timeout": "0s",
            "deliver_drop_privilege": "true", "keep_environment": "", "tls_advertise_hosts": "",
            "chunking_advertise_hosts": "*", "accept_8bitmime": "true", "message_size_limit": 0,
            "smtp_accept_max": 200, "smtp_load_reserve": 1000, "check_spool_space": 0, "check_spool_inodes": 0,
        }
        if certificate:
            self.tls_port = free_port()
            main.update({"daemon_smtp_ports": f"{self.port} : {self.tls_port}", "tls_on_connect_ports": self.tls_port,
                         "tls_advertise_hosts": "*", "tls_certificate": self._root.put(certificate.chain, "Debian-exim"),
                         "tls_privatekey": self._root.put(certificate.key, "Debian-exim")})
        main.update(settings or {})
        authenticators = main.pop("authenticators", "")
        configuration = self._root.new_folder("etc/exim4") / "exim4.conf"
        configuration.write_text(
            "".join(f"{key} = {value}\n" for key, value in main.items()) +
            "begin routers\nbox:\n  driver = accept\n  transport = box\n"
            "begin transports\nbox:\n  driver = appendfile\n  directory = /var/mail/box\n  maildir_format\n"
            "  create_directory\n  user = Debian-exim\n  envelope_to_add\n  return_path_add\n"
            "begin authenticators\n" + authenticators)
        self.process = self._root.start("exim", "/usr/sbin/exim4", "-bdf")
        self.process.wait_listening(self.port)

    def log(self):
        return self._log.read_text(errors="surrogateescape") if self._log.exists() else ""

    def settle(self):
        """Waits until no client is connected any more and what there was to log is in the log."""
        wait_until(lambda: self._root.processes() == [self.process.pid], "Exim's sessions to end")

    def queued(self):
        """The text of the envelopes and headers of everything in the queue."""
        return _texts_of(self._root.folder / "var/spool/exim4/input", "*-H")


class EximClient:
    """An Exim that sends what it is given to one address, each message over a connection of its own, with BDAT where
    the server offers it. `source` is its own address. It uses TLS only with `tls`, options of its smtp transport."""

    def __init__(self, place, address, source, tls=None, files=()):
        self._root = Root(place, "exim4-daemon-light", ["usr/sbin/exim4"], ["Debian-exim"])
        self._root.new_folder("var/spool/exim4", "Debian-exim")
        self._log = self._root.new_folder("var/log/exim4", "Debian-exim") / "mainlog"
        for file in files:
            self._root.put(file, "Debian-exim")
        (self._root.new_folder("etc/exim4") / "exim4.conf").write_text(
            "primary_hostname = client.example\nexim_path = /usr/sbin/exim4\nkeep_environment =\n"
            "deliver_drop_privilege = true\nlog_selector = +all\nmessage_size_limit = 0\n"
            "check_spool_space = 0\ncheck_spool_inodes = 0\n"
            "begin routers\nproxy:\n  driver = manualroute\n"
            f"  route_data = \"\\\"<; {address[0]}\\\"\"\n  self = send\n  transport = smtp\n"
            f"begin transports\nsmtp:\n  driver = smtp\n  port = {address[1]}\n  interface = {exim_list(source)}\n"
            "  allow_localhost\n  hosts_try_chunking = *\n  hosts_try_fastopen =\n" +
            "".join(f"  {option} = {value}\n" for option, value in (tls or {"hosts_avoid_tls": "*"}).items()) +
            "begin retry\n* * F,1h,1m\n")

    def send(self, sender, recipient, content):
        """Takes a message and tries to deliver it at once."""
        return self._root.run("/usr/sbin/exim4", "-odf", "-oi", "-f", sender, recipient,
                              text=content.replace(b"\r\n", b"\n"))

    def retry(self):
        """Tries again with everything that it still has."""
        return self._root.run("/usr/sbin/exim4", "-qff")

    def waiting(self):
        """How many messages it has not got rid of."""
        status, said = self._root.run("/usr/sbin/exim4", "-bpc")
        if status != 0:
            raise AssertionError(said)
        return int(said)

    def log(self):
        return self._log.read_text(errors="surrogateescape")


class OpenSmtpd(_MaildirServer):
    """An OpenSMTPD that takes mail from anywhere for any domain and delivers it into one Maildir.

    Its backlog is 5: of more clients that come at once, some wait for seconds.
    With the arguments "-P", "mda" it keeps what it takes in its queue. With a `certificate` it offers STARTTLS, and has a
    second port, `tls_port`, with TLS from the first byte. `listening` are words for the end of its lines of listeners,
    `matches` its rules of what it takes.
    """

    _head = re.compile(rb"Return-Path: .*\nDelivered-To: (.*)\nReceived: .*\n(?:[ \t].*\n)*")

    def __init__(self, place, settings=(), arguments=(), certificate=None, listening="",
                 matches=('match from any for any action "box"',)):
        users = ["opensmtpd", "opensmtpq", "box"]
        self._root = Root(place, "opensmtpd",
                          ["usr/sbin/smtpd", "usr/sbin/smtpctl", "usr/libexec/opensmtpd/mail.maildir"], users)
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        self._root.new_folder("var/lib/opensmtpd/empty")
        self._spool = self._root.new_folder("var/spool/smtpd")
        self._spool.chmod(0o711)
        self.maildir = self._root.new_folder("var/mail/box", "box")
        listeners = [f"listen on {LOOPBACK} port {self.port} hostname server.example"]
        if certificate:
            self.tls_port = free_port()
            settings = [f'pki own cert "{self._root.put(certificate.chain)}"',
                        f'pki own key "{self._root.put(certificate.key)}"', *settings]
            listeners = [f"{listeners[0]} tls pki own",
                         f"listen on {LOOPBACK} port {self.tls_port} hostname server.example smtps pki own"]
        (self._root.folder / "etc" / "smtpd.conf").write_text(
            "".join(f"{line}\n" for line in settings) +
            "".join(f"{line} {listening}\n" for line in listeners) +
            'action "box" maildir "/var/mail/box" virtual { "@" = "box" }\n' + "".join(f"{line}\n" for line in matches))
        self.process = self._root.start("smtpd", "/usr/sbin/smtpd", "-d", *arguments)
        self.process.wait_listening(self.port)

    def log(self):
        return self.process.stderr()

    def settle(self):
        """Waits until no client is connected any more and what there was to log is in the log."""
        def sessions(event):
            return set(re.findall(rf"^(\w+) smtp {event} ", self.log(), re.MULTILINE))

        try:
            wait_until(lambda: sessions("connected") == sessions("disconnected"), "OpenSMTPD's sessions to end")
        except AssertionError as late:
            left = tuple(sessions("connected") - sessions("disconnected"))
            lines = "\n".join(line for line in self.log().splitlines() if line.startswith(left))
            raise AssertionError(f"{late}:\n{lines}") from None

    def queued(self):
        """The text of the envelopes of everything in the queue."""
        return _texts_of(self._spool / "queue", "*/*/????????????????")


class OpenSmtpdClient:
    """An OpenSMTPD that sends what it is given to one relay, such as smtp+tls://127.0.0.1:2525 (its own words).

    It trusts whom the certificate `authority` vouches for.
    """

    def __init__(self, place, relay, source, options="", authority=None):
        users = ["opensmtpd", "opensmtpq", "box"]
        self._root = Root(place, "opensmtpd", ["usr/sbin/smtpd", "usr/sbin/smtpctl"], users)
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        if authority:
            shutil.copy(authority, self._root.new_folder("etc/ssl/certs") / "ca-certificates.crt")
        self._root.new_folder("var/lib/opensmtpd/empty")
        self._root.new_folder("var/spool/smtpd").chmod(0o711)
        (self._root.folder / "etc" / "smtpd.conf").write_text(
            f"listen on {LOOPBACK} port {self.port} hostname client.example\n"
            f'action "proxy" relay host "{relay}" src {source} helo client.example {options}\n'
            'match from any for any action "proxy"\n')
        self.process = self._root.start("smtpd", "/usr/sbin/smtpd", "-d")
        self.process.wait_listening(self.port)

    def log(self):
        return self.process.stderr()
