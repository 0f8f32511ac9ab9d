"""The image of packaging/container/Containerfile, without an engine: the lines of the recipe are carried out in roots of
their own, and what it starts runs as an engine would start it."""

import contextlib
import json
import re
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

from fresh_root import Failed

REPO = Path(__file__).resolve().parents[1]
RECIPE = REPO / "packaging/container/Containerfile"
TESTS = REPO / "tests" / "package"
IN_ROOT = "/opt/trabex-test"
PACKAGE_SECONDS = 1800
INSTALL_SECONDS = 600
SECONDS = 60
CLIENT, SERVER = "192.0.2.77", "192.0.2.1"
KNOWN = "192.0.2.9 sender@example.net you@example.org"

# What an engine does with the file systems of a read-only container: "$1" are its volumes.
_READ_ONLY = """set -e
for volume in $1; do mount --bind "$volume" "$volume"; done
mount -t proc proc /proc
mount -t tmpfs -o mode=1777 tmpfs /dev/shm
mount -o remount,bind,ro /
shift
exec "$@"
"""


def read_recipe():
    """The stages, each a list of (instruction, text)."""
    text = re.sub(r"(?m)^\s*#.*\n", "", RECIPE.read_text(encoding="utf-8")).replace("\\\n", " ")
    stages = []
    for line in filter(None, map(str.strip, text.splitlines())):
        instruction, _, rest = line.partition(" ")
        if instruction == "FROM":
            stages.append([])
        stages[-1].append((instruction, rest.strip()))
    known = {"FROM", "WORKDIR", "COPY", "RUN", "USER", "VOLUME", "EXPOSE", "STOPSIGNAL", "HEALTHCHECK", "ENTRYPOINT"}
    for stage in stages:
        if strange := {instruction for instruction, _ in stage} - known:
            raise Failed(f"what does {strange} do?")
    return stages


def one(stage, instruction):
    found = [rest for name, rest in stage if name == instruction]
    if len(found) != 1:
        raise Failed(f"the recipe has {len(found)} lines of {instruction}")
    return found[0]


def words(text):
    """The command of a line in JSON."""
    return json.loads(text[text.index("["):])


def unpack_sources(folder):
    """What is committed, as an engine gets it without what .dockerignore names."""
    folder.mkdir(parents=True, exist_ok=True)
    archive = subprocess.Popen(["git", "-c", "safe.directory=*", "-C", str(REPO), "archive", "HEAD"], stdout=subprocess.PIPE)
    unpacked = subprocess.run(["tar", "-x", "-C", str(folder)], stdin=archive.stdout, check=False)
    archive.stdout.close()
    if archive.wait() != 0 or unpacked.returncode != 0:
        raise Failed("git archive HEAD could not be unpacked")


def build_stage(machine, stage, sources, built):
    """Carries out what a stage does for its files. `sources` is the folder with the sources, `built` the root of the stage
    before, or None."""
    folder = "/"
    for instruction, rest in stage:
        if instruction == "WORKDIR":
            folder = rest
            machine.root.path(folder).mkdir(parents=True, exist_ok=True)
        elif instruction == "COPY":
            *names, to = rest.split()
            base = sources
            if names[0].startswith("--from="):
                base = built
                names = [name.lstrip("/") for name in names[1:]]
            target = machine.root.path(folder if to == "." else to)
            for name in names:
                for path in [base] if name == "." else sorted(base.glob(name)):
                    if path.is_dir():
                        shutil.copytree(path, target, symlinks=True, dirs_exist_ok=True)
                    else:
                        shutil.copy(path, target)
        elif instruction == "RUN":
            machine.must(["sh", "-c", f"cd {folder} && {rest}"], PACKAGE_SECONDS)


