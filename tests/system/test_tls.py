#!/usr/bin/env python3
"""TLS between clients and Trabex: STARTTLS and the TLS port, with real clients and real sending servers."""

import re
import select
import signal
import smtplib
import ssl
import subprocess
from pathlib import Path

from messages import text_message
from trabex_system import (DOMAIN, IPV6, LOOPBACK, Authority, EximClient, OpenSmtpdClient, Postfix, Scenario, bound, bracketed,
                           endpoint, free_port, in_family, main, polite_server, received_header, trusting, wait_until)

NAME = "mx.test.example"
REMOTE = in_family("127.0.0.2")
SENDER = f"sender@{DOMAIN}"
RECIPIENT = f"r@{DOMAIN}"
V12, V13 = ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3


class TlsScenario(Scenario):
    """Trabex with a certificate of an authority that the clients trust, in front of the sample mail server."""

    def setUp(self):
        super().setUp()
        self.authority = Authority(self.place)

    def issue(self, *names, **more):
        return self.authority.issue([*(names or (NAME, "localhost", "ip6-localhost", LOOPBACK))], **more)

    def start(self, settings=None, sections=None, **tls):
        """`tls` are settings of section TLS; without a Certificate it gets one."""
        if "Certificate" not in tls:
            certificate = self.issue()
            tls["Certificate"] = f"{certificate.chain} {certificate.key}"
        self.server = self.sample_server()
        self.tls_port = free_port()
        self.proxy = self.trabex(self.server.port, {"BindPortTLS": self.tls_port, **(settings or {})},
                                 sections={"TLS": tls, **(sections or {})})
        return self.proxy

    def trust(self, **versions):
        return trusting(self.authority.file, **versions)

    def smtp(self, context=None, name=NAME, starttls=True):
        """A client under TLS that has said EHLO."""
        client = smtplib.SMTP(*self.proxy.address, local_hostname="client.example", timeout=bound(30))
        self.addCleanup(client.close)
        client._host = name
        if starttls:
            client.starttls(context=context or self.trust())
        client.ehlo()
        return client

    def run_client(self, command, text=b""):
        done = subprocess.run([str(part) for part in command], input=text, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=bound(120), check=False)
        return done.returncode, done.stdout.decode(errors="replace")


