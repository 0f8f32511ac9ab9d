#!/usr/bin/env python3
"""The clock of the machine is set while sessions are open, and while mail passes: a day forward, and two days back. Nobody's
session ends, nobody waits, the log goes into the file of the day, and greylisting goes on."""

import contextlib
import datetime
import os
import smtplib
import threading
import traceback
from pathlib import Path

from messages import text_message
from shifted_clock import ShiftedClock
from trabex_system import DOMAIN, Scenario, Smtp, in_family, main, polite_server, wait_until, without_received

DAY = 86_400
DELAY_MINUTES = 10
# A new day's file begins with the first line behind a pause of 5 seconds.
LOG_PAUSE = 6
CLIENT = in_family("127.0.0.5")


class Shifted(Scenario):
    TIMEOUT = 3600

    def setUp(self):
        super().setUp()
        self.clock = ShiftedClock(self.place.folder)
        self.moved = 0
        self.proxy = self.trabex(
            self.start_server(), {"LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN, "Timeout": self.TIMEOUT}, start=False,
            sections={"Service": {"ServerTimeout": self.TIMEOUT},
                      "GreyListing": {"Enabled": 1, "Delay": DELAY_MINUTES, "BlackListDelay": DELAY_MINUTES,
                                      "BlackListMinCount": 1, "Database": self.place.folder / "grey.gldb"}})
        self.proxy.wrapper = self.clock.wrapper
        self.proxy.start()

    def start_server(self):
        """Returns its port."""
        raise NotImplementedError

    def move(self, seconds):
        self.clock.move(wall=seconds)
        self.moved += seconds

    def today(self):
        return datetime.datetime.now() + datetime.timedelta(seconds=self.moved)

    def session(self, recipient):
        client = self.connect(self.proxy.address, source=CLIENT)
        self.assertEqual(client.read_reply()[:3], "220")
        client.command("EHLO client.example")
        client.command("MAIL FROM:<s@elsewhere.example>")
        return client, client.command(f"RCPT TO:<{recipient}@{DOMAIN}>")[:3]

    def attempt(self, recipient):
        client, code = self.session(recipient)
        client.command("QUIT")
        client.close()
        return code

    def check_log(self):
        """What is logged behind a pause goes into the file of the day, with its date."""
        self.clock.move(monotonic=LOG_PAUSE)
        wait_until(lambda: not self.log_is_open(), "the log to be closed")
        before = self.today()
        client = self.connect(self.proxy.address, source=CLIENT)
        client.read_reply()
        name = f"day{self.moved}.example"
        client.command(f"EHLO {name}")
        client.close()
        self.proxy.wait_for_log(name)
        files = [file for file in self.proxy.log_folder.glob("*.log") if name.encode() in file.read_bytes()]
        # At midnight it may be either.
        days = {day.strftime("%y%m%d") for day in (before, self.today())}
        self.assertEqual(len(files), 1)
        self.assertIn(files[0].stem[-6:], days)
        line = next(line for line in files[0].read_text(encoding="utf-8").splitlines() if name in line)
        self.assertIn(line[6:8] + line[3:5] + line[:2], days)

    def log_is_open(self):
        opened = []
        for entry in Path(f"/proc/{self.proxy.process.pid}/fd").iterdir():
            with contextlib.suppress(FileNotFoundError):
                opened.append(os.readlink(entry))
        return any(name.endswith(".log") for name in opened)


class Jumps(Shifted):
    def start_server(self):
        self.open = []
        self.content = []
        return self.scripted_server(polite_server(content=self.content)).port

    def check_sessions(self):
        """All that were opened before go on; one of them is in the midst of its content."""
        for client in self.open[:-1]:
            self.assertEqual(client.command("NOOP")[:3], "250")
        self.open[-1].send(b"one more line\r\n")

    def test_both_ways(self):
        self.assertEqual(self.attempt("accepted"), "451")
        self.move(DELAY_MINUTES * 60 + 1)
        self.assertEqual(self.attempt("accepted"), "250")
        self.assertEqual(self.attempt("pending"), "451")

        # One that has said nothing yet, one that has a recipient, and one whose content runs.
        silent = self.connect(self.proxy.address)
        silent.read_reply()
        with_recipient, code = self.session("accepted")
        self.assertEqual(code, "250")
        with_content, _ = self.session("accepted")
        self.assertEqual(with_content.command("DATA")[:3], "354")
        with_content.send(text_message(1))
        self.open = [silent, with_recipient, with_content]
        self.check_log()

        self.move(DAY)
        self.check_sessions()
        self.check_log()
        self.assertEqual(self.attempt("accepted"), "250")
        self.assertEqual(self.attempt("pending"), "250")
        self.assertEqual(self.attempt("tomorrow"), "451")

        self.move(-2 * DAY)
        self.check_sessions()
        self.check_log()
        # What was accepted stays so; what is new waits as long as ever.
        self.assertEqual(self.attempt("accepted"), "250")
        self.assertEqual(self.attempt("pending"), "250")
        self.assertEqual(self.attempt("new"), "451")
        self.assertEqual(self.attempt("tomorrow"), "451")
        self.move(DELAY_MINUTES * 60 + 1)
        self.assertEqual(self.attempt("new"), "250")
        # What was seen on a day that is still to come waits for that day, and no longer.
        self.move(2 * DAY)
        self.assertEqual(self.attempt("tomorrow"), "250")

        self.check_sessions()
        with_content.send(b".\r\n")
        self.assertEqual(with_content.read_reply()[:3], "250")
        wait_until(lambda: self.content, "the message")
        self.assertEqual(self.content[0].count(b"one more line\r\n"), 3)
        self.assertEqual(self.proxy.end(), 0)


class UnderLoad(Shifted):
    """Mail passes all the time, in sessions that last and in those of a message each."""

    # Less than any jump.
    TIMEOUT = 60
    CLIENTS = 8
    MESSAGES = 100  # between two jumps

    def start_server(self):
        self.server = self.sample_server()
        return self.server.port

    def deliver(self, number):
        try:
            count = 0
            with self.client() as lasting:
                while not self.ending.is_set():
                    with contextlib.ExitStack() as stack:
                        client = lasting if number % 2 else stack.enter_context(self.client())
                        content = text_message(1000 * number + count, count % 50 * 200)
                        client.sendmail("s@elsewhere.example", f"r{number}@{DOMAIN}", content)
                        self.sent[number].append(content)
                    count += 1
        except (OSError, smtplib.SMTPException):
            self.failures.append(traceback.format_exc())

    def client(self):
        return Smtp(self.proxy.address, CLIENT)

    def test_both_ways(self):
        for wanted in "451", "250":
            for number in range(self.CLIENTS):
                self.assertEqual(self.attempt(f"r{number}"), wanted)
            self.move(DELAY_MINUTES * 60 + 1)
        self.assertEqual(self.attempt("pending"), "451")
        self.ending, self.failures, self.sent = threading.Event(), [], [[] for _ in range(self.CLIENTS)]
        threads = [threading.Thread(target=self.deliver, args=(number,), daemon=True) for number in range(self.CLIENTS)]
        for thread in threads:
            thread.start()
        days = []
        try:
            for jump in 0, DAY, -2 * DAY, DAY:
                self.move(jump)
                days.append(self.today().strftime("%d/%m/%y"))
                least = self.server.count() + self.MESSAGES
                wait_until(lambda least=least: self.server.count() > least or self.failures, "mail")
        finally:
            self.ending.set()
            for thread in threads:
                thread.join()
        self.assertEqual(self.failures, [])
        self.check_mail()
        self.check_records()
        self.check_log()
        self.assertEqual(self.proxy.end(), 0)
        self.check_ends()
        self.check_lines(days)

    def check_mail(self):
        """Every message has come once and whole."""
        received = [[] for _ in range(self.CLIENTS)]
        for message in self.server.messages():
            recipient, = message.recipients
            received[int(recipient.split("@")[0][1:])].append(without_received(message.content))
        for number, contents in enumerate(received):
            self.assertEqual(len(contents), len(self.sent[number]))
            self.assertEqual(sorted(contents), sorted(self.sent[number]), number)

    def check_records(self):
        for number in range(self.CLIENTS):
            self.assertEqual(self.attempt(f"r{number}"), "250")
        self.move(DELAY_MINUTES * 60 + 1)
        self.assertEqual(self.attempt("pending"), "250")

    def check_ends(self):
        """No session was ended by anybody but its client."""
        ends = [event["how"] for event in self.proxy.json_events() if event["event"] == "session"]
        self.assertEqual({how for how in ends if how != "quit"}, {"client"})
        # That of check_log, which goes without a word.
        self.assertEqual(ends.count("client"), 1)

    def check_lines(self, days):
        """Each day has its lines, and no other day has any; none is lost."""
        lines = [line for file in self.proxy.log_folder.glob("*.log") for line in file.read_text(encoding="utf-8").splitlines()]
        self.assertLessEqual({line[:8] for line in lines}, set(days))
        for day in days:
            self.assertTrue(any(line.startswith(day) and " MAIL FROM:" in line for line in lines), day)
        forwarded = sum(" > MAIL FROM:<s@elsewhere.example>" in line for line in lines)
        self.assertGreaterEqual(forwarded, sum(map(len, self.sent)))


if __name__ == "__main__":
    main()
