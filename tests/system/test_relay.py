#!/usr/bin/env python3
"""Ordinary mail flows through: every kind of client, every kind of content, byte for byte."""

import subprocess

from messages import any_bytes, binary_lines, text_message
from trabex_system import (DOMAIN, LOOPBACK, Scenario, Smtp, bound, endpoint, main, polite_server, received_header,
                           without_received)

SENDER = f"sender@{DOMAIN}"
RECIPIENT = f"recipient@{DOMAIN}"


def dot_stuffed(content):
    """Content as it goes after DATA, with its end."""
    return b"".join(b"." + line if line.startswith(b".") else line for line in content.splitlines(True)) + b".\r\n"


class Clients(Scenario):
    """Programs that people use."""

    def setUp(self):
        super().setUp()
        self.server = self.sample_server()
        self.proxy = self.front(self.server.port)

    def the_message(self):
        message, = self.server.wait_for_messages(1)
        return message

    def run_client(self, *command):
        done = subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=bound(60), check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def test_swaks(self):
        self.run_client("swaks", "--server", endpoint(self.proxy.port), "--helo", "swaks.example",
                        "--from", SENDER, "--to", RECIPIENT, "--body", "Hello from swaks.",
                        "--header", "Subject: first mail")
        message = self.the_message()
        self.assertEqual((message.sender, message.recipients), (SENDER, [RECIPIENT]))
        self.assertIn(b"\r\nSubject: first mail\r\n", message.content)
        self.assertIn(b"\r\n\r\nHello from swaks.\r\n", message.content)
        self.assertTrue(without_received(message.content).startswith(b"Date: "))

    def test_curl(self):
        content = text_message(1, 10_000)
        file = self.place.folder / "message"
        file.write_bytes(content)
        self.run_client("curl", "--silent", "--show-error", f"smtp://{endpoint(self.proxy.port)}/curl.example",
                        "--mail-from", SENDER, "--mail-rcpt", RECIPIENT, "--upload-file", file)
        message = self.the_message()
        self.assertSame(content, without_received(message.content), "the message")
        self.assertEqual((message.sender, message.recipients), (SENDER, [RECIPIENT]))

    def test_smtplib(self):
        content = text_message(2, 10_000)
        with Smtp(self.proxy.address) as client:
            client.sendmail(SENDER, [RECIPIENT, f"second@{DOMAIN}"], content)
        message = self.the_message()
        self.assertSame(content, without_received(message.content), "the message")
        self.assertEqual((message.sender, message.recipients), (SENDER, [RECIPIENT, f"second@{DOMAIN}"]))

    def test_smtp_source(self):
        """Postfix's own source, several messages over one connection and over several."""
        for more in ([], ["-d"]):
            before = self.server.count()
            self.run_client("smtp-source", "-m", 20, "-s", 4, "-l", 3000, "-f", SENDER, "-t", RECIPIENT, *more,
                            f"inet:{endpoint(self.proxy.port)}")
            messages = self.server.wait_for_messages(before + 20)[before:]
            bodies = {without_received(message.content) for message in messages}
            self.assertEqual(len(bodies), 20, "every message is one of its own")
            self.assertGreaterEqual(min(map(len, bodies)), 3000)