class Clients(TlsScenario):
    """Every one of them sends a message over STARTTLS and another over the TLS port, and has checked the certificate."""

    def with_swaks(self, content, tls_port):
        file = self.place.new_folder("message") / "message"
        file.write_bytes(content.removesuffix(b"\r\n"))
        port, tls = (self.tls_port, "--tls-on-connect") if tls_port else (self.proxy.port, "--tls")
        return self.run_client(["swaks", "--server", endpoint(port), tls, "--tls-verify", "--tls-ca-path",
                                self.authority.file, "--helo", "client.example", "--from", SENDER, "--to", RECIPIENT,
                                "--data", f"@{file}", "--suppress-data"])

    def with_curl(self, content, tls_port):
        file = self.place.new_folder("message") / "message"
        file.write_bytes(content)
        where = f"smtps://{NAME}:{self.tls_port}" if tls_port else f"smtp://{NAME}:{self.proxy.port}"
        return self.run_client(["curl", "--silent", "--show-error", "--ssl-reqd", "--cacert", self.authority.file,
                                "--resolve", f"{NAME}:{self.tls_port}:{bracketed()}",
                                "--resolve", f"{NAME}:{self.proxy.port}:{bracketed()}",
                                "--mail-from", SENDER, "--mail-rcpt", RECIPIENT, "--upload-file", file,
                                f"{where}/client.example"])

    def with_msmtp(self, content, tls_port):
        port, starttls = (self.tls_port, "off") if tls_port else (self.proxy.port, "on")
        return self.run_client(["msmtp", f"--host={LOOPBACK}", f"--port={port}", "--domain=client.example",
                                f"--from={SENDER}", "--auth=off", "--tls=on", f"--tls-starttls={starttls}",
                                f"--tls-trust-file={self.authority.file}", RECIPIENT], content.replace(b"\r\n", b"\n"))

    def with_python(self, content, tls_port):
        if tls_port:
            with smtplib.SMTP_SSL("localhost", self.tls_port, "client.example", context=self.trust()) as client:
                client.sendmail(SENDER, [RECIPIENT], content)
        else:
            self.smtp().sendmail(SENDER, [RECIPIENT], content)
        return 0, ""

    def test_their_mail_arrives_byte_for_byte(self):
        self.start()
        clients = (self.with_swaks, self.with_curl, self.with_msmtp, self.with_python)
        for number, client in enumerate(clients):
            for tls_port in (False, True):
                content = text_message(number, 100_000)
                status, said = client(content, tls_port)
                self.assertEqual(status, 0, f"{client.__name__}, {tls_port}: {said}")
                stored = self.server.wait_for_messages(2 * number + tls_port + 1)[-1].content
                header = received_header(stored)
                self.assertEqual(header["protocol"], "ESMTPS", client.__name__)
                self.assertRegex(header["cipher"], r"\ATLS_[A-Z0-9_]+\Z")
                self.assertTrue(stored.endswith(content), client.__name__)
        self.assertEqual(sum(" TLS: TLSv1.3, TLS_" in line for line in self.proxy.log_lines()), 2 * len(clients))

    def test_versions_and_kinds_of_keys(self):
        keys = [self.issue(kind=kind) for kind in ("ec", "rsa")]
        self.start(Certificate=", ".join(f"{key.chain} {key.key}" for key in keys))
        for version, ciphers, wanted in ((V12, "ECDHE-ECDSA-AES128-GCM-SHA256", "TLS_ECDHE_ECDSA_WITH_AES_128_GCM_SHA256"),
                                         (V12, "ECDHE-RSA-AES256-GCM-SHA384", "TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384"),
                                         (V13, "DEFAULT", "TLS_AES_256_GCM_SHA384")):
            context = self.trust(minimum_version=version, maximum_version=version)
            context.set_ciphers(ciphers)
            client = self.smtp(context)
            client.sendmail(SENDER, [RECIPIENT], text_message(1))
            self.assertEqual(received_header(self.server.wait_for_messages(1)[-1].content)["cipher"], wanted)
            client.quit()

    def test_old_versions_are_refused(self):
        self.start()
        context = self.trust(minimum_version=ssl.TLSVersion.TLSv1, maximum_version=ssl.TLSVersion.TLSv1_1)
        context.set_ciphers("ALL:@SECLEVEL=0")
        with self.assertRaises(ssl.SSLError):
            self.smtp(context)
        self.proxy.wait_for_log("Error 40030. TLS failed: ")
        with_more = self.start(MinVersion="1.3")
        with self.assertRaises(ssl.SSLError):
            self.smtp(self.trust(maximum_version=V12))
        with_more.wait_for_log("Error 40030. TLS failed: ")
        self.assertEqual(self.smtp(self.trust()).sock.version(), "TLSv1.3")

    def test_openssl(self):
        """Its client shows the chain whole, and resumes a session."""
        self.start()
        session = self.place.new_folder("openssl") / "session"
        for tls_port in (False, True):
            where = (["-connect", endpoint(self.tls_port)] if tls_port
                     else ["-connect", endpoint(self.proxy.port), "-starttls", "smtp"])
            for version in ("-tls1_2", "-tls1_3"):
                first = self.openssl([*where, version, "-sess_out", session])
                self.assertIn("Verify return code: 0 (ok)", first)
                self.assertIn("New, TLSv1", first)
                # The leaf and the one that has signed it.
                self.assertEqual(len(re.findall(r"^ \d s:", first, re.MULTILINE)), 2, first)
                again = self.openssl([*where, version, "-sess_in", session])
                self.assertIn("Reused, TLSv1", again)
        self.proxy.wait_for_log(", resumed", 4)

    def openssl(self, options):
        """What s_client says; it ends after QUIT."""
        status, said = self.run_client(["openssl", "s_client", "-CAfile", self.authority.file, "-servername", NAME,
                                        "-verify_hostname", NAME, "-verify_return_error", "-crlf", "-showcerts",
                                        "-ign_eof", *options], b"EHLO client.example\nQUIT\n")
        self.assertEqual(status, 0, said)
        self.assertIn("221 ", said)
        return said

    def test_gnutls(self):
        self.start()
        for options in (["--starttls-proto=smtp", "-p", self.proxy.port], ["-p", self.tls_port]):
            status, said = self.run_client(["gnutls-cli", *options, f"--x509cafile={self.authority.file}",
                                            f"--verify-hostname={NAME}", f"--sni-hostname={NAME}", "--crlf", LOOPBACK],
                                           b"EHLO client.example\nQUIT\n")
            self.assertEqual(status, 0, said)
            self.assertIn("The certificate is trusted", said)

    def test_postfixs_finger(self):
        self.start()
        folder = self.place.new_folder("finger")
        (folder / "main.cf").write_text("compatibility_level = 3.6\nmaillog_file =\n")
        status, said = self.run_client(["env", f"MAIL_CONFIG={folder}", "posttls-finger", "-c", "-l", "secure", "-F", self.authority.file,
                                        f"[{LOOPBACK}]:{self.proxy.port}", NAME])
        self.assertEqual(status, 0, said)
        self.assertIn("Verified TLS connection established", said)


