#!/usr/bin/env python3
"""Postfix, Exim and OpenSMTPD are the servers, and mail comes from swaks, curl, msmtp, smtp-source, Python and Exim.

Whatever server it is: a message arrives complete, with Trabex's header once in front, and what Trabex refuses the
server never hears of.
"""

import re
import smtplib
import subprocess

from messages import text_message
from trabex_system import DOMAIN, LOOPBACK, EximClient, Scenario, Smtp, bound, endpoint, in_family, main, without_received

# The clients' address; only LOCAL counts as local, so this is a remote one. smtp-source cannot choose its own.
REMOTE = in_family("127.0.0.2")
LOCAL = in_family("127.0.0.9")
SENDER = f"sender@{DOMAIN}"
ELSEWHERE = "elsewhere.invalid"


class Behind:
    """The cases; the classes below say which server it is."""

    takes_chunks = True
    many = 200

    def start_server(self, size_limit=0):
        raise NotImplementedError

    def start(self):
        self.server = self.start_server()
        self.proxy = self.front(self.server.port, {"LocalIPs": LOCAL, "LocalDomains": DOMAIN})

    def start_trabex(self, settings=None, size_limit=0, **more):
        self.server = self.start_server(size_limit)
        self.proxy = self.trabex(self.server.port, {"LocalIPs": LOCAL, "LocalDomains": DOMAIN, **(settings or {})},
                                 **more)

    def run_client(self, command, text=b""):
        """Runs a mail client to its end; returns its status and what it said."""
        done = subprocess.run([str(part) for part in command], input=text, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=bound(120), check=False)
        return done.returncode, done.stdout.decode(errors="replace")

    def file_of(self, content):
        file = self.place.new_folder("message") / "message"
        file.write_bytes(content)
        return file

    def with_swaks(self, recipient, content, source=REMOTE):
        # It ends the last line by itself.
        file = self.file_of(content.removesuffix(b"\r\n"))
        return self.run_client(["swaks", "--server", endpoint(self.proxy.port), "--local-interface", source,
                                "--helo", "client.example", "--from", SENDER, "--to", recipient,
                                "--data", f"@{file}", "--suppress-data"])

    def with_curl(self, recipient, content, source=REMOTE):
        return self.run_client(["curl", "--silent", "--show-error", "--interface", source, "--mail-from", SENDER,
                                "--mail-rcpt", recipient, "--upload-file", self.file_of(content),
                                f"smtp://{endpoint(self.proxy.port)}/client.example"])

    def with_msmtp(self, recipient, content, source=REMOTE):
        return self.run_client(["msmtp", f"--host={LOOPBACK}", f"--port={self.proxy.port}", f"--source-ip={source}",
                                "--domain=client.example", f"--from={SENDER}", "--auth=off", "--tls=off", recipient],
                               content.replace(b"\r\n", b"\n"))

    def with_python(self, recipient, content, source=REMOTE):
        with Smtp(self.proxy.address, source) as client:
            try:
                client.sendmail(SENDER, [recipient], content)
            except smtplib.SMTPRecipientsRefused as refused:
                return 1, str(refused.recipients)
        return 0, ""

    def arrived(self, count):
        """What the server has delivered: recipient to content."""
        messages = dict(self.server.wait_for_messages(count))
        self.assertEqual((len(messages), self.server.count()), (count, count))
        return messages

    def assertArrived(self, sent):
        """`sent` maps recipients to contents; each has arrived once, with Trabex's header once in front."""
        for recipient, content in self.arrived(len(sent)).items():
            own = without_received(content)
            self.assertSame(sent.pop(recipient).replace(b"\r\n", b"\n"), own, recipient)
        self.assertEqual(sent, {})

    # --- the cases

    def test_what_clients_send_arrives(self):
        self.start()
        sent = {}
        for number, client in enumerate((self.with_swaks, self.with_curl, self.with_msmtp, self.with_python)):
            recipient, content = f"r{number}@{DOMAIN}", text_message(number, 20_000)
            self.assertEqual(client(recipient, content)[0], 0, client.__name__)
            sent[recipient] = content
        self.assertArrived(sent)

    def test_what_smtp_source_sends_arrives(self):
        self.start()
        self.assertEqual(self.run_client(["smtp-source", "-m", self.many, "-s", "10", "-l", "3000", "-N", "-f", SENDER,
                                          "-t", f"r@{DOMAIN}", f"inet:{endpoint(self.proxy.port)}"]), (0, ""))
        messages = self.server.wait_for_messages(self.many)
        self.assertEqual(self.server.count(), self.many)
        bodies = {without_received(content).split(b"\n\n", 1)[1] for _, content in messages}
        self.assertEqual(len(bodies), 1)

    def test_what_exim_sends_arrives(self):
        """With BDAT, in several chunks, where the server offers it."""
        self.start()
        exim = EximClient(self.place, self.proxy.address, REMOTE)
        content = text_message(1, 200_000)
        self.assertEqual(exim.send(SENDER, f"r@{DOMAIN}", content), (0, ""))
        self.assertEqual(exim.waiting(), 0, exim.log())
        (recipient, arrived), = self.server.wait_for_messages(1)
        self.assertEqual(recipient, f"r@{DOMAIN}")
        own_lines = re.compile(rb"Received: from root by client\.example .*\n(?:[ \t].*\n)*")
        self.assertSame(content.replace(b"\r\n", b"\n"), own_lines.sub(b"", without_received(arrived), 1), recipient)
        # The log marks a delivery with BDAT by a K.
        self.assertEqual(" K " in exim.log(), self.takes_chunks)

    def test_chunks(self):
        """However a message is cut into chunks, it is the same message."""
        self.start()
        content = text_message(2, 50_000)
        cuts = [[content], [content, b""], [content[:1], content[1:]], [content[:20_000], content[20_000:]],
                [content[i:i + 1009] for i in range(0, len(content), 1009)]]
        with Smtp(self.proxy.address, REMOTE) as client:
            client.ehlo()
            self.assertEqual("chunking" in client.esmtp_features, self.takes_chunks)
            if not self.takes_chunks:
                return
            for number, chunks in enumerate(cuts):
                client.bdat(SENDER, [f"r{number}@{DOMAIN}"], chunks)
        self.assertArrived({f"r{number}@{DOMAIN}": content for number in range(len(cuts))})

    def test_messages_in_one_session(self):
        """By DATA and by BDAT in turn."""
        self.start()
        sent = {f"r{number}@{DOMAIN}": text_message(number, number * 500) for number in range(8)}
        with Smtp(self.proxy.address, REMOTE) as client:
            client.ehlo()
            for number, (recipient, content) in enumerate(sent.items()):
                if self.takes_chunks and number % 4 > 1:
                    client.bdat(SENDER, [recipient], [content[:300], content[300:]])
                else:
                    client.sendmail(SENDER, [recipient], content)
        self.assertArrived(sent)

    def test_several_recipients(self):
        self.start()
        content = text_message(4, 5000)
        recipients = [f"r{number}@{DOMAIN}" for number in range(20)]
        with Smtp(self.proxy.address, REMOTE) as client:
            client.sendmail(SENDER, recipients, content)
        arrived = self.arrived(20)
        self.assertEqual(sorted(arrived), sorted(recipients))
        for own in arrived.values():
            self.assertSame(content.replace(b"\r\n", b"\n"), without_received(own), "each recipient's")

    def test_relaying(self):
        """From a remote client nothing goes elsewhere; from a local one it does."""
        self.start_trabex()
        content = text_message(5)
        for client in (self.with_swaks, self.with_curl, self.with_msmtp, self.with_python):
            for recipient in (f"r@{ELSEWHERE}", f"r%{ELSEWHERE}@{DOMAIN}"):
                status, said = client(recipient, content)
                self.assertNotEqual(status, 0, client.__name__)
                self.assertIn("550", said, client.__name__)
        exim = EximClient(self.place, self.proxy.address, REMOTE)
        exim.send("", f"r@{ELSEWHERE}", content)
        self.assertIn(f"550 5.7.1 Relaying to {ELSEWHERE} not allowed.", exim.log())
        sent = {}
        for number, client in enumerate((self.with_swaks, self.with_curl, self.with_msmtp, self.with_python)):
            sent[f"local{number}@{ELSEWHERE}"] = content
            status, said = client(f"local{number}@{ELSEWHERE}", content, source=LOCAL)
            self.assertEqual(status, 0, said)
        self.assertArrived(sent)
        self.assertNotIn("r@elsewhere", self.server.log())

    def test_limits(self):
        self.start_trabex({"MaxSize": "10K", "MaxRecipientsRemote": 2, "MaxTransactionsRemote": 2})
        content = text_message(6)
        with Smtp(self.proxy.address, REMOTE) as client:
            client.ehlo()
            self.assertEqual(client.esmtp_features["size"], "10240")
            self.assertEqual(client.mail(SENDER, ["SIZE=10241"]),
                             (552, b"5.3.4 Message size (10241 bytes) exceeds fixed maximium message size "
                                   b"(10240 bytes)."))
            self.assertEqual(client.mail(SENDER, ["SIZE=10240"])[0], 250)
            self.assertEqual([client.rcpt(f"r{number}@{DOMAIN}")[0] for number in range(3)], [250, 250, 452])
            self.assertEqual(client.data(content)[0], 250)
            self.assertEqual(client.mail(SENDER), (452, b"4.5.0 Too many transactions during one session."))
        self.assertArrived({f"r0@{DOMAIN}": content, f"r1@{DOMAIN}": content})

    def test_the_servers_own_size_limit(self):
        """The smaller one counts, and a message that is too large is refused by the server itself."""
        self.start_trabex({"MaxSize": "1M"}, size_limit=50_000)
        with Smtp(self.proxy.address, REMOTE) as client:
            client.ehlo()
            self.assertEqual(client.esmtp_features["size"], "50000")
            self.assertEqual(client.mail(SENDER, ["SIZE=50001"])[0], 552)
            # sendmail() would declare the size, and be refused at once.
            client.mail(SENDER)
            client.rcpt(f"large@{DOMAIN}")
            self.assertIn(client.data(text_message(7, 100_000))[0], (552, 554))
            client.sendmail(SENDER, [f"small@{DOMAIN}"], text_message(8, 30_000))
        self.assertArrived({f"small@{DOMAIN}": text_message(8, 30_000)})

    def test_greylisting(self):
        """Whoever comes back is let in."""
        database = self.place.new_folder("database") / "greylisting.gldb"
        # The clients have no name in DNS, which is reason enough for the greylisting's own black list.
        self.start_trabex(sections={"GreyListing": {"Enabled": 1, "Log": 1, "Delay": 0, "BlackListDelay": 0,
                                                    "BlackListMinCount": 1, "Database": database}})
        content = text_message(9)
        sent = {}
        for number, client in enumerate((self.with_swaks, self.with_curl, self.with_msmtp, self.with_python)):
            recipient = f"r{number}@{DOMAIN}"
            status, said = client(recipient, content)
            self.assertNotEqual(status, 0, client.__name__)
            self.assertIn("451", said, client.__name__)
            status, said = client(recipient, content)
            self.assertEqual(status, 0, said)
            sent[recipient] = content
        self.assertEqual(self.with_python(f"r0@{DOMAIN}", content)[0], 0, "a known one is not delayed")
        exim = EximClient(self.place, self.proxy.address, REMOTE)
        exim.send(SENDER, f"exim@{DOMAIN}", content)
        self.assertEqual(exim.waiting(), 1, exim.log())
        self.assertIn("451 4.7.1 Greylisted. Delivery delayed.", exim.log())
        self.assertEqual(self.server.count(), len(self.server.wait_for_messages(5)))
        exim.retry()
        self.assertEqual(exim.waiting(), 0, exim.log())
        self.assertEqual(sorted(recipient for recipient, _ in self.server.wait_for_messages(6)),
                         sorted([*sent, f"r0@{DOMAIN}", f"exim@{DOMAIN}"]))
        self.proxy.wait_for_log("Greylisting: Blacklisted, New, Delayed.", 5)
        self.proxy.wait_for_log("Greylisting: Blacklisted, Accepted.", 6)


