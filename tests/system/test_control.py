#!/usr/bin/env python3
"""What a running instance can be asked from the command line, by whom, and what hostile callers cost the mail."""

import contextlib
import json
import os
import re
import signal
import smtplib
import socket
import subprocess
import threading
from pathlib import Path

from manual_pages import read_blocks
from messages import text_message
from trabex_system import (DOMAIN, LOOPBACK, REPO, Scenario, Smtp, bound, free_port, main, program, run_trabex, wait_until,
                           without_received)

INSTANCE = "5B0E7C19D4A24F36A1F863D20C97BE48"
SESSION_ROW = re.compile(r"^([0-9a-f]{16})  ( [ \d]{6} [ \d]{8} [ \d]{8} \d\d:\d\d:\d\d +(?:127\.0\.0\.1|::1) .*)$")
# Two who are nobody on this machine.
SOMEBODY, SOMEBODY_ELSE = 12345, 12346


def raw_call(port, line=b""):
    """A connection to the control channel of the instance on this port, after saying `line`."""
    caller = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    caller.settimeout(bound(20))
    caller.connect(f"\0{INSTANCE}{port}")
    caller.sendall(line)
    return caller


def as_user(user, *arguments):
    """(status, standard output, standard error) of Trabex run by this user, who can read nothing of ours."""
    done = subprocess.run(["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups", str(program("Trabex")),
                           *map(str, arguments)], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=bound(20), check=False, cwd="/")
    return done.returncode, done.stdout, done.stderr


