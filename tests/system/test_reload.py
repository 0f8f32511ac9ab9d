#!/usr/bin/env python3
"""The reload for real: half a minute after the initialization file was saved, at once on request, with mail under way."""

import os
import signal
import subprocess

from trabex_system import (DOMAIN, LOOPBACK, Scenario, endpoint, free_port, is_listening, main, run_trabex, wait_until,
                           without_received)

RELOADED = "Configuration reloaded because date/time of initialization file changed."
# The delay, two polls, and what a busy machine adds.
SECONDS = 60


class Reload(Scenario):
    def test_while_mail_is_under_way(self):
        server = self.sample_server()
        proxy = self.trabex(server.port, {"LogLevelServer": 0})
        client = self.connect(proxy.address)
        client.read_reply()
        for line in ("EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>", f"RCPT TO:<r@{DOMAIN}>", "DATA"):
            client.command(line)
        message = b"".join(b"line %d of the message\r\n" % number for number in range(20_000))
        client.send(message[:200_000])
        # A new file is renamed over the old one, as editors do it.
        proxy.write_ini(MaxRecipientsLocal=1)
        proxy.wait_for_log(RELOADED, 1, SECONDS)
        client.send(message[200_000:] + b".\r\n")
        self.assertEqual(client.read_reply()[:3], "250")
        (arrived,) = server.wait_for_messages(1)
        self.assertSame(message, without_received(arrived.content), "the message")
        # The session is the same; the setting acts on its next use.
        for line, code in ((f"MAIL FROM:<s@{DOMAIN}>", "250"), (f"RCPT TO:<r@{DOMAIN}>", "250"),
                           (f"RCPT TO:<q@{DOMAIN}>", "452"), ("QUIT", "221")):
            self.assertEqual(client.command(line)[:3], code, line)

    def test_every_way_of_saving_and_what_follows(self):
        # All at the same time, since each takes three quarters of a minute.
        server = self.sample_server()
        proxies = {way: self.trabex(server.port, {"Timeout": 100, "Log": 2}, start=False)
                   for way in ("in place", "appended", "renamed", "stream editor", "touched", "link's target",
                               "another port", "bad", "emptied", "cut")}
        target = self.place.new_folder("target") / "Trabex.ini"
        linked = proxies["link's target"].ini
        linked.rename(target)
        linked.symlink_to(target)
        for proxy in proxies.values():
            proxy.start()

        def text_of(way):
            return proxies[way].ini.read_text(encoding="utf-8").replace("Timeout=100", "Timeout=200")

        proxies["in place"].ini.write_text(text_of("in place"), encoding="utf-8")
        with open(proxies["appended"].ini, "a", encoding="utf-8") as ini:
            ini.write("[Common]\nMaxBadSeq=3\n")
        proxies["renamed"].write_ini(Timeout=200)
        subprocess.run(["sed", "-i", "s/Timeout=100/Timeout=200/", proxies["stream editor"].ini], check=True)
        os.utime(proxies["touched"].ini)
        target.write_text(text_of("link's target"), encoding="utf-8")
        moved = proxies["another port"]
        old_port, moved.port = moved.port, free_port()
        session = self.connect((LOOPBACK, old_port))
        self.assertEqual(session.read_reply()[:3], "220")
        moved.write_ini(BindPort=moved.port)
        told = self.connect(proxies["bad"].address)
        self.assertEqual(told.read_reply()[:3], "220")
        proxies["bad"].write_ini(IgnoreIniErrors=0, Timeout="soon")
        proxies["emptied"].ini.write_text("", encoding="utf-8")
        proxies["cut"].ini.write_text(text_of("cut").rstrip("\n"), encoding="utf-8")

        for way, (key, value) in {"in place": ("Timeout", 200), "appended": ("MaxBadSeq", 3),
                                  "renamed": ("Timeout", 200), "stream editor": ("Timeout", 200),
                                  "touched": ("Timeout", 100), "link's target": ("Timeout", 200)}.items():
            with self.subTest(way):
                proxies[way].wait_for_log(RELOADED, 1, SECONDS)
                dumped = proxies[way].log().split(RELOADED)[1]
                self.assertIn(f"\r\n{key} = {value}\r\n", dumped)
        with self.subTest("another port"):
            moved.wait_for_log(f"Listen on: {endpoint(moved.port)}; ", 1, SECONDS)
            self.assertTrue(is_listening(moved.port))
            self.assertFalse(is_listening(old_port))
            self.assertEqual(session.command("NOOP")[:3], "250", "the session from before goes on")
            self.assertEqual(run_trabex("/X", "/P", moved.port)[0], 0)
            self.assertEqual(moved.process.wait(), 0, "the exit request finds it by its new port")
        with self.subTest("bad"):
            self.assertEqual(told.read_reply()[:3], "421")
            self.assertEqual(proxies["bad"].process.wait(SECONDS), 1)
            log = proxies["bad"].log()
            self.assertIn("Value is not a number: \"soon\".", log)
            self.assertTrue(log.endswith(" stopped.\r\n"), log[-300:])
        with self.subTest("emptied"):
            proxies["emptied"].wait_for_log("It has no section; the configuration in force stays.", 1, SECONDS)
            self.assertTrue(is_listening(proxies["emptied"].port))
            self.assertNotIn("reloaded", proxies["emptied"].log())
        with self.subTest("cut"):
            proxies["cut"].wait_for_log("is not read yet because its last line has no line end.", 1, SECONDS)
            proxies["cut"].wait_for_log(RELOADED, 1, SECONDS)
            self.assertIn("\r\nTimeout = 200\r\n", proxies["cut"].log().split(RELOADED)[1])


