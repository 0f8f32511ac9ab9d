"""The machine on which the pages' blocks are tried: a copy of this one with the package's files, the user trabex, an
instance on port 25 and a mail server behind it on port 10025.

Its names, addresses and settings are those of the pages.
"""

import os
import subprocess
import tempfile
import time

from copied_root import CopiedRoot, Failed
from processes import REPO, Options, bound

# The world's client with a name, one without, and one of the house.
CLIENT, NAMELESS, LOCAL = "198.51.100.7", "203.0.113.9", "10.0.0.9"
HOSTS = f"""127.0.0.1 localhost
192.0.2.25 mx.example.org
192.0.2.7 mail.example.net
{CLIENT} mail.example.net
{LOCAL} desk.example.org
"""
ADDRESSES = [f"{address}/32" for address in
             ("192.0.2.1", "192.0.2.7", "192.0.2.10", "192.0.2.25", "192.0.2.77", CLIENT, NAMELESS, LOCAL, "10.0.0.5")]
ADDRESSES += [f"{address}/128" for address in ("2001:db8::1", "2001:db8::25")]
# The sample file differs from the defaults in this, and in its domains.
SETTINGS = {"BindPort": 25, "ServerIP": "127.0.0.1", "ServerPort": 10025, "LocalHostName": "mx.example.org",
            "LocalDomains": "example.org", "AutoReload": 0, "LogPath": "/var/log/trabex"}
SECONDS = 60


def install_files(folder):
    """What the package has, as `cmake --install` puts it in place."""
    done = subprocess.run(["cmake", "--install", Options.build, "--prefix", "/usr"], env={**os.environ, "DESTDIR": folder},
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode != 0:
        raise Failed(done.stdout)


class PageMachine:
    # Beside those in the hosts file.
    known_names = ()

    def __init__(self):
        self._servers = []
        self._instance = None
        self._errors = tempfile.TemporaryFile()
        self._installed = tempfile.TemporaryDirectory(prefix="trabex-installed-")
        os.chmod(self._installed.name, 0o755)  # as "/", which it becomes
        install_files(self._installed.name)
        self.root = CopiedRoot(self._installed.name)

    def __enter__(self):
        try:
            self.root.make()
            self.root.isolate_network(ADDRESSES)
            self._set_up()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.root.remove()
        for child in self._servers:
            child.wait(bound(SECONDS))
            child.stdin.close()
            child.stdout.close()
        self._installed.cleanup()
        self._errors.close()

    # ---- what is done on it

    def run(self, command, seconds=SECONDS):
        """A command to its end; returns it with what it said on both outputs."""
        words = ["sh", "-e", "-c", command] if isinstance(command, str) else [str(word) for word in command]
        return self.root.run(words, bound(seconds))

    def must(self, command):
        done = self.run(command)
        if done.returncode != 0:
            raise Failed(f"{command}\nended with {done.returncode}:\n{done.stdout}")
        return done.stdout

    def write(self, path, text):
        self.root.path(path).parent.mkdir(parents=True, exist_ok=True)
        self.root.path(path).write_text(text, encoding="utf-8")

    def read(self, path):
        return self.root.path(path).read_text(encoding="utf-8", errors="replace")

    def serve(self, command, said):
        """Starts a server that says so much when it is there."""
        child = self.root.start([str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT)
        self._servers.append(child)
        line = child.stdout.readline().decode(errors="replace")
        if not line.startswith(said):
            raise Failed(f"{command}: {line}")
        return child

    def wait_for(self, command, what):
        end = time.monotonic() + bound(SECONDS)
        while (done := self.run(command)).returncode != 0:
            if time.monotonic() > end:
                raise Failed(f"{what} did not come: {done.stdout}")
            time.sleep(0.05)

    # ---- what it has

    def _set_up(self):
        self.write("/etc/hosts", HOSTS)
        self.root.path("/etc/resolv.conf").unlink(missing_ok=True)
        self.write("/etc/resolv.conf", "nameserver 127.0.0.1\n")
        self.must("getent passwd trabex || useradd --system --home-dir /var/lib/trabex --shell /usr/sbin/nologin trabex;"
                  " install -d -o trabex -g trabex -m 750 /var/lib/trabex /var/log/trabex; mkdir -p /var/spool/mails")
        self.serve([REPO / "tests/system/name_server.py", *self.known_names], "there")
        self.start_sample_server()

    def start_sample_server(self):
        self.serve([Options.build / "tools/sample_mail_server/sample_mail_server", "--port", 10025, "--folder",
                    "/var/spool/mails"], "Listening")

    def write_settings(self, changes=None):
        """/etc/trabex/25.ini, from the sample file, with these settings changed: section to key to value."""
        text = self.read("/etc/trabex/sample.ini")
        for section, keys in {"Common": SETTINGS, **(changes or {})}.items():
            for key, value in keys.items():
                text = set_value(text, section, key, value)
        self.write("/etc/trabex/25.ini", text)
        self.root.path("/etc/trabex/Trabex.ini").unlink(missing_ok=True)
        self.root.path("/etc/trabex/Trabex.ini").symlink_to("25.ini")

    def start_trabex(self, ini="/etc/trabex/25.ini"):
        """The instance on port 25, in place of the one that ran."""
        self.end_trabex()
        self._instance = self.root.start(
            ["setpriv", "--reuid=trabex", "--regid=trabex", "--init-groups", "--inh-caps=+net_bind_service",
             "--ambient-caps=+net_bind_service", "--bounding-set=-all,+net_bind_service", "--no-new-privs",
             "/usr/sbin/Trabex", "/HI", "/P", "25", "/I", ini], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=self._errors)
        while self.run("trabex --status sessions_open --port 25").returncode != 0:
            if self._instance.poll() is not None:
                self._errors.seek(0)
                raise Failed(f"Trabex has ended:\n{self._errors.read().decode(errors='replace')}")

    def end_trabex(self):
        if self._instance is not None:
            self.must("trabex --exit --port 25")
            status = self._instance.wait(bound(SECONDS))
            if status != 0:
                raise Failed(f"Trabex ended with {status}")
            self._instance = None

    def send(self, client, recipient, sender="me@example.net"):
        """A mail; returns the reply that it got."""
        return self.must([REPO / "tests/package/send_mail.py", client, "192.0.2.25:25", sender, recipient]).strip()


def set_value(text, section, key, value):
    """The text of the sample file with this setting, which it names, perhaps behind a semicolon."""
    lines = text.splitlines()
    begin = lines.index(f"[{section}]")
    for number in range(begin + 1, len(lines)):
        if lines[number].startswith("["):
            break
        if lines[number].lstrip(";").startswith(f"{key}="):
            lines[number] = f"{key}={value}"
            return "\n".join(lines) + "\n"
    raise Failed(f"the sample file has no {key} in {section}")
