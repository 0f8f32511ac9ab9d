#!/usr/bin/env python3
"""The sample mail server by itself: other scenarios trust it to keep every byte."""

import os
import random
import smtplib
import threading

from trabex_system import DOMAIN, Process, SampleServer, Scenario, Smtp, bound, connect, main, wait_until


class SampleServerScenario(Scenario):
    def setUp(self):
        super().setUp()
        self.server = self.sample_server()

    def greeted(self):
        client = self.connect(self.server.address)
        self.assertTrue(client.read_reply().startswith("220 "))
        self.assertTrue(client.command("EHLO client.example").startswith("250-"))
        return client

    def test_keeps_content_and_envelope(self):
        content = b"Subject: dots\r\n\r\n.one\r\n..two\r\n.\tthree\r\nbare \r and \n and \0 and \xff\r\n\r\n"
        client = self.greeted()
        for line in ("MAIL FROM:<sender@test.example> SIZE=100 BODY=8BITMIME", "RCPT TO:<a@test.example>",
                     "rcpt to: <b@test.example>"):
            self.assertTrue(client.command(line).startswith("250 "), line)
        self.assertTrue(client.command("DATA").startswith("354 "))
        client.send(b"".join(b"." + line if line.startswith(b".") else line for line in content.splitlines(True))
                    + b".\r\n")
        self.assertEqual(client.read_reply(), "250 2.0.0 Stored as 1.eml")
        message, = self.server.messages()
        self.assertEqual(message.content, content)
        self.assertEqual(message.helo, "client.example")
        self.assertEqual(message.sender, "sender@test.example")
        self.assertEqual(message.recipients, ["a@test.example", "b@test.example"])

    def test_only_the_single_dot_ends_content(self):
        # (what is sent after DATA, what is stored)
        cases = [(b".\r\n", b""), (b"\r\n.\r\n", b"\r\n"), (b"x\n.\n\r\n.\r\n", b"x\n.\n\r\n"),
                 (b"x\r\n.\rx\r\n.\r\n", b"x\r\n\rx\r\n"), (b"x\r.\r\n.\r\n", b"x\r.\r\n"),
                 (b"x\r\n.\r\r\n.\r\n", b"x\r\n\r\r\n"), (b"..\r\n.\r\n", b".\r\n")]
        for piece_size in (1000, 1):
            for sent, stored in cases:
                with self.subTest(sent=sent, piece_size=piece_size):
                    client = self.greeted()
                    for line in ("MAIL FROM:<>", "RCPT TO:<a@test.example>", "DATA"):
                        self.assertIn(client.command(line)[:3], ("250", "354"))
                    for i in range(0, len(sent), piece_size):
                        client.send(sent[i:i + piece_size])
                    self.assertTrue(client.read_reply().startswith("250 2.0.0 Stored"))
                    self.assertEqual(self.server.messages()[-1].content, stored)
                    client.close()

    def test_chunks(self):
        content = random.Random(1).randbytes(100_001)
        with Smtp(self.server.address) as client:
            client.bdat("s@test.example", ["r@test.example"], [content[:1], b"", content[1:70_000], content[70_000:]])
            client.bdat("s@test.example", ["r@test.example"], [b"x", b""])
        self.assertEqual([message.content for message in self.server.messages()], [content, b"x"])

    def test_octets_of_a_refused_chunk_are_no_commands(self):
        client = self.greeted()
        client.send(b"BDAT 6 LAST\r\nNOOP\r\nNOOP\r\n")
        self.assertEqual(client.read_reply()[:3], "503")
        self.assertEqual(client.read_reply()[:3], "250")
        self.assertEqual(client.command("QUIT")[:3], "221")
        self.assertEqual(client.read_to_end(), b"")

    def test_pipelined_replies_come_in_order(self):
        client = self.connect(self.server.address)
        client.send(b"EHLO c\r\nMAIL FROM:<>\r\nRCPT TO:<a@test.example>\r\nDATA\r\nhello\r\n.\r\nVRFY x\r\nQUIT\r\n")
        codes = [client.read_reply()[:3] for _ in range(8)]
        self.assertEqual(codes, ["220", "250", "250", "250", "354", "250", "252", "221"])
        self.assertEqual(client.read_to_end(), b"")

    def test_order_and_syntax(self):
        client = self.connect(self.server.address)
        client.read_reply()
        for line, code in [("MAIL FROM:<>", "503"), ("HELO", "501"), ("HELO c", "250"), ("RCPT TO:<a@b>", "503"),
                           ("DATA", "503"), ("MAIL FROM:a", "501"), ("MAIL FROM:<> SIZE=1", "555"), ("EHLO c", "250"),
                           ("MAIL FROM:<> SIZE=9999999999", "552"), ("MAIL FROM:<> SIZE=x", "501"),
                           ("MAIL FROM:<> BODY=BINARYMIME", "555"), ("MAIL FROM:<>", "250"), ("MAIL FROM:<>", "503"),
                           ("DATA", "503"), ("RCPT TO:<>", "501"), ("RCPT TO:<\"a>\"@b>", "250"), ("RSET", "250"),
                           ("DATA", "503"), ("BDAT x", "501"), ("WHAT", "500"), ("X" * 4095, "500"),
                           ("X" * 200_000, "500"), ("NOOP", "250"), ("QUIT", "221")]:
            self.assertEqual(client.command(line)[:3], code, line[:50])

    def test_extensions_and_limit(self):
        server = SampleServer(self.place, "--max-size", 1000, "--without", "chunking", "--without", "8bitmime")
        with Smtp(server.address) as client:
            self.assertEqual(client.ehlo()[0], 250)
            self.assertEqual(sorted(client.esmtp_features), ["pipelining", "size"])
            self.assertEqual(client.esmtp_features["size"], "1000")
            client.esmtp_features.pop("size")  # so that the client does not announce what it sends
            client.sendmail("s@test.example", "r@test.example", b"x" * 998)
            with self.assertRaises(smtplib.SMTPDataError) as refused:
                client.sendmail("s@test.example", "r@test.example", b"x" * 999)
            self.assertEqual(refused.exception.smtp_code, 552)
        self.assertEqual([len(message.content) for message in server.messages()], [1000])

    def test_many_at_once(self):
        def deliver(number):
            with Smtp(self.server.address) as client:
                for i in range(10):
                    client.sendmail("s@test.example", f"r{number}-{i}@{DOMAIN}", f"message {number}-{i}\r\n".encode())

        threads = [threading.Thread(target=deliver, args=(number,)) for number in range(20)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(bound(60))
        messages = self.server.messages()
        self.assertEqual(len(messages), 200)
        for message in messages:
            self.assertEqual(message.recipients, [f"r{message.content.decode().split()[1]}@{DOMAIN}"])

    def test_ends_in_order_and_leaves_no_parts(self):
        client = self.greeted()
        for line in ("MAIL FROM:<>", "RCPT TO:<a@test.example>", "DATA"):
            client.command(line)
        client.send(b"half a message\r\n")
        wait_until(lambda: any(part.stat().st_size for part in self.server.mail.glob("*.part")), "the part")
        self.assertEqual(self.server.process.end(), 0)
        self.assertEqual(client.read_to_end(), b"421 4.3.2 sample.example is shutting down\r\n")
        self.assertEqual(os.listdir(self.server.mail), [])

    def test_goes_on_counting(self):
        second = SampleServer(self.place, mail=self.server.mail)
        for server in (self.server, second, SampleServer(self.place, mail=self.server.mail)):
            with Smtp(server.address) as client:
                client.sendmail("s@test.example", "r@test.example", b"x\r\n")
        self.assertEqual([message.path.name for message in self.server.messages()], ["1.eml", "2.eml", "3.eml"])

    def test_bad_start(self):
        process = Process(self.place, "again", self.server.process.command)
        self.assertEqual(process.wait(), 1)
        self.assertIn("bind: Address already in use", process.stderr())


if __name__ == "__main__":
    main()
