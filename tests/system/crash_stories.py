"""What Trabex does with its files, each as a story that can be killed at any point and is then looked at.

After a kill the files must be those of before or of after, and the next start takes them.
"""

import contextlib
import json
import re
import signal
import socket
import ssl
import subprocess
import threading

from addresses import LOOPBACK, in_family
from certificates import replace_file
from crash_points import TracedRun
from dialogue import trusting
from greylisting_file import read_keys, write_database
from processes import bound, is_listening, program, wait_until
from shifted_clock import ShiftedClock
from trabex_system import ini_text

_LOG_LINE = re.compile(rb"\d\d/\d\d/\d\d \d\d:\d\d:\d\d [^\r\n]+")

CLIENT, SENDER, RECIPIENT = "192.0.2.7", "new@example.org", "r@test.example"
OLDER = [f"192.0.2 s{number}@older.example r@test.example" for number in range(10)]
# Enough for several writes.
OLD = OLDER[:5] + [f"198.51.100 s{number}@{'long.' * 50}example r@test.example" for number in range(700)]
MOVED = OLDER[5:]
IMPORTED = [f"203.0.113 s{number}@imported.example r@test.example" for number in range(100)]
ADDED = f"192.0.2 {SENDER} {RECIPIENT}"
PROBE = "192.0.2 probe@example.org r@test.example"


class Wrong(AssertionError):
    """What was found after a kill and must not be."""


def expect(condition, what):
    if not condition:
        raise Wrong(what)


def check_lines(content, where, torn=()):
    """A log must consist of whole lines, but for those in `torn`."""
    expect(not content or content.endswith(b"\n"), f"{where} ends inside a line: {content[-80:]}")
    for line in content.split(b"\n")[:-1]:
        if line.removesuffix(b"\r") in torn or line in torn:
            continue
        if ".json" in where:
            try:
                json.loads(line)
            except ValueError:
                raise Wrong(f"{where}: {line}") from None
        else:
            expect(line.endswith(b"\r") and _LOG_LINE.fullmatch(line[:-1]), f"{where}: {line}")


class Story:
    """One run of Trabex, with its files in `folder`."""

    name = ""
    start_at = None
    options = ()
    settings = {}

    def __init__(self, folder, port, shared=None):
        self.folder = folder
        self.port = port
        self.shared = shared
        self.ini = folder / "Trabex.ini"
        self.log_folder = folder / "Log"
        self.json_log = folder / "trabex.json"
        self.database = folder / "grey" / "grey.gldb"
        self.clock = ShiftedClock(folder)
        self.sections = {"Service": {"JsonLog": self.json_log},
                         "GreyListing": {"Enabled": 1, "SaveInterval": 10, "Database": self.database}}
        self.point = None

    def write_ini(self):
        # Nobody is at port 9: a client is told so, and that is all it takes for some lines in the logs.
        common = {"BindIP": LOOPBACK, "BindPort": self.port, "ServerIP": in_family("127.0.0.3"), "ServerPort": 9,
                  "LogPath": self.log_folder, "LocalHostName": "proxy.example", "AutoReload": 0, **self.settings}
        replace_file(self.ini, ini_text(common, self.sections).encode())

    def prepare(self):
        self.write_ini()

    def command(self):
        return [*self.clock.wrapper, program("Trabex"), "/HI", "/I", self.ini]

    def act(self, run):
        raise NotImplementedError

    def check(self, run):
        raise NotImplementedError

    def execute(self, point=None):
        """Runs it, up to the point if there is one; returns the run, or None when the point did not come."""
        self.point = point
        self.prepare()
        run = TracedRun(self.folder, self.command(), point, self.start_at, self.options)
        try:
            self.act(run)
            run.wait()
        finally:
            run.close()
        if point is None:
            expect(run.program_status() == 0, f"ended with {run.program_status()}: {run.stderr()}")
        if point and not (run.killed() or run.said("held")):
            return None
        self.check(run)
        return run

    # What stories do.

    def listens(self):
        return is_listening(self.port)

    def wait_listening(self, run):
        # To the end of the start: its calls are no part of a story, and would be other ones in each run.
        run.wait_until(lambda: self.listens() and self.json_log.exists() and b'"event":"start"' in self.json_log.read_bytes()
                       and run.sleeps(), "the start")
        expect(not run.ended(), f"no start: {run.stderr()}")

    def ask(self, *arguments, **more):
        return subprocess.run([program("Trabex"), *map(str, arguments), "/I", str(self.ini)], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=bound(30), check=False, **more)

    def visit(self):
        """A client that is told that there is no server."""
        with contextlib.suppress(OSError), socket.create_connection((LOOPBACK, self.port), bound(10)) as client:
            client.settimeout(bound(10))
            while client.recv(4096):
                pass

    def log(self):
        return b"".join(file.read_bytes() for file in sorted(self.log_folder.glob("*.log"))).decode()

    @contextlib.contextmanager
    def restarted(self):
        """The program again, as anybody starts it; it must end in order, too."""
        command = [*self.clock.wrapper, program("Trabex"), "/HI", "/I", self.ini]
        with open(self.folder / "restart", "ab+") as said:
            child = subprocess.Popen(list(map(str, command)), stdin=subprocess.DEVNULL, stdout=said, stderr=said)
            try:
                wait_until(lambda: self.listens() or child.poll() is not None, "the next start", 30)
                expect(child.poll() is None, f"the next start failed: {(self.folder / 'restart').read_text()}")
                yield
                child.send_signal(signal.SIGTERM)
                status = child.wait(bound(30))
                words = (self.folder / "restart").read_text()
                expect(status == 0, f"the next run ended with {status}: {words}; {self.log()[-400:]}")
            finally:
                if child.poll() is None:
                    child.kill()
                    child.wait()

    def check_logs(self):
        for file in [*self.log_folder.glob("*"), *self.folder.glob("trabex.json*")]:
            check_lines(file.read_bytes(), file.name)