class RealServers(TlsScenario):
    """What comes by STARTTLS arrives at each of them. OpenSMTPD refuses the EHLO that has to follow."""

    def test_behind_starttls(self):
        certificate = self.issue()
        for server in (self.postfix(), self.exim(), self.opensmtpd()):
            self.proxy = self.trabex(server.port, sections={"TLS": {"Certificate": f"{certificate.chain} {certificate.key}"}})
            content = text_message(1, 20_000)
            client = self.smtp()
            client.sendmail(SENDER, [RECIPIENT], content)
            client.quit()
            (recipient, arrived), = server.wait_for_messages(1)
            self.assertEqual(recipient, RECIPIENT)
            self.assertTrue(arrived.endswith(content.replace(b"\r\n", b"\n")), type(server).__name__)


class Senders(TlsScenario):
    """Servers that deliver to Trabex and insist on TLS with a certificate that they can check."""

    def arrived(self, content, own_lines):
        stored = self.server.wait_for_messages(1)[0].content
        header = received_header(stored)
        self.assertEqual((header["protocol"], header["ip"]), ("ESMTPS", REMOTE))
        self.assertIn(own_lines, stored)
        self.assertTrue(stored.endswith(content.split(b"\r\n\r\n", 1)[1]))

    def test_postfix(self):
        self.start()
        content = text_message(1, 50_000)
        sender = Postfix(self.place, {
            "myhostname": "client.example", "virtual_mailbox_domains": "", "smtp_bind_address6" if IPV6 else "smtp_bind_address": REMOTE,
            "relayhost": f"[{LOOPBACK}]:{self.proxy.port}", "smtp_tls_security_level": "secure",
            "smtp_tls_CAfile": self.authority.file, "smtp_tls_secure_cert_match": NAME, "smtp_tls_loglevel": 1})
        with smtplib.SMTP(*sender.address, timeout=bound(30)) as client:
            client.sendmail(SENDER, [RECIPIENT], content)
        self.arrived(content, b"by client.example (Postfix)")
        self.assertIn("Verified TLS connection established", sender.log())

    def test_exim(self):
        """Its library is GnuTLS."""
        self.start()
        content = text_message(2, 50_000)
        sender = EximClient(self.place, self.proxy.address, REMOTE, files=[self.authority.file], tls={
            "hosts_require_tls": "*", "tls_verify_certificates": "/etc/files/ca.pem", "tls_verify_hosts": "*",
            "tls_verify_cert_hostnames": "", "tls_sni": NAME})
        self.assertEqual(sender.send(SENDER, RECIPIENT, content), (0, ""))
        self.assertEqual(sender.waiting(), 0, sender.log())
        self.arrived(content, b"by client.example with local (Exim")
        self.assertIn("CV=yes", sender.log())

    def test_opensmtpd(self):
        self.start()
        content = text_message(3, 50_000)
        # It takes [::1] for a name and finds no such one in the certificate.
        host = "ip6-localhost" if IPV6 else LOOPBACK
        sender = OpenSmtpdClient(self.place, f"smtp+tls://{host}:{self.proxy.port}", REMOTE,
                                 authority=self.authority.file)
        with smtplib.SMTP(*sender.address, timeout=bound(30)) as client:
            client.sendmail(SENDER, [RECIPIENT], content)
        self.arrived(content, b"by client.example (OpenSMTPD)")
        self.assertIn('server-cert-check result="success"', sender.log())


class Names(TlsScenario):
    """Which certificate a client gets."""

    def setUp(self):
        super().setUp()
        self.certificates = [self.issue("first.example"), self.issue("second.example", "*.wild.example"),
                             self.issue("sub.wild.example", kind="rsa")]
        self.start(Certificate=[f"{each.chain} {each.key}" for each in self.certificates])

    def name_shown_to(self, name):
        context = self.trust()
        context.check_hostname = False
        context.verify_mode = ssl.CERT_REQUIRED
        client = self.smtp(context, name)
        subject = dict(part for parts in client.sock.getpeercert()["subject"] for part in parts)["commonName"]
        client.quit()
        return subject

    def test_by_the_name_asked_for(self):
        for name, shown in (("first.example", "first.example"), ("SECOND.example", "second.example"),
                            ("any.wild.example", "second.example"), ("sub.wild.example", "sub.wild.example"),
                            ("a.b.wild.example", "first.example"), ("wild.example", "first.example"),
                            ("unknown.example", "first.example"), (None, "first.example")):
            self.assertEqual(self.name_shown_to(name), shown, name)


