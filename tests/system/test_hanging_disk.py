#!/usr/bin/env python3
"""A disk that does not answer holds up no session, with TLS or without: logs wait and lose lines at most, reloads and saves
wait, and the end of the program waits for some seconds only."""

import os
import re
import signal
import threading
from concurrent.futures import ThreadPoolExecutor

import own_mounts
from hanging_disk import CREATE, FSYNC, LOOKUP, OPEN, WRITE, HangingDisk
from messages import text_message
from trabex_system import (DOMAIN, LOOPBACK, Authority, Options, Scenario, bound, connect, in_family, main, run_trabex,
                           trusting, wait_until, without_received)

AT_A_TIME = 6
NOT_ANSWERING = " does not answer."


class OnHangingDisk(Scenario):
    def setUp(self):
        super().setUp()
        # This process serves the disk, so a busy machine slows down all that happens there.
        self.addCleanup(setattr, Options, "patience", Options.patience)
        Options.patience *= 4
        own_mounts.enter()
        self.disk = HangingDisk(self.place)
        self.certificate = Authority(self.place).issue(["localhost"])
        self.server = self.sample_server()
        self.sent = []

    def start(self, settings=None, sections=None, **more):
        proxy = self.trabex(self.server.port, settings,
                            sections={"TLS": {"Certificate": self.certificate.both}, **(sections or {})}, **more)
        # Whatever fails, it ends.
        self.place.on_leaving(self.disk.answer)
        return proxy

    def session(self, proxy, number, tls):
        client = connect(proxy.address)
        try:
            client.socket.settimeout(bound(20))
            self.assertEqual(client.read_reply()[:3], "220")
            self.assertEqual(client.command("EHLO client.example")[:3], "250")
            if tls:
                self.assertEqual(client.command("STARTTLS")[:3], "220")
                client.start_tls(trusting(None))
                self.assertEqual(client.command("EHLO client.example")[:3], "250")
            self.assertEqual(client.command(f"MAIL FROM:<s{number}@{DOMAIN}>")[:3], "250")
            self.assertEqual(client.command(f"RCPT TO:<r@{DOMAIN}>")[:3], "250")
            self.assertEqual(client.command("DATA")[:3], "354")
            message = text_message(number)
            client.send(message + b".\r\n")
            self.assertEqual(client.read_reply()[:3], "250")
            self.assertEqual(client.command("QUIT")[:3], "221")
            return message
        finally:
            client.close()

    def sessions(self, proxy):
        """Some at a time, half of them with TLS, from the greeting to the end; returns their numbers."""
        first = len(self.sent)
        numbers = range(first, first + AT_A_TIME)
        with ThreadPoolExecutor(AT_A_TIME) as pool:
            self.sent += pool.map(lambda number: self.session(proxy, number, number % 2 == 1), numbers)
        return numbers

    def nothing_was_lost(self):
        arrived = self.server.wait_for_messages(len(self.sent))
        self.assertEqual(sorted(without_received(message.content) for message in arrived), sorted(self.sent))

    def log(self):
        return b"".join(self.disk.get(f"Log/{name}") for name in self.disk.names("Log")).decode("utf-8")

    def wait_for_line(self, text, times=1, seconds=30):
        wait_until(lambda: self.log().count(text) >= times, f"{times} log lines with {text!r} on the disk", seconds)

    def log_is_whole(self):
        lines = self.log().split("\r\n")
        self.assertEqual(lines.pop(), "")
        for line in lines:
            self.assertRegex(line, r"\A\d\d/\d\d/\d\d \d\d:\d\d:\d\d \S")

    @staticmethod
    def wait_for_word(proxy, text, times=1):
        """On standard error."""
        wait_until(lambda: proxy.process.stderr().count(text) >= times, f"{text!r} on standard error", 40)

    def logs_have(self, numbers):
        for number in numbers:
            self.wait_for_line(f"MAIL FROM:<s{number}@")
        wait_until(lambda: {*map(str, numbers)} <= set(self.json_senders()), "the sessions in the log in JSON")
        self.log_is_whole()

    def delayed(self, proxy, recipient):
        client = self.connect(proxy.address, source=in_family("127.0.0.7"))
        client.read_reply()
        for line, code in (("EHLO client.example", "250"), ("MAIL FROM:<s@elsewhere.invalid>", "250"),
                           (f"RCPT TO:<{recipient}@{DOMAIN}>", "451"), ("QUIT", "221")):
            self.assertEqual(client.command(line)[:3], code)