def json_line(key):
    network, sender, recipient = key.split(" ")
    return json.dumps({"network": network, "sender": sender, "recipient": recipient, "accepted": True, "attempts": 1,
                       "delayed_until": "2026-01-01T00:00:00Z", "expires": "2099-01-01T00:00:00Z"}) + "\n"


def counts(state):
    """How many records a database and a backup have; None: no file."""
    return [None if keys is None else len(keys) for keys in state]


class DatabaseStory(Story):
    """Changes the database from OLD, with OLDER as the backup, to `after`."""

    after = [*OLD, ADDED]
    linked = True  # the file system has hard links

    def prepare(self):
        super().prepare()
        self.database.parent.mkdir()
        write_database(self.database, OLD)
        write_database(self.backup, OLDER)

    @property
    def backup(self):
        return self.database.with_name(self.database.name + "bak")

    def add_record(self):
        done = self.ask("/GREYLIST", "add", CLIENT, SENDER, RECIPIENT)
        expect(done.returncode == 0, done.stderr)

    def states(self):
        """What may be found at the database and the backup; None: no file."""
        states = [(OLD, OLDER), (self.after, OLDER), (self.after, OLD)]
        if self.point and self.point.victims == "copies":
            # It was made a second time.
            states += [(self.after, self.after)]
        return states

    def expected_states(self, run):
        """The same, with what is known of the calls that were made."""
        if self.point is None:
            return [self.states()[-1]]
        if self.point.victims != "all" or not self.linked:
            return self.states()
        made = [stop for stop in run.stops() if stop.is_call("rename")]
        in_place = any(stop.paths[1].endswith(self.database.name) for stop in made)
        backed_up = any(stop.paths[1].endswith(self.backup.name) for stop in made)
        return [(self.after if in_place else OLD, OLD if backed_up else OLDER)]

    def found(self):
        return tuple(read_keys(file) if file.exists() else None for file in (self.database, self.backup))

    def check(self, run):
        found, expected = self.found(), self.expected_states(run)
        expect(found in expected, f"database and backup have {counts(found)} records, not {list(map(counts, expected))}; "
               f"the last calls: {', '.join(map(str, run.stops()[-6:]))}")
        self.check_logs()
        self.check_next_start(found[0] if found[0] is not None else found[1] or [])

    def check_next_start(self, keys):
        before = self.database.read_bytes() if self.database.exists() else None
        # What is loaded is what the file has, and the next save leaves nothing behind.
        with self.restarted():
            exported = self.ask("/GREYLIST", "export")
            lines = map(json.loads, exported.stdout.splitlines())
            loaded = [f"{line['network']} {line['sender']} {line['recipient']}" for line in lines]
            expect(loaded == keys, f"{len(loaded)} records were loaded, {len(keys)} are in the file")
            done = self.ask("/GREYLIST", "add", CLIENT, *PROBE.split(" ")[1:])
            expect(done.returncode == 0, done.stderr)
        expect(read_keys(self.database) == [*keys, PROBE], "the next save")
        if before is not None:
            expect(self.backup.read_bytes() == before, "the backup of the next save")
        self.check_folder()
        self.check_logs()

    def check_folder(self):
        names = {file.name for file in self.database.parent.iterdir()}
        expect(names <= {self.database.name, self.backup.name}, f"left over: {names}")