class Content(Scenario):
    """What arrives is what was sent."""

    def setUp(self):
        super().setUp()
        self.server = self.sample_server()
        self.proxy = self.front(self.server.port)

    def test_awkward_lines(self):
        contents = [b"", b"\r\n", b".\r\n", b"..\r\n", b"...\r\n\r\n.\r\n", b"\r\n.\r\n\r\n", b".x\r\n. \r\n.\t\r\n",
                    b"x" * 998 + b"\r\n", b"x" * 100_000 + b"\r\n", b"\0\r\n", b"DATA\r\nQUIT\r\n.QUIT\r\n",
                    b"250 ok\r\n354 go on\r\n", bytes(range(1, 10)) + bytes(range(14, 256)) + b"\r\n"]
        client = self.connect(self.proxy.address)
        client.read_reply()
        client.command("EHLO client.example")
        for content in contents:
            for line in (f"MAIL FROM:<{SENDER}> BODY=8BITMIME", f"RCPT TO:<{RECIPIENT}>"):
                self.assertEqual(client.command(line)[:3], "250")
            self.assertEqual(client.command("DATA")[:3], "354")
            client.send(dot_stuffed(content))
            self.assertEqual(client.read_reply()[:3], "250", content[:40])
        client.command("QUIT")
        for sent, message in zip(contents, self.server.wait_for_messages(len(contents)), strict=True):
            self.assertSame(sent, without_received(message.content), f"{sent[:40]!r}")

    def test_content_in_pieces(self):
        """Wherever the client's segments happen to end."""
        content = b".one\r\n..\r\n\r\n.\r\n\xe4\xf6\r\n.\r\n"
        stuffed = dot_stuffed(content)
        client = self.connect(self.proxy.address)
        client.read_reply()
        client.command("EHLO client.example")
        cuts = [[piece] for piece in range(1, len(stuffed))] + [list(range(1, len(stuffed)))]
        for cut in cuts:
            for line in (f"MAIL FROM:<{SENDER}>", f"RCPT TO:<{RECIPIENT}>", "DATA"):
                client.command(line)
            for begin, end in zip([0, *cut], [*cut, len(stuffed)]):
                client.send(stuffed[begin:end])
            self.assertEqual(client.read_reply()[:3], "250", f"cut at {cut}")
        for message in self.server.wait_for_messages(len(cuts)):
            self.assertSame(content, without_received(message.content), "the message")

    def test_sizes(self):
        with Smtp(self.proxy.address) as client:
            for size in (1, 2, 1000, 4095, 4096, 4097, 65_535, 65_536, 65_537, 1_000_000):
                content = binary_lines(size, size)
                client.sendmail(SENDER, RECIPIENT, content, ["BODY=8BITMIME"])
                message = self.server.messages()[-1]
                self.assertSame(content, without_received(message.content), f"{size} bytes")

    def test_chunks(self):
        """BDAT carries any byte, in any cut, and nothing in it is a command."""
        content = any_bytes(3, 200_000)
        commands = b"QUIT\r\n.\r\nRSET\r\nBDAT 5 LAST\r\n"
        cases = [[b"x"], [b"."], [b"\r\n.\r\n"], [commands], [b"", commands, b""], [content],
                 [content[:1], content[1:2], content[2:70_000], content[70_000:]], [b"\r", b"\n", b".", b"\r", b"\n"]]
        with Smtp(self.proxy.address) as client:
            for chunks in cases:
                client.bdat(SENDER, [RECIPIENT], chunks)
                self.assertSame(b"".join(chunks), without_received(self.server.messages()[-1].content),
                                f"{chunks[0][:20]!r}")
        self.assertEqual(self.server.count(), len(cases))

    def test_several_messages_in_a_session(self):
        with Smtp(self.proxy.address) as client:
            for number in range(50):
                client.sendmail(SENDER, f"r{number}@{DOMAIN}", text_message(number))
                if number % 10 == 5:
                    client.mail(SENDER)
                    client.rcpt(RECIPIENT)
                    self.assertEqual(client.rset()[0], 250)
        for number, message in enumerate(self.server.wait_for_messages(50)):
            self.assertEqual(message.recipients, [f"r{number}@{DOMAIN}"])
            self.assertSame(text_message(number), without_received(message.content), f"message {number}")


