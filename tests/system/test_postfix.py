#!/usr/bin/env python3
"""A Postfix stands behind: real mail reaches a real mailbox."""

import subprocess

from messages import binary_lines, text_message
from trabex_system import DOMAIN, LOOPBACK, Smtp, Story, bound, main, without_received


class BehindIsPostfix(Story):
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
             f"inet:{LOOPBACK}:{self.proxy.port}"],
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


if __name__ == "__main__":
    main()