class SaveInBackground(DatabaseStory):
    name = "save in the background"

    def act(self, run):
        self.wait_listening(run)
        self.add_record()
        run.begin_counting()
        self.clock.move(wall=601, monotonic=61)
        run.wait_until(lambda: run.killed() or any(stop.who == 0 and stop.is_call("wait4") for stop in run.stops()),
                       "the save")
        run.end_counting()
        if run.killed():
            if self.point.victims != "copies":
                return
            # The program tries again a minute later.
            in_place = self.identity()
            if self.save_failed(run):
                self.clock.move(monotonic=61)
                run.wait_until(lambda: self.identity() not in (None, in_place), "the second save")
                run.wait_until(lambda: {file.name for file in self.database.parent.iterdir()} ==
                               {self.database.name, self.backup.name}, "the end of the second save")
        run.signal_program(signal.SIGTERM)

    def identity(self):
        """Which file the database is; None while there is none."""
        with contextlib.suppress(FileNotFoundError):
            return self.database.stat().st_ino
        return None

    def save_failed(self, run):
        """Whether the program says that the copy has failed; it does not once that has told of its success."""
        told = [stop for stop in run.stops() if stop.who and stop.call == "write" and stop.paths[0].startswith("pipe:")]
        if any(stop.moment == "exit" for stop in told) or (told and self.point.stop.who == 0):
            return False  # or nobody knows: it was killed in that very call
        run.wait_until(lambda: "The process that saves it was ended" in self.log(), "the failure in the log")
        return True


class SaveWithoutLinks(SaveInBackground):
    name = "save in the background without hard links"
    options = ("--without-links",)
    linked = False

    def states(self):
        # The backup steps aside, then the database becomes the backup, and then the new one takes its place.
        return [(OLD, OLDER), (OLD, None), (None, OLD), (self.after, OLD), (self.after, self.after)][
            :4 if self.point is None else 5]


class SaveAtEnd(DatabaseStory):
    name = "save at the end"

    def act(self, run):
        self.wait_listening(run)
        self.add_record()
        run.begin_counting()
        run.signal_program(signal.SIGTERM)


class FirstSave(SaveAtEnd):
    name = "first save"
    after = [ADDED]

    def prepare(self):
        self.write_ini()

    def states(self):
        return [(None, None), (self.after, None)]

    def expected_states(self, run):
        if self.point is None:
            return self.states()[-1:]
        made = any(stop.is_call("rename", self.database.name) for stop in run.stops())
        return [self.states()[1 if made else 0]]


class SaveAtReload(DatabaseStory):
    """The file names another database; the records are saved to the one of before."""

    name = "save at a reload"

    def prepare(self):
        super().prepare()
        self.moved = self.database.with_name("moved.gldb")
        write_database(self.moved, MOVED)
        self.moved_content = self.moved.read_bytes()

    def act(self, run):
        self.wait_listening(run)
        self.add_record()
        self.sections["GreyListing"]["Database"] = self.moved
        self.write_ini()
        run.begin_counting()
        run.signal_program(signal.SIGHUP)
        run.wait_until(lambda: any(stop.is_call("close", self.moved.name) for stop in run.stops()) and
                       "Configuration reloaded" in self.log(), "the reload")
        run.end_counting()
        run.signal_program(signal.SIGTERM)

    def check(self, run):
        expect(self.moved.read_bytes() == self.moved_content, "the other database")
        with self.restarted():
            exported = self.ask("/GREYLIST", "export").stdout.splitlines()
            expect(len(exported) == len(MOVED), "the records of the other database")
        self.sections["GreyListing"]["Database"] = self.database
        self.write_ini()
        super().check(run)

    def check_folder(self):
        self.moved.unlink()
        super().check_folder()


