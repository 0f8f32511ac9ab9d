#!/usr/bin/env python3
"""The automatic reload for real: half a minute after the initialization file was saved, and with mail under way."""

from trabex_system import DOMAIN, Story, main, without_received

RELOADED = "Configuration reloaded because date/time of initialization file changed."
# The delay, two polls, and what a busy machine adds.
SECONDS = 60


class Reload(Story):
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


if __name__ == "__main__":
    main()
