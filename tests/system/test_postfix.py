#!/usr/bin/env python3
"""A Postfix is the server: real mail reaches a real mailbox."""

import subprocess

from messages import binary_lines, text_message
from trabex_system import (DOMAIN, Scenario, Smtp, bound, connections_not_closed, connections_to, endpoint, main,
                           wait_until, without_received)


class BehindIsPostfix(Scenario):
    def setUp(self):
        super().setUp()
        refused = f"inline:{{{{refused@{DOMAIN} = 550 5.1.1 Nobody here}}}}"
        self.server = self.postfix({"smtpd_recipient_restrictions": f"check_recipient_access {refused}, permit"})
        self.proxy = self.front(self.server.port)

    def as_delivered(self, content):
        """A mailbox has the lines end in LF."""
        return content.replace(b"\r\n", b"\n")

    def test_messages_arrive_as_sent(self):
        sent = {f"text{number}@{DOMAIN}": text_message(number, number * 1000) for number in range(30)}
        # What is no header line must not stand in front, or Postfix sets a blank line before it.
        for size in (1, 1000, 1_000_000, 10_000_000):
            sent[f"binary{size}@{DOMAIN}"] = text_message(size) + binary_lines(size, size)
        with Smtp(self.proxy.address) as client:
            for recipient, content in sent.items():
                client.sendmail(f"s@{DOMAIN}", recipient, content, ["BODY=8BITMIME"])
        for recipient, content in self.server.wait_for_messages(len(sent)):
            self.assertSame(self.as_delivered(sent.pop(recipient)), without_received(content), recipient)
        self.assertEqual(sent, {})

    def test_chunks_arrive_as_sent(self):
        content = text_message(1, 100_000)
        with Smtp(self.proxy.address) as client:
            client.ehlo()
            self.assertIn("chunking", client.esmtp_features)
            client.bdat(f"s@{DOMAIN}", [f"one@{DOMAIN}"], [content])
            client.bdat(f"s@{DOMAIN}", [f"many@{DOMAIN}"], [content[:1], content[1:50_000], content[50_000:], b""])
        arrived = dict(self.server.wait_for_messages(2))
        for recipient in ("one", "many"):
            self.assertSame(self.as_delivered(content), without_received(arrived[f"{recipient}@{DOMAIN}"]), recipient)

    def test_two_thousand_messages(self):
        done = subprocess.run(
            ["smtp-source", "-m", "2000", "-s", "20", "-l", "2048", "-f", f"s@{DOMAIN}", "-t", f"r@{DOMAIN}",
             f"inet:{endpoint(self.proxy.port)}"],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=bound(180), check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        messages = self.server.wait_for_messages(2000)
        self.assertEqual(len({without_received(content) for _, content in messages}), 2000)

    def test_refusals_of_the_server_come_through(self):
        with Smtp(self.proxy.address) as client:
            client.ehlo()
            client.mail(f"s@{DOMAIN}")
            self.assertEqual(client.rcpt(f"refused@{DOMAIN}"),
                             (550, f"5.1.1 <refused@{DOMAIN}>: Recipient address rejected: Nobody here".encode()))
            self.assertEqual(client.rcpt(f"taken@{DOMAIN}")[0], 250)
            self.assertEqual(client.docmd("WHAT")[0], 500)
            self.assertEqual(client.docmd("VRFY", f"someone@{DOMAIN}")[0], 252)
            client.data(text_message(1))
        (recipient, _), = self.server.wait_for_messages(1)
        self.assertEqual(recipient, f"taken@{DOMAIN}")


class HangsUp(Scenario):
    """A Postfix that has no patience with idle clients, as every server has some time."""

    CLIENTS = 20

    def held_client(self, proxy):
        """A client that sends commands, and reads nothing after the greeting."""
        client = self.connect(proxy.address, receive_buffer=4096)
        client.read_reply()
        return client

    def fill(self, clients):
        """Until nothing goes any more, neither from the clients nor to them."""
        line = b"RCPT TO:<" + b"x" * 1000 + b">\r\n"
        quiet = 0
        for client in clients:
            client.socket.setblocking(False)
        sent = dict.fromkeys(clients, 0)

        def send_on(client):
            try:
                while True:
                    sent[client] += client.socket.send(line[sent[client] % len(line):])
            except BlockingIOError:
                return sent[client]

        def all_held():
            nonlocal quiet
            before = sum(sent.values())
            after = sum(send_on(client) for client in clients)
            quiet = quiet + 1 if before == after else 0
            return quiet > 20

        wait_until(all_held, "the clients to be held")

    def test_deaf_clients_keep_no_connection(self):
        server = self.postfix({"smtpd_timeout": f"{bound(5):.0f}s"})
        proxy = self.trabex(server.port, {"MaxBadSeq": 2147483646, "LogLevelRemote": 9, "LogLevelServer": 9},
                            sections={"ResponseChanges": {"BadSeq": f"<503 {'x' * 2000}>"}})
        clients = [self.held_client(proxy) for _ in range(self.CLIENTS)]
        self.fill(clients)
        self.assertEqual(connections_not_closed(server.port), (self.CLIENTS, 0))
        # Postfix tells each of them that its time is up, and closes.
        wait_until(lambda: connections_to(server.port) == 0, "Postfix to hang up")
        wait_until(lambda: connections_not_closed(server.port) == (0, 0), "its connections to be closed")
        # Whoever reads at last gets everything that was said, the last words too.
        clients[0].socket.settimeout(bound(30))
        said = clients[0].read_to_end().decode("ascii").split("\r\n")
        self.assertEqual(set(said[:-2]), {f"503 {'x' * 2000}"})
        self.assertRegex(said[-2], r"^421 4\.4\.2 server\.example Error: timeout exceeded$")
        self.assertEqual(said[-1], "")
        self.assertGreater(len(said), 100)


if __name__ == "__main__":
    main()