class ImportStory(DatabaseStory):
    arguments = ("--merge",)
    after = [*OLD, *IMPORTED]

    def prepare(self):
        super().prepare()
        self.file = self.folder / "import.jsonl"
        self.file.write_text("".join(map(json_line, IMPORTED)))


class Import(ImportStory):
    name = "import into the file"
    start_at = "import.jsonl"

    def command(self):
        return [program("Trabex"), "/GREYLIST", "import", self.file, *self.arguments, "/I", self.ini]

    def act(self, run):
        pass


class ImportInstead(Import):
    name = "import in place of the records"
    arguments = ("--replace",)
    after = IMPORTED


class ImportIntoInstance(ImportStory):
    name = "import into an instance, which then ends"

    def act(self, run):
        self.wait_listening(run)
        run.begin_counting()
        answers = []
        asking = threading.Thread(target=lambda: answers.append(
            self.ask("/GREYLIST", "import", self.file, *self.arguments)), daemon=True)
        asking.start()
        run.wait_until(lambda: answers, "the import")
        # Its words do not end before the program does, when that is killed.
        asking.join(bound(30))
        expect(answers, "the import does not end")
        self.answer = answers[0]
        run.signal_program(signal.SIGTERM)

    def expected_states(self, run):
        # An instance that was killed before anybody called it is none: then the import changes the file, as it says.
        called = any(stop.is_call("accept4") for stop in run.stops())
        if not called and self.answer.returncode == 0:
            return [(self.after, OLD)]
        if called or self.point is None:
            answered = any(stop.call == "sendto" and stop.moment == "exit" for stop in run.stops())
            expect(answered == (self.answer.returncode == 0), f"the import says {self.answer}")
        return super().expected_states(run)


class DeleteFromFile(DatabaseStory):
    name = "deletion from the file"
    start_at = "grey.gldb"
    after = OLDER[:5]

    def command(self):
        return [program("Trabex"), "/GREYLIST", "delete", "198.51.100 *", "/I", self.ini]

    def act(self, run):
        pass


class LogStory(Story):
    """Lines go to other files than before; none that was written is lost, and all are whole."""

    def prepare(self):
        super().prepare()
        self.database.parent.mkdir()
        self.log_folder.mkdir()

    def files(self):
        return [*self.log_folder.iterdir(), *self.folder.glob("trabex.json*")]

    def log_file(self):
        return max(self.log_folder.glob("*.log"))

    def begin(self, run):
        self.wait_listening(run)
        for _ in range(2):
            self.visit()
        run.wait_until(lambda: self.json_log.exists() and self.json_log.read_bytes().count(b'"event":"refusal"') == 2 and
                       self.log().count("Disconnected") >= 2, "the lines of two clients")
        self.before = {file.stat().st_ino: file.read_bytes() for file in self.files()}
        self.old_log = self.log_file()
        run.begin_counting()

    def end(self, run):
        self.visit()
        run.wait_until(lambda: run.killed() or (self.json_log.exists() and b'"event":"refusal"' in self.json_log.read_bytes()
                                                and b"Disconnected" in self.log_file().read_bytes()),
                       "the lines of another client")
        run.end_counting()
        run.signal_program(signal.SIGTERM)

    def check_before(self, before):
        now = {file.stat().st_ino: (file, file.read_bytes()) for file in self.files()}
        for number, content in before.items():
            expect(number in now, "a log file is missing")
            file, whole = now[number]
            expect(whole.startswith(content), f"{file.name} has lost something")

    torn = ()

    def check(self, run):
        self.check_before(self.before)
        self.check_all_lines()
        before = {file.stat().st_ino: file.read_bytes() for file in self.files()}
        with self.restarted():
            self.visit()
            wait_until(lambda: b'"event":"refusal"' in self.json_log.read_bytes()[len(before.get(
                self.json_log.stat().st_ino, b"")):], "the next run's line in JSON")
        self.check_before(before)
        self.check_all_lines()
        lines = self.log_file().read_bytes().split(b"\r\n")
        expect(sum(line.endswith(b" stopped.") for line in lines) == 1 + (self.point is None), "the next run's last line")

    def check_all_lines(self):
        for file in self.files():
            check_lines(file.read_bytes(), file.name, self.torn)