class Container:
    """What runs in the root, as an engine starts it: process 1 of namespaces of its own, files read-only but for the volume,
    the recipe's user without any capability."""

    def __init__(self, machine, stage):
        self._machine = machine
        self._stage = stage
        self._child = None
        self._first = None
        self.folder = Path(tempfile.mkdtemp())
        self.said = self.folder / "stdout"
        self.errors = self.folder / "stderr"

    def _as_user(self, command):
        user = one(self._stage, "USER")
        return ["setpriv", "--reuid", user, "--regid", user, "--init-groups", "--bounding-set", "-all", "--inh-caps", "-all",
                "--no-new-privs", *command]

    def start(self):
        volumes = one(self._stage, "VOLUME")
        command = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "sh", "-c", _READ_ONLY, "sh", volumes,
                   *self._as_user(words(one(self._stage, "ENTRYPOINT")))]
        with self.said.open("wb") as out, self.errors.open("wb") as err:
            self._child = self._machine.root.start(command, stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        self.wait_for(lambda: any(event["event"] == "start" for event in self.events()), "the start")
        self._first = self._find_first()

    def _find_first(self):
        """The process that is number 1 inside, as this machine counts."""
        pid = self._child.pid
        while children := Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii").split():
            pid = int(children[0])
            numbers = re.search(r"NSpid:\s+(.*)", Path(f"/proc/{pid}/status").read_text(encoding="utf-8")).group(1).split()
            if numbers[-1] == "1":
                return pid
        raise Failed("there is no process 1")

    def events(self):
        """The lines so far, but for one that is not complete."""
        text = self.said.read_text(encoding="utf-8")
        return [json.loads(line) for line in text[:text.rfind("\n") + 1].splitlines()]

    def wait_for(self, holds, what):
        end = time.monotonic() + SECONDS
        while not holds():
            if self._child.poll() is not None or time.monotonic() > end:
                raise Failed(f"{what} did not come: {self.said.read_text()}{self.errors.read_text()}")
            time.sleep(0.05)

    def run(self, command, as_user=True):
        """Runs a command in the container, as "exec" of an engine does."""
        inside = ["nsenter", f"--target={self._first}", "--mount", "--pid", "--net", "--root", "--wd", "--"]
        return subprocess.run([*inside, *(self._as_user(command) if as_user else command)], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=SECONDS, check=False)

    def must(self, command):
        done = self.run(command)
        if done.returncode != 0:
            raise Failed(f"{command}: {done.returncode}\n{done.stdout}")
        return done.stdout

    def stop(self):
        """Ends it as an engine does; returns the exit status."""
        with contextlib.suppress(ProcessLookupError):
            subprocess.run(["kill", "-s", one(self._stage, "STOPSIGNAL"), str(self._first)], check=False)
        return self._child.wait(SECONDS)

    def kill(self):
        if self._child is not None and self._child.poll() is None:
            self._child.send_signal(signal.SIGKILL)
            self._child.wait()
        shutil.rmtree(self.folder, ignore_errors=True)


def try_image(machine, checks, stage):
    with checks.step("the container"):
        shutil.copytree(TESTS, machine.root.path(IN_ROOT), ignore=shutil.ignore_patterns("__pycache__"))
        machine.root.isolate_network([f"{SERVER}/24", "172.17.0.1/32"])
        with machine.root.path("/etc/hosts").open("a", encoding="utf-8") as hosts:
            hosts.write("127.0.0.1 postfix\n")
        sink = machine.root.start(["python3", f"{IN_ROOT}/mail_sink.py", "25", "/opt/mail"], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE)
        sink.stdout.readline()
        container = Container(machine, stage)
        try:
            try_mail(machine, checks, stage, container)
            try_records(machine, checks, stage, container)
        finally:
            container.kill()
            sink.stdin.close()
            sink.wait(SECONDS)


def try_mail(machine, checks, stage, container):
    container.start()
    status = container.must(["cat", "/proc/1/status"])
    found = dict(re.findall(r"^(\w+):\s+(\S+)", status, re.MULTILINE))
    checks.check(found["Name"] == "Trabex" and found["CapEff"] == "0000000000000000" and found["Uid"] != "0",
                 "it is process 1, of its user, without any capability", status)
    said = container.run(["touch", "/etc/trabex/x", "/tmp/x", "/var/log/trabex/x"])
    checks.check(said.stdout.count("Read-only file system") == 3, "its root is read-only", said.stdout)
    bill = container.run(["test", "-s", "/usr/share/doc/trabex/trabex.spdx.json"])
    checks.check(bill.returncode == 0, "the bill of materials is in it", bill.stdout)
    health = container.run(words(one(stage, "HEALTHCHECK")))
    checks.check(health.returncode == 0 and health.stdout.strip() == "0", "the health check is content", health.stdout)
    port = one(stage, "EXPOSE")
    send = ["python3", f"{IN_ROOT}/send_mail.py", CLIENT, f"{SERVER}:{port}", "sender@example.net"]
    said = machine.run([*send, "you@example.org"])
    checks.check(said.stdout.startswith("250 "), "mail goes through", said.stdout)
    mail = machine.must(["cat", "/opt/mail"])
    checks.check(f"ADDR={CLIENT}" in mail and f"Subject: from {CLIENT}" in mail, "the server knows the client", mail)
    # A gateway's address, as every client may have it behind a published port.
    for client in (CLIENT, "172.17.0.1"):
        send[2] = client
        said = machine.run([*send, "them@elsewhere.example"])
        checks.check(said.stdout.startswith("550 "), f"{client} cannot relay", said.stdout)
    container.wait_for(lambda: sum(event["event"] == "refusal" for event in container.events()) == 2, "the refusals")
    kinds = {event["event"] for event in container.events()}
    checks.check({"start", "message", "refusal"} <= kinds, "the log in JSON is on standard output", str(kinds))
    checks.check(container.stop() == 0 and container.events()[-1]["event"] == "stop", "SIGTERM ends it in order",
                 container.errors.read_text())


def try_records(machine, checks, stage, container):
    ini = machine.root.path("/etc/trabex/2525.ini")
    ini.write_text(ini.read_text().replace(";Enabled=0", "Enabled=1"))
    database = machine.root.path(one(stage, "VOLUME")) / "2525.gldb"
    greylist = ["/usr/sbin/trabex", "--greylist"]
    container.start()
    container.must([*greylist, "add", *KNOWN.split(), "--accepted", "--port", "2525"])
    # A reload saves in the background, by a process of its own.
    container.must(["/usr/sbin/trabex", "--reload", "--port", "2525"])
    container.wait_for(database.exists, "the saved records")
    processes = ["sh", "-c", "cat /proc/[0-9]*/status 2> /dev/null; :"]
    # One that ended and was not collected would stay, with this name.
    container.wait_for(lambda: container.must(processes).count("Name:\tTrabex\n") == 1, "the end of the saving process")
    checks.check(True, "it collects the process that saves")
    container.must([*greylist, "add", "198.51.100.9", *KNOWN.split()[1:], "--accepted", "--port", "2525"])
    before = database.stat().st_mtime_ns
    checks.check(container.stop() == 0 and database.stat().st_mtime_ns > before, "SIGTERM saves the records",
                 container.errors.read_text())
    container.start()
    known = [container.run([*greylist, "show", client, *KNOWN.split()[1:], "--port", "2525"]).returncode
             for client in (KNOWN.split()[0], "198.51.100.9", "203.0.113.9")]
    checks.check(known == [0, 0, 1], "the next container knows them", str(known))
    checks.check(container.stop() == 0 and container.errors.read_text() == "", "and nothing went wrong",
                 container.errors.read_text())