class Requests(Scenario):
    def setUp(self):
        super().setUp()
        self.server = self.sample_server()
        self.proxy = self.trabex(self.server.port)

    def ask(self, *request):
        """Found by the port, and by the file, with the same result."""
        return run_trabex(*request, "/P", self.proxy.port, "/I", self.proxy.ini)

    def sessions(self):
        status, out, err = self.ask("/SESSIONS")
        self.assertEqual((status, err), (0, ""))
        return [SESSION_ROW.match(line).groups() for line in out.splitlines()]

    def test_spellings(self):
        for request in ("/SESSIONS", "/sessions", "-sessions", "--sessions", "--Sessions"):
            self.assertEqual(self.ask(request), (0, "", ""), request)
        self.assertEqual(run_trabex("/SESSIONS", "/I", self.proxy.ini), (0, "", ""), "by the file")
        self.assertEqual(run_trabex("/SESSIONS", "/P", self.proxy.port), (0, "", ""), "by the port")

    def test_no_instance(self):
        port = free_port()
        for request in (["/SESSIONS"], ["/CLOSE", "0" * 16], ["/STATUS"], ["/RELOAD"], ["/REOPENLOG"]):
            self.assertEqual(run_trabex(*request, "/P", port),
                             (3, "", f"Trabex: There is no instance on port {port}.\n"))
        self.assertEqual(run_trabex("/X", "/P", port), (0, "", ""))

    def test_command_line(self):
        for arguments, message in ((["/CLOSE"], 'Argument expected after "/CLOSE".'),
                                   (["/SESSIONS", "x"], 'Invalid switch "x".'),
                                   (["/SESSIONS", "/X"], 'Only one request is possible: "/X".')):
            self.assertEqual(run_trabex(*arguments), (2, "", f"Trabex: {message}\n"))

    def test_sessions_are_listed_and_closed(self):
        self.assertEqual(self.sessions(), [])
        clients = []
        for _ in range(3):
            client = self.connect(self.proxy.address)
            client.read_reply()
            clients.append(client)
        rows = self.sessions()
        self.assertEqual(len({digits for digits, _ in rows}), 3)
        self.assertEqual(sorted(rows), sorted(self.sessions()), "the same ids as long as they are there")
        self.assertEqual(self.ask("/CLOSE", rows[1][0].upper()), (0, "", ""))
        self.assertEqual(clients[1].read_reply()[:3], "421")
        clients[1].read_to_end()
        self.assertEqual([row[0] for row in self.sessions()], [rows[0][0], rows[2][0]])
        self.assertEqual(clients[0].command("NOOP")[:3], "250")
        self.assertEqual(clients[2].command("NOOP")[:3], "250")
        for unknown in (rows[1][0], "0" * 15, "x", "0" * 17):
            self.assertEqual(self.ask("/CLOSE", unknown), (1, "", f"Trabex: There is no session {unknown}.\n"))

    def json_sessions(self):
        """What jq makes of them, in order."""
        status, out, err = self.ask("/SESSIONS", "--json")
        self.assertEqual((status, err), (0, ""))
        read = subprocess.run(["jq", "-s", "-c", "."], input=out, capture_output=True, text=True, timeout=bound(20),
                              check=True)
        return json.loads(read.stdout)

    def test_sessions_as_json(self):
        self.assertEqual(self.json_sessions(), [])
        hostile = 'x"\\}]{gr\u00fc\u00df\U0001f4e7'
        idle, mailing, strange = (self.connect(self.proxy.address) for _ in range(3))
        for client in (idle, mailing, strange):
            client.read_reply()
        mailing.command("EHLO mailing.test")
        mailing.command(f"MAIL FROM:<a@{DOMAIN}>")
        for name in ("b", "c"):
            mailing.command(f"RCPT TO:<{name}@{DOMAIN}>")
        strange.send(b"EHLO " + hostile.encode() + b"\xff\r\n")
        strange.read_reply()
        rows = self.sessions()
        shown = self.json_sessions()
        self.assertEqual([session["session"] for session in shown], [digits for digits, _ in rows])
        self.assertEqual([session["client_handle"] for session in shown], [int(row.split()[0]) for _, row in rows])
        self.assertEqual([session["client_bytes_out"] for session in shown], [int(row.split()[2]) for _, row in rows])
        self.assertEqual([session["state"] for session in shown], ["idle"] * 3)
        self.assertNotIn("helo", shown[0])
        self.assertEqual([shown[1].get(name) for name in ("helo", "from", "to", "recipients", "recipients_count", "command")],
                         ["mailing.test", f"a@{DOMAIN}", f"c@{DOMAIN}", [f"b@{DOMAIN}", f"c@{DOMAIN}"], 2, "RCPT"])
        self.assertRegex(shown[1]["reply"], "^250 ")
        self.assertEqual(shown[2]["helo"], hostile + "\ufffd")
        self.assertEqual(bytes.fromhex(shown[2]["helo_hex"]), hostile.encode() + b"\xff")

    def test_ids_differ_after_a_restart(self):
        seen = set()
        for _ in range(3):
            client = self.connect(self.proxy.address)
            client.read_reply()
            seen.add(self.sessions()[0][0][:8])
            client.close()
            self.assertEqual(self.proxy.end(), 0)
            self.proxy.start()
        self.assertEqual(len(seen), 3)

    def test_requests_that_nobody_knows(self):
        with raw_call(self.proxy.port, b"NOTHING\n") as caller:
            self.assertEqual(caller.recv(1000), b'E 50\nThis instance does not know the request "NOTHING".X 1\n')

    def test_answer_that_is_cut_off(self):
        """An instance that dies, and one that hangs, are told from an answer."""
        with contextlib.ExitStack() as stack:
            lock = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
            channel = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
            port = free_port()
            lock.bind(f"\0{INSTANCE}{port}")
            self.assertEqual(run_trabex("/SESSIONS", "/P", port),
                             (1, "", f"Trabex: The instance on port {port} takes no requests.\n"))
            channel.bind(f"\0{INSTANCE}{port}")
            channel.listen()
            for answer, out, complaint in (
                    (b"T 3\nabc", "abc", "ended the connection before its answer was complete."),
                    (b"T 3\nab", "ab", "ended the connection before its answer was complete."),
                    (b"", "", "ended the connection before its answer was complete."),
                    (b"220 hello\n", "", "gave an answer that cannot be understood.")):
                asking = subprocess.Popen([str(program("Trabex")), "/SESSIONS", "/P", str(port)],
                                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                with channel.accept()[0] as caller:
                    self.assertEqual(caller.recv(1000), b"SESSIONS\n")
                    caller.sendall(answer)
                self.assertEqual(asking.communicate(timeout=bound(20)),
                                 (out, f"Trabex: The instance on port {port} {complaint}\n"))
                self.assertEqual(asking.returncode, 1)

    def test_asking_can_be_interrupted(self):
        self.proxy.process.send_signal(signal.SIGSTOP)
        self.place.on_leaving(self.proxy.process.send_signal, signal.SIGCONT)
        # Where the tests run in the background, they begin with the signal ignored.
        asking = subprocess.Popen(["env", "--default-signal=INT", str(program("Trabex")), "/SESSIONS", "/P",
                                   str(self.proxy.port)])
        self.place.on_leaving(asking.kill)
        wait_until(lambda: self.queued_callers() > 0, "the request to wait")
        asking.send_signal(signal.SIGINT)
        self.assertEqual(asking.wait(bound(20)), -signal.SIGINT)
        self.proxy.process.send_signal(signal.SIGCONT)

    def queued_callers(self):
        """Connections to the channel beside the listening socket itself."""
        rows = open("/proc/net/unix", encoding="ascii", errors="replace").read().splitlines()
        return sum(row.endswith(f"@{INSTANCE}{self.proxy.port}") and row.split()[4] == "0001" for row in rows) - 1


class Reload(Scenario):
    """The file is checked first, and in force when the command returns."""

    def reload(self, proxy):
        return run_trabex("/RELOAD", "/I", proxy.ini)

    def test_good_and_bad(self):
        proxy = self.trabex(self.sample_server().port, {"AutoReload": 0})
        for number in range(3):
            proxy.write_ini(SendersBlackList=f"bad{number}@*", MaxBadSeq=10)
            status, out, err = self.reload(proxy)
            self.assertEqual((status, err), (0, ""))
            self.assertTrue(all(": warning: " in line for line in out.splitlines()), out)
            client = self.connect(proxy.address)
            client.read_reply()
            client.command("EHLO client.example")
            self.assertEqual(client.command(f"MAIL FROM:<bad{number}@{DOMAIN}>")[:3], "550", "in force")
            client.close()
            proxy.write_ini(SendersBlackList="", MaxBadSeq="many")
            status, out, err = self.reload(proxy)
            self.assertEqual((status, err), (1, "Trabex: Configuration not reloaded; the one in force stays.\n"))
            finding, = (line for line in out.splitlines() if ": error: " in line)
            self.assertRegex(finding, rf"^{re.escape(str(proxy.ini))}:\d+: error: \[Common\] MaxBadSeq: .*many")
            client = self.connect(proxy.address)
            client.read_reply()
            client.command("EHLO client.example")
            self.assertEqual(client.command(f"MAIL FROM:<bad{number}@{DOMAIN}>")[:3], "550", "still in force")
            client.close()
        told = proxy.process.stderr().splitlines()
        self.assertEqual(len(told), 3, told)
        self.assertTrue(all(line.startswith("Trabex: ") for line in told))

    def test_port_moves_under_the_one_who_asks(self):
        proxy = self.trabex(self.sample_server().port)
        client = self.connect(proxy.address)
        client.read_reply()
        old, new = proxy.port, free_port()
        proxy.write_ini(BindPort=new)
        with raw_call(old, b"RELOAD\n") as caller:
            self.assertRegex(caller.makefile("rb").read(), rb"X 0\n$")
        self.assertEqual(self.connect((LOOPBACK, new)).read_reply()[:3], "220")
        self.assertEqual(run_trabex("/SESSIONS", "/P", old)[0], 3)
        self.assertEqual(len(run_trabex("/SESSIONS", "/P", new)[1].splitlines()), 2)
        self.assertEqual(client.command("NOOP")[:3], "250")

    def test_two_hundred_during_traffic(self):
        """Good and bad ones in turns; no session is harmed, and each good one acts at once."""
        server = self.sample_server()
        proxy = self.trabex(server.port, {"AutoReload": 0})
        stop = threading.Event()
        failures, sent = [], []

        def send_mail(number):
            try:
                client = Smtp(proxy.address)
                while not stop.is_set():
                    message = text_message(len(sent))
                    client.bdat(f"s{number}@{DOMAIN}", [f"r@{DOMAIN}"], [message])
                    sent.append(message)
                client.quit()
            except (OSError, smtplib.SMTPException) as error:
                failures.append(error)

        senders = [threading.Thread(target=send_mail, args=[number]) for number in range(3)]
        idle = self.connect(proxy.address)
        idle.read_reply()
        for sender in senders:
            sender.start()
        try:
            for number in range(100):
                proxy.write_ini(SendersBlackList=f"bad{number}@*", MaxBadSeq=10)
                with raw_call(proxy.port, b"RELOAD\n") as caller:
                    self.assertRegex(caller.makefile("rb").read(), rb"X 0\n$")
                proxy.write_ini(SendersBlackList="s*@*", MaxBadSeq="many")
                with raw_call(proxy.port, b"RELOAD\n") as caller:
                    self.assertRegex(caller.makefile("rb").read(), rb"(?s)^T \d+\n.*: error: .*many.*X 1\n$")
        finally:
            stop.set()
            for sender in senders:
                sender.join()
        self.assertEqual(failures, [])
        self.assertGreater(len(sent), 20)
        server.wait_for_count(len(sent))
        self.assertEqual(sorted(without_received(message.content) for message in server.messages()), sorted(sent))
        self.assertEqual(idle.command("EHLO client.example")[:3], "250")
        self.assertEqual(idle.command(f"MAIL FROM:<bad99@{DOMAIN}>")[:3], "550")
        self.assertEqual(sum("Configuration reloaded because" in line for line in proxy.log_lines()), 100)


class ReopenLog(Scenario):
    def test_log_that_was_moved(self):
        """No line is lost, and after the request none is in the file that was moved."""
        proxy = self.trabex(self.sample_server().port)
        client = self.connect(proxy.address)
        client.read_reply()
        done = 0
        for turn in range(5):
            log, = proxy.log_folder.glob("*.log")
            for part in range(2):
                for _ in range(10):
                    self.assertEqual(client.command(f"NOOP {done}")[:3], "250")
                    done += 1
                if part == 0:
                    log.rename(proxy.log_folder / f"moved{turn}")
            self.assertEqual(run_trabex("/REOPENLOG", "/P", proxy.port), (0, "", ""))
            self.assertEqual(client.command(f"NOOP {done}")[:3], "250")
            done += 1
        files = [*(proxy.log_folder / f"moved{turn}" for turn in range(5)), *proxy.log_folder.glob("*.log")]
        found = [[int(number) for number in re.findall(r"R: .* < NOOP (\d+)¶", file.read_text())] for file in files]
        expected = [list(range(20)), *(list(range(21 * turn - 1, 21 * turn + 20)) for turn in range(1, 5)), [104]]
        self.assertEqual(found, expected)


class GreyList(Scenario):
    """Records of a running instance, and of the file without one."""

    def setUp(self):
        super().setUp()
        self.proxy = self.trabex(self.sample_server().port, {"LocalIPs": "192.0.2.1", "LocalDomains": DOMAIN},
                                 sections={"GreyListing": {"Enabled": 1, "Database": "db/grey.gldb"}}, start=False)
        self.database = self.place.folder / "grey" / "grey.gldb"
        self.database.parent.mkdir()
        self.proxy.sections["GreyListing"]["Database"] = self.database
        self.proxy.write_ini()

    def ask(self, *arguments):
        return run_trabex("/GREYLIST", *arguments, "/I", self.proxy.ini)

    def done(self, *arguments):
        status, out, err = self.ask(*arguments)
        self.assertEqual((status, err), (0, ""), arguments)
        return out

    def test_records_of_an_instance_and_of_the_file(self):
        self.proxy.start()
        client = self.connect(self.proxy.address)
        client.read_reply()
        client.command("EHLO client.example")
        client.command(f"MAIL FROM:<s@{DOMAIN}>")
        self.assertEqual(client.command(f"RCPT TO:<r@{DOMAIN}>")[:3], "451")
        self.assertRegex(self.done("list"), rf"^(127\.0\.0|::/64)\ts@{DOMAIN}\tr@{DOMAIN}\twaiting\t1\t")
        self.assertIn("next attempt: delayed before ", self.done("show", LOOPBACK, f"s@{DOMAIN}", f"r@{DOMAIN}"))
        self.assertEqual(self.done("add", LOOPBACK, f"s@{DOMAIN}", f"r@{DOMAIN}", "--accepted"), "")
        self.assertEqual(client.command(f"RCPT TO:<r@{DOMAIN}>")[:3], "250", "accepted from now on")
        self.assertEqual(self.done("add", "192.0.2.1", "<>", "x@y.example"), "")
        client.close()
        exported = self.done("export")
        self.assertEqual([json.loads(line)["accepted"] for line in exported.splitlines()], [True, False])
        self.assertEqual(self.proxy.end(), 0)
        # No instance any more: the file.
        self.assertEqual(self.done("export"), exported)
        owner = 65534 if os.geteuid() == 0 else os.geteuid()
        os.chown(self.database, owner, -1)
        self.assertEqual(self.done("delete", "192.0.2 *"), "1 deleted\n")
        self.assertEqual(self.database.stat().st_uid, owner, "the file is still that of the instance's user")
        self.assertEqual(self.done("export"), exported.splitlines(True)[0])
        records = self.place.folder / "records.jsonl"
        records.write_text(exported)
        self.assertEqual(self.done("import", records), "2 read, 1 added, 0 changed, 0 deleted\n")
        self.assertEqual(self.done("export"), exported)
        self.proxy.start()
        self.assertEqual(self.done("export"), exported)
        records.write_text(exported.splitlines(True)[1])
        here = os.getcwd()
        os.chdir(self.place.folder)
        try:
            self.assertEqual(self.done("import", "--replace", "records.jsonl"), "1 read, 0 added, 0 changed, 1 deleted\n")
        finally:
            os.chdir(here)
        records.write_text(exported + "{}\n")
        self.assertEqual(self.ask("import", records),
                         (1, "", 'Trabex: Line 3: The text "network" is missing.\n'))
        self.assertEqual(self.done("export"), exported.splitlines(True)[1])
        self.assertEqual(self.done("stats").splitlines()[:4], ["records\t1", "accepted\t0", "waiting\t1", "expired\t0"])
        self.assertEqual(self.ask("show", "192.0.2.2", "a@b", "c@d")[0], 1)
        self.assertEqual(self.ask("show", "nobody", "a@b", "c@d"), (2, "", 'Trabex: "nobody" is no IP address.\n'))

    def test_file_that_is_corrupt_or_missing(self):
        self.assertEqual(self.ask("list"),
                         (1, "", "Trabex: Unable to load GreyListing database. Error 53. File not found.\n"))
        self.database.write_bytes(b"nothing")
        for command in (["list"], ["delete", "*"], ["add", "192.0.2.1", "a@b", "c@d"]):
            self.assertEqual(self.ask(*command),
                             (1, "", "Trabex: Unable to load GreyListing database. Error 321. The file is corrupted.\n"))
        self.assertEqual(self.database.read_bytes(), b"nothing")
        self.assertEqual(len(list(self.database.parent.iterdir())), 1)

    def records_file(self, count):
        """A file of so many records that can be imported."""
        path = self.place.folder / "many.jsonl"
        path.write_text("".join(
            f'{{"network":"10.{number >> 8}.{number & 255}","sender":"s{number}@some.example","recipient":"r@{DOMAIN}",'
            f'"accepted":true,"attempts":1,"delayed_until":"2026-11-15T13:54:24Z","expires":"2099-12-15T13:44:24Z"}}\n'
            for number in range(count)))
        return path

    @staticmethod
    def bytes_read(pid, path):
        """How much of the file the process has read; None when it has not opened it, or closed it again."""
        for link in Path(f"/proc/{pid}/fd").iterdir():
            with contextlib.suppress(OSError):
                if os.readlink(link) == str(path):
                    return int(Path(f"/proc/{pid}/fdinfo/{link.name}").read_text().split()[1])
        return None

    def stop_when_read(self, process, path, least):
        """Stops the process when it has read so much, or has ended; returns what it had read."""
        def has_read():
            return process.poll() is not None or (self.bytes_read(process.pid, path) or -1) >= least

        wait_until(has_read, f"{least} bytes of the file to be read")
        if process.poll() is not None:
            return None
        process.send_signal(signal.SIGSTOP)
        return self.bytes_read(process.pid, path)

    def test_import_into_the_file_that_is_killed(self):
        """The database is that of before, unless all of the import was saved already."""
        self.done("add", "192.0.2.1", "a@b.example", "c@d.example", "--accepted")
        before, count = self.database.read_bytes(), 30_000
        records = self.records_file(count)
        size, killed_while_reading = records.stat().st_size, 0
        for share in (0, 0.25, 0.5, 0.75, 0.9, 1):
            importing = subprocess.Popen([str(program("Trabex")), "/GREYLIST", "import", str(records), "/I",
                                          str(self.proxy.ini)], stdout=subprocess.DEVNULL)
            self.place.on_leaving(importing.wait)
            self.place.on_leaving(importing.kill)
            read = self.stop_when_read(importing, records, share * size)
            importing.kill()
            importing.wait(bound(20))
            if read is not None and read < size:
                killed_while_reading += 1
                self.assertEqual(self.database.read_bytes(), before, share)
            else:
                self.assertIn(len(self.done("export").splitlines()), (1, count + 1), share)
        self.assertGreater(killed_while_reading, 2)
        self.done("import", records)
        self.assertEqual(len(self.done("export").splitlines()), count + 1)

    def test_import_that_is_killed_while_it_is_saved(self):
        """As soon as anything is written beside the database, that of before is whole, or the new one is."""
        self.done("add", "192.0.2.1", "a@b.example", "c@d.example", "--accepted")
        exported, count = self.done("export"), 30_000
        records = self.records_file(count)
        names = {path.name for path in self.database.parent.iterdir()}
        importing = subprocess.Popen([str(program("Trabex")), "/GREYLIST", "import", str(records), "/I",
                                      str(self.proxy.ini)], stdout=subprocess.DEVNULL)
        self.place.on_leaving(importing.wait)
        self.place.on_leaving(importing.kill)
        wait_until(lambda: {path.name for path in self.database.parent.iterdir()} != names, "the save to begin")
        importing.kill()
        importing.wait(bound(20))
        now = self.done("export")
        self.assertTrue(now == exported or len(now.splitlines()) == count + 1)
        self.done("import", records)
        self.assertEqual(len(self.done("export").splitlines()), count + 1)

    def test_instance_that_is_killed_during_an_import(self):
        """What it has in memory is gone; the file is that of before."""
        self.done("add", "192.0.2.1", "a@b.example", "c@d.example", "--accepted")
        before, count = self.database.read_bytes(), 30_000
        records = self.records_file(count)
        size, killed_while_reading = records.stat().st_size, 0
        for share in (0.1, 0.6, None):
            self.proxy.start()
            asking = subprocess.Popen([str(program("Trabex")), "/GREYLIST", "import", str(records), "/I",
                                       str(self.proxy.ini)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            self.place.on_leaving(asking.kill)
            if share is None:  # all of it, and not saved yet
                self.assertEqual(asking.communicate(timeout=bound(20))[0],
                                 f"{count} read, {count} added, 0 changed, 0 deleted\n")
            else:
                wait_until(lambda share=share: (self.bytes_read(self.proxy.process.pid, records) or -1) >= share * size,
                           "the file to be read")
                self.proxy.process.send_signal(signal.SIGSTOP)
                killed_while_reading += (self.bytes_read(self.proxy.process.pid, records) or size) < size
            self.proxy.process.send_signal(signal.SIGKILL)
            self.proxy.process.wait()
            if share is not None:
                self.assertIn("ended the connection before its answer was complete",
                              asking.communicate(timeout=bound(20))[1])
            self.assertEqual(self.database.read_bytes(), before, share)
        self.assertGreater(killed_while_reading, 0)
        self.assertEqual(len(self.done("export").splitlines()), 1)

    def recipes(self):
        """The commands of the page's recipes, for this instance and this folder."""
        blocks = read_blocks(REPO / "docs" / "greylisting-tool.md")
        return [block.text.replace("--port 25 --inifile /etc/trabex/25.ini", f"/I {self.proxy.ini}")
                .replace("/var/backups", str(self.place.folder))
                .replace("/usr/sbin/trabex", "trabex").replace("trabex --", f"{program('Trabex')} --")
                for block in blocks if block.heading == "Recipes"]

    def run_recipe(self, commands):
        done = subprocess.run(["sh", "-e", "-c", commands], cwd=self.place.folder, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=bound(60), check=False)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def test_recipe_of_a_backup(self):
        backup = self.recipes()[0]
        fields = backup.split(maxsplit=6)
        self.assertEqual(fields[:6], ["0", "3", "*", "*", "*", "root"], "when, and as whom")
        self.proxy.start()
        self.done("add", "192.0.2.1", "a@b.example", "c@d.example", "--accepted")
        self.done("add", "192.0.2.2", "<>", "c@d.example")
        self.run_recipe(fields[6])
        saved = self.place.folder / "trabex-greylist.jsonl"
        self.assertEqual(saved.read_text(), self.done("export"))
        self.assertEqual(self.proxy.end(), 0)
        # Into another one.
        self.database.unlink()
        self.assertEqual(self.done("import", saved), "2 read, 2 added, 0 changed, 0 deleted\n")
        self.assertEqual(self.done("export"), saved.read_text())
        # A backup that fails leaves that of the night before.
        self.database.write_bytes(b"nothing")
        kept = saved.read_text()
        with self.assertRaises(AssertionError):
            self.run_recipe(fields[6])
        self.assertEqual(saved.read_text(), kept)

    def test_recipe_of_seeding(self):
        self.proxy.start()
        log = self.place.folder / "sent.log"
        log.write_text(
            "Nov 22 10:00:00 mx postfix: 4Y1: from=<me@our.example>, to=<you@their.example>, "
            "relay=mx.their.example[192.0.2.7]:25, delay=1, dsn=2.0.0, status=sent (250 ok)\n"
            "Nov 22 10:00:01 mx postfix: 4Y2: from=<me@our.example>, to=<you@their.example>, "
            "relay=mx.their.example[192.0.2.7]:25, delay=1, dsn=2.0.0, status=sent (250 ok)\n"
            "Nov 22 10:00:02 mx postfix: 4Y3: from=<me+x@our.example>, to=<a'b$c@their.example>, "
            "relay=mx6.their.example[2001:db8::1]:25, delay=1, dsn=2.0.0, status=sent (250 ok)\n"
            "Nov 22 10:00:03 mx postfix: 4Y4: from=<>, to=<you@their.example>, "
            "relay=mx.their.example[192.0.2.8]:25, delay=1, dsn=2.0.0, status=sent (250 ok)\n"
            "Nov 22 10:00:04 mx postfix: 4Y5: from=<me@our.example>, to=<u@x.example>, relay=none, status=deferred\n")
        self.run_recipe(self.recipes()[1])
        self.assertEqual(sorted(line.split("\t")[:4] for line in self.done("list").splitlines()),
                         [["192.0.2", "you@their.example", "me@our.example", "accepted"],
                          ["2001:db8::/64", "a'b$c@their.example", "me+x@our.example", "accepted"]])

    def test_greylisting_that_is_off(self):
        self.proxy.sections["GreyListing"]["Enabled"] = 0
        self.proxy.write_ini()
        self.proxy.start()
        self.assertEqual(self.ask("list"), (1, "", "Trabex: Greylisting is off.\n"))


class OtherUsers(Scenario):
    """Only root and the instance's own user may ask."""

    def setUp(self):
        super().setUp()
        if os.geteuid() != 0:
            self.skipTest("needs root to become somebody else")
        self.server = self.sample_server()

    def test_who_may_ask(self):
        proxy = self.trabex(self.server.port)
        refused = (4, "", f"Trabex: The instance on port {proxy.port} belongs to another user.\n")
        for request in (["/SESSIONS"], ["/CLOSE", "0" * 16], ["/REOPENLOG"], ["/X"]):
            self.assertEqual(as_user(SOMEBODY, *request, "/P", proxy.port), refused)
        self.assertIsNone(proxy.process.status(), "it goes on")
        # One that does not look before.
        self.assertEqual(self.said_to_stranger(proxy.port), "b''")
        # The lock's message, likewise.
        self.assertEqual(self.as_stranger(f"s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)\n"
                                          f"s.sendto(b'exit', '\\x00{INSTANCE}{proxy.port}')"), "")
        self.assertEqual(run_trabex("/SESSIONS", "/P", proxy.port), (0, "", ""))

    def as_stranger(self, lines):
        done = subprocess.run(["setpriv", f"--reuid={SOMEBODY}", f"--regid={SOMEBODY}", "--clear-groups", "python3", "-c",
                               f"import socket\n{lines}"], capture_output=True, text=True, timeout=bound(20), check=False,
                              cwd="/")
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout.strip()

    def said_to_stranger(self, port):
        return self.as_stranger("s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)\n"
                                f"s.connect('\\x00{INSTANCE}{port}')\n"
                                "try:\n    s.sendall(b'SESSIONS\\n')\nexcept OSError:\n    pass\n"
                                "try:\n    print(s.recv(1000))\nexcept ConnectionResetError:\n    print(b'')\n")

    def test_instance_of_another_user(self):
        """It is its own user's and root's, and not a third one's."""
        self.place.folder.chmod(0o755)
        for parent in self.place.folder.parents:
            if not parent.stat().st_mode & 0o001:
                self.skipTest(f"{parent} is closed to other users")
        proxy = self.trabex(self.server.port, start=False)
        for path in (proxy.folder, proxy.ini):
            os.chown(path, SOMEBODY, SOMEBODY)
        copy = self.place.copy_program("Trabex")
        copy.chmod(0o755)
        copy.parent.chmod(0o755)
        proxy.command = lambda: ["setpriv", f"--reuid={SOMEBODY}", f"--regid={SOMEBODY}", "--clear-groups", copy, "/I",
                                 proxy.ini, "/HI"]
        proxy.start()
        self.assertEqual(run_trabex("/SESSIONS", "/P", proxy.port), (0, "", ""))
        self.assertEqual(as_user(SOMEBODY, "/SESSIONS", "/P", proxy.port), (0, "", ""))
        refused = (4, "", f"Trabex: The instance on port {proxy.port} belongs to another user.\n")
        self.assertEqual(as_user(SOMEBODY_ELSE, "/SESSIONS", "/P", proxy.port), refused)
        self.assertEqual(as_user(SOMEBODY_ELSE, "/X", "/P", proxy.port), refused)
        self.assertEqual(as_user(SOMEBODY, "/X", "/P", proxy.port), (0, "", ""))
        self.assertEqual(proxy.process.wait(), 0)

    def test_name_taken_by_another_user(self):
        """The mail does not depend on the channel; root is not told anything by whoever took its name."""
        proxy = self.trabex(self.server.port, start=False)
        thief = subprocess.Popen(["setpriv", f"--reuid={SOMEBODY}", f"--regid={SOMEBODY}", "--clear-groups", "python3", "-c",
                                  "import socket, time\ns = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)\n"
                                  f"s.bind('\\x00{INSTANCE}{proxy.port}')\ns.listen()\nprint('ready', flush=True)\n"
                                  "time.sleep(1000)"], stdout=subprocess.PIPE, cwd="/")
        self.place.on_leaving(thief.wait)
        self.place.on_leaving(thief.kill)
        self.assertEqual(thief.stdout.readline(), b"ready\n")
        proxy.start()
        said = "This instance takes no requests: their name is not free."
        proxy.wait_for_log(said)
        self.assertEqual(proxy.process.stderr(), f"Trabex: {said}\n")
        self.assertEqual(run_trabex("/SESSIONS", "/P", proxy.port),
                         (1, "", f"Trabex: The requests to the instance on port {proxy.port} would go to a process of "
                                 "another user, which has taken their name.\n"))
        client = self.connect(proxy.address)
        self.assertEqual(client.read_reply()[:3], "220")
        self.assertEqual(run_trabex("/X", "/P", proxy.port), (0, "", ""))
        self.assertEqual(proxy.process.wait(), 0)


class HostileCallers(Scenario):
    """They cost the mail nothing."""

    def test_mail_under_hostile_callers(self):
        server = self.sample_server()
        proxy = self.trabex(server.port)
        client = Smtp(proxy.address)
        self.addCleanup(client.close)
        callers = []
        for i in range(20):
            caller = raw_call(proxy.port)
            self.addCleanup(caller.close)
            caller.setblocking(False)
            with contextlib.suppress(BlockingIOError, OSError):
                caller.send((b"\0\xff" * 40000, b"SESSI", b"SESSIONS\n", b"\n", b"")[i % 5])
            callers.append(caller)
        message = text_message(1)
        client.bdat(f"s@{DOMAIN}", [f"r@{DOMAIN}"], [message])
        self.assertSame(message, without_received(server.wait_for_messages(1)[0].content), "under hostile callers")
        # Some hold their places still; with those that go there is room for others.
        for caller in callers[1::5] + callers[4::5]:
            caller.close()
        self.assertEqual(run_trabex("/SESSIONS", "/P", proxy.port)[0], 0)
        self.assertEqual(client.noop()[0], 250)


if __name__ == "__main__":
    main()