class MovedLogs(LogStory):
    name = "log files moved away"

    def act(self, run):
        self.begin(run)
        for file in self.files():
            file.rename(f"{file}.1")
        run.signal_program(signal.SIGUSR1)
        run.wait_until(lambda: run.killed() or "Log file reopened." in self.log(), "the new file")
        self.end(run)


class NewDay(LogStory):
    name = "new day"

    def act(self, run):
        self.begin(run)
        self.clock.move(wall=86400, monotonic=6)
        run.wait_until(lambda: run.killed() or any(stop.is_call("close", self.old_log.name) for stop in run.stops()),
                       "the day's file to be closed")
        self.json_log.rename(f"{self.json_log}.1")
        run.signal_program(signal.SIGUSR1)
        self.end(run)


class TornLine(MovedLogs):
    """A write to a log of which only a part came to the disk."""

    name = "torn line"
    part = 0.5

    def check(self, run):
        # Which call it is at which it is killed may differ from the run before.
        stop = run.stops()[-1]
        if self.point is None or not is_torn_stop(stop):
            return super().check(run)
        size = int(stop.result)
        file = next(file for file in self.files() if str(file) == stop.paths[0])
        content = file.read_bytes()
        content = content[:len(content) - size + min(size - 1, max(1, round(size * self.part)))]
        with open(file, "r+b") as cut:
            cut.truncate(len(content))
        self.before = {number: before for number, before in self.before.items() if number != file.stat().st_ino}
        last = content.rpartition(b"\n")[2]
        expect(last, "nothing was cut off")
        before = {each.stat().st_ino: each.read_bytes() for each in self.files()}
        with self.restarted():
            self.visit()
        self.check_before(before)
        end = b"\n" if ".json" in file.name else b"\r\n"
        whole = file.read_bytes()
        if whole != content:  # the next run has another file when this one was moved
            expect(whole[len(content):].startswith(end), f"a line behind {last}: {whole[len(content):][:80]}")
        else:
            expect(file.name.endswith(".1"), "no line of the next run")
        for each in self.files():
            text = each.read_bytes()
            if each == file and whole == content:
                text = text[:-len(last)]
            check_lines(text, each.name, (last, last.removesuffix(b"\r")))
        return None


def is_torn_stop(stop):
    """Whether something was written to a log there."""
    return stop.is_call("write") and any(".log" in path or ".json" in path for path in stop.paths)


class CertificateStory(Story):
    """Files of certificates; `shared` is what makes them: `authority`, and the certificates `old`, `new`, `third`."""

    def __init__(self, folder, port, shared):
        super().__init__(folder, port, shared)
        self.tls_port = shared.tls_port(port)
        self.settings = {"BindPortTLS": self.tls_port}
        self.chain, self.key = folder / "chain.pem", folder / "key.pem"
        self.sections["TLS"] = {"Certificate": f"{self.chain} {self.key}"}

    def prepare(self):
        super().prepare()
        self.database.parent.mkdir()
        self.put(self.shared.old)

    def put(self, certificate):
        replace_file(self.chain, certificate.chain.read_bytes())
        replace_file(self.key, certificate.key.read_bytes())

    def listens(self):
        return super().listens() and is_listening(self.tls_port)

    def serial(self):
        """That of the certificate which a client sees, or None when there is no TLS."""
        context = trusting(self.shared.authority.file)
        context.check_hostname = False
        try:
            with socket.create_connection((LOOPBACK, self.tls_port), bound(10)) as plain, \
                    context.wrap_socket(plain, server_hostname="localhost") as client:
                return client.getpeercert()["serialNumber"]
        except (ConnectionError, ssl.SSLEOFError):
            return None

    def look(self, run):
        """The program looks at its files."""
        def looks():
            return sum(stop.is_call("newfstatat", self.key.name) for stop in run.stops())

        before = looks()
        self.clock.move(monotonic=61)
        run.wait_until(lambda: run.killed() or run.said("held") or looks() > before, "a look at the files")

    def check(self, run):
        with self.restarted():
            serial = self.serial()
        expect(serial == self.shared.new.serial(), f"serial number {serial}")
        self.check_logs()


