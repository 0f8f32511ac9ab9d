#!/usr/bin/env python3
"""Logs, records and certificates on a disk that is full or read-only, or deleted and replaced, while sessions go on, half of
them with TLS: no session and no mail is lost, what is wrong is told, and all goes on when it is over."""

import json
import re
import signal

import own_mounts
from own_mounts import SmallDisk
from test_hanging_disk import OnHangingDisk
from trabex_system import DOMAIN, LOOPBACK, Authority, Scenario, main, run_trabex, wait_until


class DiskFaults(OnHangingDisk):
    def setUp(self):
        Scenario.setUp(self)
        own_mounts.enter()
        self.disk = SmallDisk(self.place)
        self.certificate = Authority(self.place).issue(["localhost"])
        self.server = self.sample_server()
        self.sent = []
        self.chain = self.disk.folder / "chain.pem"
        self.chain.write_bytes(self.certificate.both.read_bytes())
        for name in ("Log", "records"):
            (self.disk.folder / name).mkdir()
        self.json_log = self.disk.folder / "trabex.json"
        self.database = self.disk.folder / "records" / "grey.gldb"

    def start(self):
        return self.trabex(
            self.server.port, {"LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN, "LogPath": self.disk.folder / "Log"},
            sections={"TLS": {"Certificate": self.chain}, "Service": {"JsonLog": self.json_log},
                      "GreyListing": {"Enabled": 1, "Database": self.database, "IPWhiteList": LOOPBACK}},
            json_log=False)

    def log(self):
        return b"".join(file.read_bytes() for file in sorted((self.disk.folder / "Log").glob("*.log"))).decode("utf-8")

    def json_senders(self):
        text = self.json_log.read_text(encoding="utf-8") if self.json_log.exists() else ""
        events = [json.loads(line) for line in text.splitlines() if line.endswith("}")]
        return [event["from"][1:].split("@")[0] for event in events if event["event"] == "message"]

    def lost_lines(self, proxy):
        status, said, _ = run_trabex("--status", "log_lines_lost_total", "--port", proxy.port)
        self.assertEqual(status, 0)
        return sum(map(int, re.findall(r"(\d+)$", said, re.MULTILINE)))

    def save(self, proxy, recipient):
        """A reload saves what has changed."""
        self.delayed(proxy, recipient)
        proxy.process.send_signal(signal.SIGHUP)

    def is_saved(self, recipient):
        wait_until(lambda: self.database.exists() and recipient.encode() in self.database.read_bytes(),
                   f"the record of {recipient}")

    def test_full(self):
        proxy = self.start()
        self.logs_have(self.sessions(proxy))
        self.save(proxy, "before")
        self.is_saved("before")
        before = self.database.read_bytes()
        self.assertEqual(self.lost_lines(proxy), 0)
        self.disk.fill()
        for _ in range(4):
            self.sessions(proxy)
        self.save(proxy, "meanwhile")
        self.wait_for_word(proxy, "Unable to save GreyListing database. Error 61. Disk full.")
        self.wait_for_word(proxy, f"JSON log \"{self.json_log}\" cannot be written. Lines are lost.")
        self.sessions(proxy)
        self.assertGreater(self.lost_lines(proxy), 0)
        self.assertEqual(self.database.read_bytes(), before)
        self.disk.make_room()
        numbers = self.sessions(proxy)
        self.wait_for_last(numbers)
        self.save(proxy, "afterwards")
        self.is_saved("meanwhile")
        self.is_saved("afterwards")
        self.nothing_was_lost()

    def wait_for_last(self, numbers):
        """The sessions are in both logs, behind lines that were cut off perhaps."""
        for number in numbers:
            self.wait_for_line(f"MAIL FROM:<s{number}@")
        wait_until(lambda: {*map(str, numbers)} <= set(self.json_senders()), "the sessions in the log in JSON")

    def test_read_only(self):
        self.disk.be_read_only()
        proxy = self.start()
        self.wait_for_word(proxy, "Unable to open log file ")
        self.sessions(proxy)
        self.wait_for_word(proxy, f"JSON log \"{self.json_log}\" cannot be written. Lines are lost.")
        self.save(proxy, "meanwhile")
        # A reload finds it out before it would save.
        self.wait_for_word(proxy, f"The folder of the database, \"{self.database.parent}\", is not writable")
        self.sessions(proxy)
        self.assertGreater(self.lost_lines(proxy), 0)
        self.assertEqual(self.log(), "")
        self.disk.be_read_only(False)
        self.logs_have(self.sessions(proxy))
        self.save(proxy, "afterwards")
        self.is_saved("meanwhile")
        self.is_saved("afterwards")
        self.nothing_was_lost()

    def test_deleted_and_replaced(self):
        proxy = self.start()
        self.logs_have(self.sessions(proxy))
        self.save(proxy, "first")
        self.is_saved("first")
        with self.subTest("deleted"):
            for file in (*(self.disk.folder / "Log").iterdir(), self.json_log, *self.database.parent.iterdir()):
                file.unlink()
            self.sessions(proxy)
            proxy.process.send_signal(signal.SIGUSR1)
            self.wait_for_line("Log file reopened.")
            self.logs_have(self.sessions(proxy))
            self.save(proxy, "second")
            self.is_saved("first")
            self.is_saved("second")
        with self.subTest("replaced"):
            for name in ("Log", "records"):
                (self.disk.folder / name).rename(self.disk.folder / f"{name} of before")
                (self.disk.folder / name).mkdir()
            self.json_log.rename(self.disk.folder / "json of before")
            self.json_log.write_text('{"event":"of somebody else"}\n')
            self.database.write_bytes(b"no database")
            self.sessions(proxy)
            proxy.process.send_signal(signal.SIGUSR1)
            self.wait_for_line("Log file reopened.")
            self.logs_have(self.sessions(proxy))
            self.save(proxy, "third")
            for recipient in ("first", "second", "third"):
                self.is_saved(recipient)
        with self.subTest("certificate deleted"):
            self.chain.unlink()
            proxy.process.send_signal(signal.SIGHUP)
            self.wait_for_word(proxy, f"Unable to load certificate \"{self.chain}\"")
            self.wait_for_line("Configuration not reloaded; the one in force stays.")
            self.sessions(proxy)
            self.chain.write_bytes(self.certificate.both.read_bytes())
            reloads = self.log().count("Configuration reloaded")
            proxy.process.send_signal(signal.SIGHUP)
            self.wait_for_line("Configuration reloaded", times=reloads + 1)
            self.sessions(proxy)
        self.assertEqual(self.lost_lines(proxy), 0)
        self.nothing_was_lost()


if __name__ == "__main__":
    main()