class Postfix(Behind, Scenario):
    def start_server(self, size_limit=0):
        # Mail to elsewhere goes into the mailbox too, and never out.
        return self.postfix({"message_size_limit": size_limit, "default_transport": "virtual"})


class Exim(Behind, Scenario):
    settings = {}

    def start_server(self, size_limit=0):
        return self.exim({"message_size_limit": size_limit, **self.settings})

    def test_the_session_goes_on_behind_a_refused_message(self):
        """Exim looks at the content after the last chunk, and is ready for the next message whatever it says."""
        self.settings = {"acl_smtp_data": "${if match{$message_body}{forbidden}{deny}{accept}}"}
        self.start()
        refused = b"Subject: x\r\n\r\nforbidden\r\n"
        sent = {f"r{number}@{DOMAIN}": text_message(number) for number in range(2)}
        with Smtp(self.proxy.address, REMOTE) as client:
            for recipient, content in sent.items():
                for chunks in ([refused], [refused[:5], refused[5:]], [refused, b""]):
                    with self.assertRaises(smtplib.SMTPResponseException) as raised:
                        client.bdat(f"refused@{DOMAIN}", [f"nobody@{DOMAIN}"], chunks)
                    self.assertEqual(raised.exception.smtp_code, 550)
                self.assertEqual(client.rcpt(recipient)[0], 503)
                client.bdat(SENDER, [recipient], [content])
        self.assertArrived(sent)


class OpenSmtpd(Behind, Scenario):
    takes_chunks = False
    many = 30  # it makes sure of each message on the disk

    def start_server(self, size_limit=0):
        return self.opensmtpd([f"smtp max-message-size {size_limit}"] if size_limit else [])

    def test_refused_chunks_are_no_commands(self):
        self.start_trabex()
        octets = f"RCPT TO:<smuggled@{DOMAIN}>\r\n".encode("ascii") * 3
        content = text_message(3)
        with Smtp(self.proxy.address, REMOTE) as client:
            client.ehlo()
            client.mail(SENDER)
            client.rcpt(f"r@{DOMAIN}")
            client.send(b"BDAT %d LAST\r\n" % len(octets) + octets)
            self.assertEqual(client.getreply(), (503, b"5.5.1 Bad sequence of commands."))
            self.assertEqual(client.data(content)[0], 250)
        self.assertArrived({f"r@{DOMAIN}": content})



if __name__ == "__main__":
    main()
