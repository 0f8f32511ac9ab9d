#!/usr/bin/env python3
"""The clock of the machine is set while sessions are open: a day forward, and two days back. Nobody's session ends, nobody
waits, the log goes into the file of the day, and greylisting goes on."""

import contextlib
import datetime
import os
from pathlib import Path

from messages import text_message
from shifted_clock import ShiftedClock
from trabex_system import DOMAIN, Scenario, in_family, main, polite_server, wait_until

DAY = 86_400
DELAY_MINUTES = 10
# A new day's file begins with the first line behind a pause of 5 seconds.
LOG_PAUSE = 6
CLIENT = in_family("127.0.0.5")


class Jumps(Scenario):
    def setUp(self):
        super().setUp()
        self.content = []
        self.clock = ShiftedClock(self.place.folder)
        self.moved = 0
        server = self.scripted_server(polite_server(content=self.content))
        self.proxy = self.trabex(
            server.port, {"LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN, "Timeout": 3600}, start=False,
            sections={"Service": {"ServerTimeout": 3600},
                      "GreyListing": {"Enabled": 1, "Delay": DELAY_MINUTES, "BlackListDelay": DELAY_MINUTES,
                                      "BlackListMinCount": 1, "Database": self.place.folder / "grey.gldb"}})
        self.proxy.wrapper = self.clock.wrapper
        self.proxy.start()
        self.open = []

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


if __name__ == "__main__":
    main()