class OnRequest(Scenario):
    """SIGHUP, where no window is shown."""

    def test_at_once_and_without_the_automatic_one(self):
        proxy = self.trabex(self.sample_server().port, {"AutoReload": 0, "Timeout": 100, "Log": 2})
        client = self.connect(proxy.address)
        self.assertEqual(client.read_reply()[:3], "220")
        proxy.write_ini(Timeout=200)
        proxy.process.send_signal(signal.SIGHUP)
        # Far less than the delay of the automatic one, and than the watch takes to notice.
        proxy.wait_for_log(RELOADED, 1, 5)
        self.assertIn("\r\nTimeout = 200\r\n", proxy.log().split(RELOADED)[1])
        self.assertEqual(client.command("NOOP")[:3], "250", "the session goes on")
        proxy.process.send_signal(signal.SIGHUP)
        proxy.wait_for_log("Configuration reloaded; date/time of initialization file has not changed.", 1, 5)
        self.assertEqual(client.command("NOOP")[:3], "250")
        client.close()
        self.assertEqual(proxy.end(), 0)

    def test_another_port(self):
        proxy = self.trabex(self.sample_server().port)
        old_port, proxy.port = proxy.port, free_port()
        proxy.write_ini(BindPort=proxy.port)
        proxy.process.send_signal(signal.SIGHUP)
        wait_until(lambda: is_listening(proxy.port), "Trabex to listen on the new port", 5)
        self.assertFalse(is_listening(old_port))

    def test_what_is_no_initialization_file(self):
        proxy = self.trabex(self.sample_server().port)
        before = proxy.ini.read_text(encoding="utf-8")
        for number, text in enumerate(("", "; [Common]\n", "[Comm"), 1):
            proxy.ini.write_text(text, encoding="utf-8")
            proxy.process.send_signal(signal.SIGHUP)
            proxy.wait_for_log("It has no section; the configuration in force stays.", number, 5)
        self.assertTrue(is_listening(proxy.port))
        proxy.ini.write_text(before.rstrip("\n"), encoding="utf-8")
        proxy.process.send_signal(signal.SIGHUP)
        proxy.wait_for_log(RELOADED, 1, 5)
        self.assertIn(f"Listen on: {endpoint(proxy.port)}; ", proxy.log_lines()[-1])

    def test_one_that_fails(self):
        """It changes nothing, whether errors are ignored or not."""
        proxy = self.trabex(self.sample_server().port, {"AutoReload": 0})
        client = self.connect(proxy.address)
        self.assertEqual(client.read_reply()[:3], "220")
        for ignored in (0, 1):
            proxy.write_ini(IgnoreIniErrors=ignored, Timeout="soon")
            proxy.process.send_signal(signal.SIGHUP)
            proxy.wait_for_log("Configuration not reloaded; the one in force stays.", ignored + 1, 5)
        self.assertNotIn(RELOADED, proxy.log())
        self.assertEqual(proxy.process.stderr().count('"soon"'), 2, "told where nobody reads the log")
        self.assertEqual(client.command("NOOP")[:3], "250")


if __name__ == "__main__":
    main()
