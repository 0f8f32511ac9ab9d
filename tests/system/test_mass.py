#!/usr/bin/env python3
"""Much mail and large mail, many sessions at a time: nothing is lost, nothing is mixed up, no byte changes."""

import subprocess
import threading
import traceback

from messages import any_bytes, binary_lines, text_message
from trabex_system import DOMAIN, Scenario, Smtp, bound, connect, endpoint, main, without_received

SESSIONS = 20


class Mass(Scenario):
    def in_threads(self, work, count=SESSIONS, seconds=120):
        """Runs work(number) in `count` threads; the first failure is the case's."""
        failures = []

        def guarded(number):
            try:
                work(number)
            except Exception:
                failures.append(traceback.format_exc())

        threads = [threading.Thread(target=guarded, args=(number,), daemon=True) for number in range(count)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(bound(seconds))
            self.assertFalse(thread.is_alive(), "a session came to no end")
        self.assertEqual(failures, [])

    def setUp(self):
        super().setUp()
        self.server = self.sample_server()
        self.proxy = self.front(self.server.port)

    def check_arrived(self, sent):
        """`sent` maps recipients to contents; each has arrived once, as it was."""
        self.server.wait_for_count(len(sent))
        self.assertEqual(self.server.count(), len(sent))
        for path in self.server.mail.glob("*.eml"):
            message = self.server.read(path)
            recipient, = message.recipients
            self.assertSame(sent.pop(recipient), without_received(message.content), recipient)
        self.assertEqual(sent, {})

    def test_two_thousand_messages(self):
        """100 from each of 20 clients at a time; half of them over one connection, half over one each."""
        sent = {f"r{number}@{DOMAIN}": text_message(number, number % 50 * 200) for number in range(2000)}

        def deliver(session):
            numbers = range(session * 100, session * 100 + 100)
            if session % 2:
                with Smtp(self.proxy.address) as client:
                    for number in numbers:
                        client.sendmail(f"s@{DOMAIN}", f"r{number}@{DOMAIN}", sent[f"r{number}@{DOMAIN}"])
            else:
                for number in numbers:
                    with Smtp(self.proxy.address) as client:
                        client.sendmail(f"s@{DOMAIN}", f"r{number}@{DOMAIN}", sent[f"r{number}@{DOMAIN}"])

        self.in_threads(deliver)
        self.check_arrived(sent)

    def test_binary_content_at_a_time(self):
        """Contents of any bytes, with DATA and with BDAT, in 20 sessions that go on together."""
        sent = {}
        for number in range(60):
            content = any_bytes(number, 300_000) if number % 2 else binary_lines(number, 300_000)
            sent[f"r{number}@{DOMAIN}"] = content

        def deliver(session):
            with Smtp(self.proxy.address) as client:
                for number in range(session * 3, session * 3 + 3):
                    content = sent[f"r{number}@{DOMAIN}"]
                    if number % 2:
                        chunks = [content[:number * 1000], content[number * 1000:]]
                        client.bdat(f"s@{DOMAIN}", [f"r{number}@{DOMAIN}"], chunks)
                    else:
                        client.sendmail(f"s@{DOMAIN}", f"r{number}@{DOMAIN}", content, ["BODY=8BITMIME"])

        self.in_threads(deliver)
        self.check_arrived(sent)

    def test_fifty_megabytes(self):
        """One of each kind, at the same time as small mail."""
        lines = binary_lines(1, 50 << 20)
        octets = any_bytes(2, 50 << 20)
        sent = {f"lines@{DOMAIN}": lines, f"octets@{DOMAIN}": octets}
        sent.update((f"small{number}@{DOMAIN}", text_message(number)) for number in range(50))

        def deliver(session):
            with Smtp(self.proxy.address) as client:
                if session == 0:
                    client.sendmail(f"s@{DOMAIN}", f"lines@{DOMAIN}", lines, ["BODY=8BITMIME"])
                elif session == 1:
                    # Pieces of a megabyte, and the rest in one.
                    cuts = [octets[i << 20:(i + 1) << 20] for i in range(10)] + [octets[10 << 20:]]
                    client.bdat(f"s@{DOMAIN}", [f"octets@{DOMAIN}"], cuts)
                else:
                    for number in range(50):
                        client.sendmail(f"s@{DOMAIN}", f"small{number}@{DOMAIN}", text_message(number))

        self.in_threads(deliver, 3)
        self.check_arrived(sent)

    def test_smtp_source(self):
        """2,000 messages of Postfix's own source: a connection for each, and connections that stay."""
        for more, total in (([], 2000), (["-d"], 4000)):
            done = subprocess.run(
                ["smtp-source", "-m", "2000", "-s", str(SESSIONS), "-l", "4096", "-f", f"s@{DOMAIN}", "-t",
                 f"r@{DOMAIN}", *more, f"inet:{endpoint(self.proxy.port)}"],
                stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=bound(120), check=False)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.server.wait_for_count(total)
        contents = set()
        for path in self.server.mail.glob("*.eml"):
            contents.add(without_received(self.server.read(path).content))
        self.assertEqual(len(contents), 4000, "every message is one of its own")
        # All of them are the same but for their identity.
        self.assertEqual(len({content.split(b"\r\n\r\n", 1)[1] for content in contents}), 1)

    def test_idle_sessions_beside(self):
        """Mail flows beside 300 clients that say nothing."""
        idle = [connect(self.proxy.address) for _ in range(300)]
        for client in idle:
            self.addCleanup(client.close)
        for client in idle:
            self.assertEqual(client.read_reply()[:3], "220")
        sent = {f"r{number}@{DOMAIN}": text_message(number) for number in range(200)}

        def deliver(session):
            for number in range(session * 10, session * 10 + 10):
                with Smtp(self.proxy.address) as client:
                    client.sendmail(f"s@{DOMAIN}", f"r{number}@{DOMAIN}", sent[f"r{number}@{DOMAIN}"])

        self.in_threads(deliver)
        for client in idle:
            self.assertEqual(client.command("NOOP")[:3], "250")
        self.check_arrived(sent)


if __name__ == "__main__":
    main()