class ClientCertificates(TlsScenario):
    def client_context(self, certificate):
        context = self.trust()
        if certificate:
            context.load_cert_chain(certificate.chain, certificate.key)
        return context

    def try_with(self, certificate):
        """Whether a client gets so far as the reply to EHLO."""
        try:
            return self.smtp(self.client_context(certificate)).noop()[0] == 250
        except (ssl.SSLError, smtplib.SMTPServerDisconnected, ConnectionError):
            return False

    def test_none_is_needed(self):
        """Nothing depends on it, but the log tells."""
        self.start(ClientCertificates=1, ClientCA=str(self.authority.file))
        stranger = Authority(self.place, "stranger").issue(["nobody"], client=True)
        own = self.issue("good client", client=True)
        for certificate, words in ((None, None), (own, 'client certificate "good client" verified'),
                                   (stranger, 'client certificate "nobody" not verified: ')):
            self.assertTrue(self.try_with(certificate), words)
            if words:
                self.proxy.wait_for_log(words)

    def test_one_is_needed(self):
        self.start(ClientCertificates=2, ClientCA=str(self.authority.file))
        stranger = Authority(self.place, "stranger").issue(["nobody"], client=True)
        self.assertTrue(self.try_with(self.issue("good client", client=True)))
        for certificate in (None, stranger, self.issue("late client", client=True, expired=True)):
            self.assertFalse(self.try_with(certificate))
        self.proxy.wait_for_log("Error 40030. TLS failed: ", 3)


class Policies(TlsScenario):
    def test_required(self):
        self.start(Require=3)
        client = self.connect(self.proxy.address)
        self.assertEqual(client.read_line()[:4], "220 ")
        self.assertIn("\n250 STARTTLS" if client.command("EHLO c.example").endswith("STARTTLS") else "250-STARTTLS",
                      client.command("EHLO c.example"))
        for command in (f"MAIL FROM:<{SENDER}>", "RSET", "VRFY x", "AUTH PLAIN", "HELO c.example", "EXPN list"):
            self.assertEqual(client.command(command), "530 5.7.0 Must issue a STARTTLS command first.", command)
        self.assertEqual(client.command("NOOP")[:3], "250")
        self.assertEqual(client.command("STARTTLS"), "220 2.0.0 Ready to start TLS.")
        client.start_tls(self.trust(), NAME)
        self.assertNotIn("STARTTLS", client.command("EHLO c.example"))
        self.assertEqual(client.command(f"MAIL FROM:<{SENDER}>")[:3], "250")

    def test_authentication(self):
        """It is neither offered nor taken in the clear, and that holds when no certificate could be loaded too."""
        server = self.scripted_server_with_auth()
        certificate = self.issue()
        for file in (f"{certificate.chain} {certificate.key}", str(self.place.folder / "missing.pem")):
            proxy = self.trabex(server.port, sections={"TLS": {"Certificate": file}})
            client = self.connect(proxy.address)
            client.read_line()
            offered = client.command("EHLO c.example")
            self.assertNotIn("AUTH", offered)
            self.assertEqual(client.command("AUTH PLAIN AGEAYg=="),
                             "538 5.7.11 Encryption required for requested authentication mechanism.")
            if "STARTTLS" not in offered:
                self.assertIn("Unable to load certificate", proxy.process.stderr() + proxy.log())
                self.assertEqual(client.command("STARTTLS")[:3], "502")
                continue
            client.command("STARTTLS")
            client.start_tls(self.trust(), NAME)
            self.assertIn("AUTH PLAIN", client.command("EHLO c.example"))
            self.assertEqual(client.command("AUTH PLAIN AGEAYg==")[:3], "235")
            client.command(f"MAIL FROM:<{SENDER}>")
            client.command(f"RCPT TO:<{RECIPIENT}>")
            client.command("DATA")
            self.assertEqual(client.command("Subject: x\r\n\r\nx\r\n.")[:3], "250")
            self.assertEqual(received_header(self.content[-1])["protocol"], "ESMTPSA")

    def scripted_server_with_auth(self):
        self.content = []
        return self.scripted_server(polite_server(["AUTH PLAIN LOGIN", "AUTH=PLAIN LOGIN"], self.content,
                                                  {"AUTH": "235 2.7.0 welcome"}))

    def test_no_certificate_could_be_loaded(self):
        """The TLS port closes connections; nothing else changes."""
        self.start(Certificate=str(self.place.folder / "missing.pem"))
        client = self.connect((LOOPBACK, self.tls_port))
        self.assertEqual(client.read_to_end(), b"")
        self.proxy.wait_for_log("No certificate. Closing connection.")
        plain = self.connect(self.proxy.address)
        self.assertEqual(plain.read_line()[:4], "220 ")
        self.assertNotIn("STARTTLS", plain.command("EHLO c.example"))