class HungDisk(OnHangingDisk):
    # The logs

    def start_logging_there(self):
        json_log = self.disk.folder / "trabex.json"
        return self.start({"LogPath": self.disk.folder / "Log"}, {"Service": {"JsonLog": json_log}}, json_log=False)

    def json_senders(self):
        return re.findall(r'"event":"message".*?"from":"s(\d+)@', self.disk.get("trabex.json").decode("utf-8"))

    def test_logs(self):
        proxy = self.start_logging_there()
        self.logs_have(self.sessions(proxy))
        with self.subTest("hang when they are written"):
            self.disk.hang(WRITE)
            numbers = self.sessions(proxy)
            self.disk.wait_until_somebody_waits()
            numbers = [*numbers, *self.sessions(proxy)]
            self.wait_for_word(proxy, NOT_ANSWERING, 2)
            self.disk.answer()
            self.logs_have(numbers)
        with self.subTest("hang when they are opened"):
            self.disk.hang()
            proxy.process.send_signal(signal.SIGUSR1)
            numbers = self.sessions(proxy)
            self.disk.wait_until_somebody_waits()
            numbers = [*numbers, *self.sessions(proxy)]
            self.disk.answer()
            self.logs_have(numbers)
            self.wait_for_line("Log file reopened.")
        with self.subTest("their processes are killed"):
            children = [int(child) for child in self.children(proxy)]
            self.assertEqual(len(children), 2)
            for child in children:
                os.kill(child, signal.SIGKILL)
            wait_until(lambda: not set(map(str, children)) & set(self.children(proxy)), "the two to be gone")
            self.logs_have(self.sessions(proxy))
        self.nothing_was_lost()
        self.assertEqual(proxy.end(), 0)
        self.assertTrue(self.log().endswith(" stopped.\r\n"))
        self.assertNotIn("lost", proxy.process.stderr())

    @staticmethod
    def children(proxy):
        pid = proxy.process.pid
        with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as children:
            return children.read().split()

    def test_too_many_lines(self):
        """More than can wait: the lines in between are lost, and counted."""
        proxy = self.start_logging_there()
        self.sessions(proxy)
        self.disk.hang()
        self.flood(proxy, 9000)
        self.disk.answer()
        self.wait_for_line("The disk of the log answers again. ")
        lost = int(re.search(r"answers again\. Lost lines: (\d+)\.", self.log())[1])
        there = self.log().count("< NOOP ")
        self.assertGreater(there, 3000)
        self.assertLess(there, 9000)
        self.assertGreaterEqual(lost, 9000 - there)
        status, said, _ = run_trabex("--status", "log_lines_lost_total", "--port", proxy.port)
        self.assertEqual((status, int(said)), (0, lost))
        self.logs_have(self.sessions(proxy))
        self.nothing_was_lost()

    def flood(self, proxy, count):
        """So many lines of half a kilobyte each."""
        client = self.connect(proxy.address)
        client.read_reply()
        client.command("EHLO client.example")
        line = b"NOOP " + b"x" * 490 + b"\r\n"
        sender = threading.Thread(target=lambda: client.send(line * count), daemon=True)
        sender.start()
        for _ in range(count):
            self.assertEqual(client.read_reply()[:3], "250")
        sender.join(bound(10))
        client.close()

    def test_end(self):
        """The end of the program waits for seconds, not for the disk."""
        proxy = self.start_logging_there()
        self.logs_have(self.sessions(proxy))
        self.disk.hang()
        self.sessions(proxy)
        proxy.process.send_signal(signal.SIGTERM)
        self.assertEqual(proxy.process.wait(30), 0)
        self.assertRegex(proxy.process.stderr(), r"The disk of the log does not answer\. Lost lines: \d+\.")
        self.nothing_was_lost()

    def test_killed(self):
        """What the log's process was given is written, though the program is killed before the disk answers."""
        proxy = self.start_logging_there()
        self.logs_have(self.sessions(proxy))
        self.disk.hang(LOOKUP, OPEN, CREATE)
        proxy.process.send_signal(signal.SIGUSR1)
        self.disk.wait_until_somebody_waits()
        proxy.process.send_signal(signal.SIGKILL)
        self.assertEqual(proxy.process.wait(), -signal.SIGKILL)
        self.disk.answer()
        self.wait_for_line("Log file reopened.")
        self.log_is_whole()

    def test_folder_that_cannot_be_used(self):
        """It is told once until it can be, however often the file is closed."""
        proxy = self.start_logging_there()
        self.logs_have(self.sessions(proxy))
        told = "Unable to open log file "

        def reopen_in_vain(lost):
            proxy.process.send_signal(signal.SIGUSR1)
            wait_until(lambda: self.lost_lines(proxy) == lost, f"{lost} lines to be lost")

        folder = self.disk.take_away("Log")
        self.disk.put("Log", b"")
        for number in range(3):
            reopen_in_vain(number + 1)
        self.assertEqual(proxy.process.stderr().count(told), 1)
        self.disk.bring_back("Log", folder)
        proxy.process.send_signal(signal.SIGUSR1)
        self.wait_for_line("Log file reopened.")
        self.disk.take_away("Log")
        self.disk.put("Log", b"")
        for number in range(3):
            reopen_in_vain(number + 4)
        self.assertEqual(proxy.process.stderr().count(told), 2)

    def lost_lines(self, proxy):
        status, said, _ = run_trabex("--status", "log_lines_lost_total", "--port", proxy.port)
        self.assertEqual(status, 0)
        return sum(map(int, re.findall(r"(\d+)$", said, re.MULTILINE)))

    # What is read

    def test_reload(self):
        """Initialization, list and certificate files there."""
        proxy = self.start(start=False)
        self.disk.put("white.txt", b"10.1.1.1\n")
        for name in ("old.pem", "new.pem"):
            self.disk.put(name, self.certificate.both.read_bytes())
        proxy.ini = self.disk.folder / "Trabex.ini"
        files = {"ListFiles": {"Common.IPWhiteList": self.disk.folder / "white.txt"}}

        def write(certificate):
            proxy.sections = {**proxy.sections, **files, "TLS": {"Certificate": self.disk.folder / certificate}}
            proxy.ini = self.disk.folder.parent / "made.ini"
            proxy.write_ini()
            self.disk.put("Trabex.ini", proxy.ini.read_bytes())
            proxy.ini = self.disk.folder / "Trabex.ini"

        write("old.pem")
        proxy.start()
        self.place.on_leaving(self.disk.answer)
        self.sessions(proxy)
        self.disk.hang()
        write("new.pem")
        proxy.process.send_signal(signal.SIGHUP)
        self.disk.wait_until_somebody_waits()
        self.sessions(proxy)
        proxy.wait_for_log(f"The disk at \"{self.disk.folder}\" does not answer.", seconds=40)
        self.assertNotIn("Configuration reloaded", proxy.log())
        self.disk.answer()
        proxy.wait_for_log("Configuration reloaded")
        proxy.wait_for_log(f"The disk at \"{self.disk.folder}\" answers again.")
        proxy.wait_for_log(f"Certificate \"{self.disk.folder}/new.pem\"")
        self.sessions(proxy)

        self.disk.hang(OPEN)
        with ThreadPoolExecutor(1) as pool:
            asked = pool.submit(run_trabex, "--reload", "--port", proxy.port)
            self.disk.wait_until_somebody_waits()
            self.sessions(proxy)
            self.assertFalse(asked.done())
            self.disk.answer()
            self.assertEqual(asked.result()[0], 0)
        self.disk.hang()
        proxy.process.send_signal(signal.SIGHUP)
        self.disk.wait_until_somebody_waits()
        self.assertEqual(proxy.end(), 0)
        self.nothing_was_lost()

    def test_leaving(self):
        """A reload moves all away from a disk that is dead, but for the log, which only a start moves. The records stay in
        memory until they can be saved where they belong."""
        disk, local = self.disk.folder, self.place.new_folder("local")
        for name, data in (("white.txt", b"10.1.1.1\n"), ("both.pem", self.certificate.both.read_bytes())):
            self.disk.put(name, data)
            (local / name).write_bytes(data)
        self.disk.put("records/other", b"")
        (local / "records").mkdir()

        def sections(folder):
            # A sandbox would leave no more than the places of the start.
            return {"TLS": {"Certificate": folder / "both.pem"},
                    "Service": {"JsonLog": folder / "trabex.json", "Sandbox": 0},
                    "ListFiles": {"Common.IPWhiteList": folder / "white.txt"},
                    "GreyListing": {"Enabled": 1, "Database": folder / "records" / "grey.gldb", "IPWhiteList": LOOPBACK}}

        proxy = self.start({"LogPath": disk / "Log", "LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN}, sections(disk),
                           json_log=False)
        self.logs_have(self.sessions(proxy))
        self.delayed(proxy, "first")
        self.disk.hang()
        with ThreadPoolExecutor(1) as pool:
            waiting = pool.submit(run_trabex, "--reload", "--port", proxy.port)
            self.wait_for_word(proxy, "Files there are read when it does.")
            self.sessions(proxy)
            self.assertFalse(waiting.done())
            proxy.sections = sections(local)
            proxy.write_ini()
            status, said, error = run_trabex("--reload", "--port", proxy.port)
            self.assertEqual((status, waiting.result()[0]), (0, 0), error)
        self.assertIn(f"The disk with the folder of the log, \"{disk / 'Log'}\", does not answer.", said + error)
        self.wait_for_word(proxy, "What lies there is not looked at.")
        self.wait_for_word(proxy, "Unable to save GreyListing database. Error 57. The disk does not answer.")
        numbers = self.sessions(proxy)
        wait_until(lambda: all(f'"from":"s{number}@'.encode() in (local / "trabex.json").read_bytes() for number in numbers),
                   "the sessions in the log in JSON")
        self.delayed(proxy, "second")
        self.disk.answer()
        self.wait_for_line(f"Certificate \"{local / 'both.pem'}\"")
        self.assertEqual(run_trabex("--reload", "--port", proxy.port)[0], 0)
        for recipient in b"first", b"second":
            self.assertIn(recipient, self.disk.get("records/grey.gldb"))
        self.delayed(proxy, "third")
        self.assertEqual(proxy.end(), 0)
        self.assertIn(b"third", (local / "records" / "grey.gldb").read_bytes())
        self.nothing_was_lost()

    # What is saved

    def test_save(self):
        """The database there: a save that hangs holds up nobody, and neither does the end."""
        grey = {"Enabled": 1, "Database": self.disk.folder / "records" / "grey.gldb",
                "IPWhiteList": LOOPBACK}
        self.disk.put("records/other", b"")
        proxy = self.start({"LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN}, {"GreyListing": grey})
        self.sessions(proxy)
        self.delayed(proxy, "first")
        self.disk.hang(CREATE, FSYNC, WRITE)
        proxy.process.send_signal(signal.SIGHUP)
        self.disk.wait_until_somebody_waits()
        self.sessions(proxy)
        self.delayed(proxy, "second")
        proxy.wait_for_log("Configuration reloaded")
        self.disk.answer()
        wait_until(lambda: b"first" in self.disk.get("records/grey.gldb"), "the records to be saved")
        self.assertNotIn(b"second", self.disk.get("records/grey.gldb"))
        before = self.disk.get("records/grey.gldb")
        self.disk.hang()
        proxy.process.send_signal(signal.SIGTERM)
        self.assertEqual(proxy.process.wait(40), 0)
        proxy.wait_for_log("Unable to save GreyListing database. Error 57. The disk does not answer.")
        self.disk.answer()
        self.assertEqual(self.disk.get("records/grey.gldb"), before)
        self.nothing_was_lost()


if __name__ == "__main__":
    main()