class Renewal(CertificateStory):
    name = "renewal of a certificate"

    def act(self, run):
        self.wait_listening(run)
        self.put(self.shared.new)
        run.begin_counting()
        self.look(run)
        self.look(run)
        run.wait_until(lambda: run.killed() or "Certificates reloaded." in self.log(), "the new certificate")
        run.end_counting()
        run.signal_program(signal.SIGTERM)


class RenewalByReload(CertificateStory):
    name = "another certificate at a reload"

    def act(self, run):
        self.wait_listening(run)
        self.chain, self.key = self.folder / "chain2.pem", self.folder / "key2.pem"
        self.put(self.shared.new)
        self.sections["TLS"]["Certificate"] = f"{self.chain} {self.key}"
        self.write_ini()
        run.begin_counting()
        run.signal_program(signal.SIGHUP)
        run.wait_until(lambda: run.killed() or self.log().count("Listen on") == 2, "the reload")
        run.end_counting()
        run.signal_program(signal.SIGTERM)


class RenewalMeanwhile(Renewal):
    """The files are replaced once more at one of the calls with which they are read."""

    name = "renewal while the certificate is read"

    def act(self, run):
        if self.point is None:
            return super().act(run)
        self.wait_listening(run)
        self.put(self.shared.new)
        run.begin_counting()
        self.look(run)
        if not run.said("held"):
            self.look(run)
        run.wait_until(lambda: run.said("held") or "Certificates reloaded." in self.log(), "the call")
        self.put(self.shared.third)
        run.go_on()
        known = {certificate.serial() for certificate in (self.shared.old, self.shared.new, self.shared.third)}
        serial = self.serial()
        expect(serial in known, f"serial number {serial}")
        for _ in range(4):
            self.clock.move(monotonic=61)
            with contextlib.suppress(AssertionError):
                wait_until(lambda: self.serial() == self.shared.third.serial(), "the third one", 0.7)
                break
        self.last_serial = self.serial()
        run.signal_program(signal.SIGTERM)
        return None

    def check(self, run):
        if self.point is None:
            return super().check(run)
        expect(self.last_serial == self.shared.third.serial(), f"serial number {self.last_serial} in the end")
        self.check_logs()
        return None


def check_order(stops, database):
    """A power failure at any moment leaves a whole database: what the calls of a save promise by their order.

    The disk may do what was asked for in any order, but for what stands before and behind a sync.
    """
    new, old, backup = (str(database) + end for end in ("new", "old", "bak"))
    done = [(number, stop) for number, stop in enumerate(stops) if stop.moment == "exit" and not stop.result.startswith("-")]

    def numbers(call, *paths):
        return [number for number, stop in done if stop.call == call and list(stop.paths[:len(paths)]) == list(map(str, paths))]

    writes, syncs = numbers("write", new), numbers("fsync", new)
    (in_place,) = numbers("rename", new, database)
    expect(writes and syncs and max(writes) < min(syncs) < in_place, "the new file is not synced before it is in its place")
    steps = [in_place, *numbers("rename", old, backup)]
    folder_syncs = numbers("fsync", database.parent)
    expect(folder_syncs and max(folder_syncs) > max(steps), "the folder is not synced after the last change in it")
    for number in numbers("mkdir", database.parent):
        above = [each for each in numbers("fsync", database.parent.parent) if each > number]
        expect(above and min(above) < in_place, "the folder above a new folder is not synced")
    # Nobody is told that it was saved before it is.
    told = [number for number, stop in enumerate(stops)
            if stop.call == "exit_group" or (stop.call == "write" and any(
                "pipe:" in path or path.endswith(".log") for path in stop.paths))]
    expect(told and min(number for number in told if number > in_place) > max(folder_syncs), "told before the sync")