class Injection(TlsScenario):
    """What came before the handshake, or comes behind the end of TLS, is never read as a command."""

    def setUp(self):
        super().setUp()
        self.start()

    def greeted(self):
        client = self.connect(self.proxy.address)
        client.read_line()
        client.command("EHLO c.example")
        return client

    def test_commands_behind_starttls(self):
        client = self.greeted()
        client.send(b"STARTTLS\r\nMAIL FROM:<evil@test.example>\r\n")
        self.assertEqual(client.read_to_end(), b"554 5.5.0 Data behind STARTTLS.\r\n")

    def test_commands_that_come_a_little_later(self):
        client = self.greeted()
        self.assertEqual(client.command("STARTTLS")[:4], "220 ")
        client.send(b"MAIL FROM:<evil@test.example>\r\nRCPT TO:<r@test.example>\r\n")
        # The alert of a handshake that is none, or nothing.
        self.assertNotIn(b"250", client.read_to_end())
        self.proxy.wait_for_log("Error 40030. TLS failed: ")

    def test_what_was_said_before_counts_no_more(self):
        client = self.greeted()
        client.command("STARTTLS")
        client.start_tls(self.trust(), NAME)
        self.assertEqual(client.command(f"MAIL FROM:<{SENDER}>")[:3], "503")
        client.command("EHLO c.example")
        self.assertEqual(client.command(f"MAIL FROM:<{SENDER}>")[:3], "250")

    def test_plain_text_behind_the_end_of_tls(self):
        """Neither as commands nor as content."""
        client = self.greeted()
        client.command("STARTTLS")
        raw = client.socket.dup()
        self.addCleanup(raw.close)
        client.start_tls(self.trust(), NAME)
        client.command("EHLO c.example")
        client.command(f"MAIL FROM:<{SENDER}>")
        client.command(f"RCPT TO:<{RECIPIENT}>")
        # A chunk whose octets come in the clear.
        client.send(b"BDAT 21 LAST\r\n")
        try:
            client.socket.settimeout(bound(30))
            client.socket.unwrap()
        except (ssl.SSLError, OSError):
            pass
        try:
            raw.sendall(b"Subject: evil\r\n\r\nxx\r\n" + b"NOOP\r\n")
        except OSError:
            pass
        wait_until(lambda: any("Disconnected." in line for line in self.proxy.log_lines()), "the end of the session")
        self.assertEqual(self.server.count(), 0)


class SavedRecords(TlsScenario):
    """The process that saves the greylisting records is a copy of everything, sessions under TLS too; it touches none."""

    def test_sessions_go_on(self):
        database = self.place.folder / "grey.gldb"
        self.start({"LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN}, {"GreyListing": {"Enabled": 1, "Database": database}})
        sessions = []
        for port in (self.proxy.port, self.tls_port):
            session = self.connect((LOOPBACK, port))
            if port == self.proxy.port:
                session.read_reply()
                session.command("EHLO c.example")
                session.command("STARTTLS")
            session.start_tls(self.trust(), NAME)
            if port == self.tls_port:
                session.read_reply()
            session.command("EHLO c.example")
            session.command(f"MAIL FROM:<{SENDER}>")
            sessions.append(session)
        children = Path(f"/proc/{self.proxy.process.pid}/task/{self.proxy.process.pid}/children")
        for number in range(1, 6):
            for session in sessions:
                self.assertEqual(session.command(f"RCPT TO:<r{number}@{DOMAIN}>")[:3], "451")
            # The reload saves in the background.
            self.proxy.process.send_signal(signal.SIGHUP)
            self.proxy.wait_for_log("Configuration reloaded", number)
            wait_until(lambda: f" r{number}@".encode() in database.read_bytes() if database.exists() else False, "the save")
            wait_until(lambda: not children.read_text(), "the end of the process that saves")
            # It has said no end, and nothing else: what it had said would have come before this.
            for session in sessions:
                self.assertEqual(select.select([session.socket], [], [], 0)[0], [])
                self.assertEqual(session.command(f"NOOP {number}")[:3], "250")
        for session in sessions:
            self.assertEqual(session.command("QUIT")[:3], "221")
            self.assertEqual(session.read_to_end(), b"")


if __name__ == "__main__":
    main()