class Pipelined(Scenario):
    """Clients that send ahead, though PIPELINING was not offered."""

    def everything_at_once(self, proxy, messages):
        """The whole session as one text, and the codes that it has to get."""
        parts = [b"EHLO client.example\r\n"]
        codes = ["220", "250"]
        for number in range(messages):
            parts.append(f"MAIL FROM:<s{number}@{DOMAIN}>\r\nRCPT TO:<a{number}@{DOMAIN}>\r\n"
                         f"RCPT TO:<b{number}@{DOMAIN}>\r\nNOOP\r\nDATA\r\n".encode("ascii"))
            parts.append(dot_stuffed(text_message(number)))
            codes += ["250"] * 4 + ["354", "250"]
        parts.append(b"VRFY someone\r\nQUIT\r\n")
        return b"".join(parts), codes + ["252", "221"]

    def check_session(self, pieces):
        server = self.sample_server()
        proxy = self.front(server.port)
        sent, codes = self.everything_at_once(proxy, 5)
        client = self.connect(proxy.address)
        step = len(sent) if pieces == 1 else -(-len(sent) // pieces)
        for begin in range(0, len(sent), step):
            client.send(sent[begin:begin + step])
        self.assertEqual([client.read_reply()[:3] for _ in codes], codes)
        self.assertEqual(client.read_to_end(), b"")
        for number, message in enumerate(server.wait_for_messages(5)):
            self.assertEqual(message.recipients, [f"a{number}@{DOMAIN}", f"b{number}@{DOMAIN}"])
            self.assertSame(text_message(number), without_received(message.content), f"message {number}")

    def test_in_one_piece(self):
        self.check_session(1)

    def test_byte_by_byte(self):
        self.check_session(10_000)

    def test_chunks_ahead(self):
        server = self.sample_server()
        proxy = self.front(server.port)
        client = self.connect(proxy.address)
        client.send(b"EHLO client.example\r\nMAIL FROM:<>\r\nRCPT TO:<a@test.example>\r\n"
                    b"BDAT 6\r\nQUIT\r\nBDAT 5 LAST\r\nNOOP.NOOP\r\nQUIT\r\n")
        codes = [client.read_reply()[:3] for _ in range(8)]
        self.assertEqual(codes, ["220", "250", "250", "250", "250", "250", "250", "221"])
        self.assertEqual(client.read_to_end(), b"")
        message, = server.messages()
        self.assertSame(b"QUIT\r\nNOOP.", without_received(message.content), "the message")

    def test_own_replies_stay_in_order(self):
        """Replies of the server and of the proxy come in the order of the commands."""
        server = self.sample_server()
        proxy = self.trabex(server.port, {"SendersBlackList": "bad@*", "RecipientsBlackListLocal": "nobody@*"})
        client = self.connect(proxy.address)
        client.send(b"RCPT TO:<a@test.example>\r\nEHLO client.example\r\nMAIL FROM:<bad@test.example>\r\nDATA\r\n"
                    b"MAIL FROM:<good@test.example>\r\nRCPT TO:<nobody@test.example>\r\nRCPT TO:<a@test.example>\r\n"
                    b"NOOP\r\nDATA\r\nhello\r\n.\r\nQUIT\r\n")
        replies = [client.read_reply() for _ in range(12)]
        self.assertEqual([reply[:3] for reply in replies],
                         ["220", "503", "250", "550", "503", "250", "550", "250", "250", "354", "250", "221"])
        self.assertEqual(replies[3], "550 5.7.1 Mail from bad@test.example not allowed.")
        self.assertEqual(replies[6], "550 5.7.1 Sending mail to nobody@test.example not allowed.")
        self.assertEqual(client.read_to_end(), b"")
        message, = server.messages()
        self.assertEqual(message.recipients, ["a@test.example"])


class Header(Scenario):
    """The line that Trabex puts in front of each message."""

    def test_received(self):
        server = self.sample_server()
        proxy = self.trabex(server.port)
        with Smtp(proxy.address) as client:
            client.ehlo("ehlo.example")
            client.sendmail(SENDER, RECIPIENT, b"x\r\n")
            client.bdat(SENDER, [RECIPIENT], [b"one ", b"two"])
        with Smtp(proxy.address) as client:
            client.helo("helo.example")
            client.sendmail(SENDER, RECIPIENT, b"x\r\n")
        with_ehlo, chunked, with_helo = map(lambda message: received_header(message.content), server.messages())
        for header in (with_ehlo, chunked, with_helo):
            self.assertEqual((header["by"], header["ip"]), ("proxy.example", LOOPBACK))
        self.assertEqual((with_ehlo["helo"], with_ehlo["protocol"]), ("ehlo.example", "ESMTP"))
        self.assertEqual((chunked["helo"], chunked["protocol"]), ("ehlo.example", "ESMTP"))
        self.assertEqual((with_helo["helo"], with_helo["protocol"]), ("helo.example", "SMTP"))

    def test_switched_off(self):
        server = self.sample_server()
        proxy = self.trabex(server.port, {"AddReceived": 0})
        with Smtp(proxy.address) as client:
            client.sendmail(SENDER, RECIPIENT, b"x\r\n")
            client.bdat(SENDER, [RECIPIENT], [b"one ", b"two"])
        self.assertEqual([message.content for message in server.messages()], [b"x\r\n", b"one two"])

    def test_extensions_of_the_reply(self):
        """What the proxy cannot let pass is not offered."""
        content = []
        server = self.scripted_server(polite_server(
            ["PIPELINING", "8BITMIME", "STARTTLS", "XCLIENT NAME ADDR", "XFORWARD NAME", "SIZE 1000", "TURN", "ATRN"],
            content))
        proxy = self.trabex(server.port)
        client = self.connect(proxy.address)
        client.read_reply()
        self.assertEqual(client.command("EHLO client.example"), "250-server.example\n250-8BITMIME\n250 SIZE 1000")
        self.assertEqual(client.command("STARTTLS")[:3], "502")


if __name__ == "__main__":
    main()
