#!/usr/bin/env python3
"""docs/tls-ipv6-addresses.md works: its blocks are run, with the real programs and a mail sent through."""

import re
import shlex
import smtplib
import ssl
import subprocess

from transport_page import (ELSEWHERE, LOCAL, LOCAL6, NAME, REMOTE, SENDER, PageScenario, covered_by, read_blocks,
                            read_options, runs)
from trabex_system import LOOPBACK, Process, Scenario, bound, free_port, main, trusting, wait_until


class Clients(PageScenario):
    """Between the clients and Trabex."""

    @runs("The plain set-up: Trabex.ini")
    def test_plain(self):
        self.start(self.sample_server(), "The plain set-up: Trabex.ini")
        client = self.smtp()
        self.assertFalse(client.has_extn("starttls"))
        self.send(client)
        self.assertEqual(self.header_of_last(1)["protocol"], "ESMTP")
        self.assertEqual([self.relaying(source) for source in (REMOTE, LOCAL)], [550, 250])

    @runs("The plain set-up: Trabex.ini", "A certificate: openssl", "A certificate: Trabex.ini")
    def test_certificate(self):
        command = shlex.split(self.block("A certificate: openssl").replace("\\\n", ""))
        done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=bound(30), check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.start(self.sample_server(), "The plain set-up: Trabex.ini", "A certificate: Trabex.ini")
        self.proxy.wait_for_log(f'Certificate "{self.files}/mx.pem": {NAME}; valid until ')
        self.send(self.smtp(context=trusting(self.files / "mx.pem")))
        self.assertEqual(self.header_of_last(1)["protocol"], "ESMTPS")
        shown = subprocess.run(["openssl", "x509", "-in", self.files / "mx.pem", "-noout", "-text"], text=True,
                               capture_output=True, timeout=bound(30), check=True).stdout
        self.assertIn("NIST CURVE: P-256", shown)

    @runs("The plain set-up: Trabex.ini", "A certificate: Trabex.ini 2")
    def test_several_certificates(self):
        self.issue("mx", NAME)
        self.issue("mx-rsa", NAME, kind="rsa")
        mail = self.issue("mail", "mail.example.org")
        (self.files / "mail.pem").write_bytes(mail.both.read_bytes())
        self.start(self.sample_server(), "The plain set-up: Trabex.ini", "A certificate: Trabex.ini 2")
        for name, shown, key in ((NAME, NAME, "ECDSA"), (NAME, NAME, "RSA"), ("unknown.example", NAME, "ECDSA"),
                                 ("mail.example.org", "mail.example.org", "ECDSA")):
            context = trusting(self.authority.file, maximum_version=ssl.TLSVersion.TLSv1_2)
            context.check_hostname = False
            context.set_ciphers(f"ECDHE-{key}-AES128-GCM-SHA256")
            client = self.smtp()
            client._host = name
            client.starttls(context=context)
            subject = dict(part for parts in client.sock.getpeercert()["subject"] for part in parts)
            self.assertEqual(subject["commonName"], shown, name)
            client.quit()

    @runs("The plain set-up: Trabex.ini", "A certificate: Trabex.ini", "A port for TLS alone: Trabex.ini")
    def test_tls_port(self):
        self.issue("mx", NAME)
        self.start(self.sample_server(), "The plain set-up: Trabex.ini", "A certificate: Trabex.ini",
                   "A port for TLS alone: Trabex.ini")
        self.send(self.smtps())
        self.assertEqual(self.header_of_last(1)["protocol"], "ESMTPS")

    @runs("The plain set-up: Trabex.ini", "A certificate: Trabex.ini", "Who has to use it: Trabex.ini")
    def test_who_has_to_use_tls(self):
        self.issue("mx", NAME)
        self.start(self.sample_server(), "The plain set-up: Trabex.ini", "A certificate: Trabex.ini",
                   "Who has to use it: Trabex.ini")
        required = (530, b"5.7.0 Must issue a STARTTLS command first.")
        self.assertEqual(self.smtp(LOCAL).mail(SENDER), required)
        self.assertEqual(self.smtp(REMOTE).docmd("AUTH", "PLAIN AGEAYg=="),
                         (538, b"5.7.11 Encryption required for requested authentication mechanism."))
        self.send(self.smtp(REMOTE))
        self.send(self.smtp(LOCAL, context=self.trust()), ELSEWHERE)
        self.server.wait_for_messages(2)

    @runs("The plain set-up: Trabex.ini", "A certificate: Trabex.ini", "Certificates of clients: Trabex.ini")
    def test_certificates_of_clients(self):
        self.issue("mx", NAME)
        (self.files / "clients.pem").write_bytes(self.authority.file.read_bytes())
        self.start(self.sample_server(), "The plain set-up: Trabex.ini", "A certificate: Trabex.ini",
                   "Certificates of clients: Trabex.ini")
        known = self.authority.issue(["known.example.net"], client=True)
        context = self.trust()
        context.load_cert_chain(known.chain, known.key)
        self.send(self.smtp(context=context))
        self.proxy.wait_for_log('client certificate "known.example.net" verified.')
        with self.assertRaises((ssl.SSLError, smtplib.SMTPException, ConnectionError)):
            self.smtp(context=self.trust())
        self.proxy.wait_for_log("Error 40030. TLS failed: ")
        self.assertEqual(self.smtp().mail(SENDER)[0], 530)
        self.assertEqual(len(self.server.wait_for_messages(1)), 1)

    @runs("The plain set-up: Trabex.ini", "IPv6: Trabex.ini")
    def test_ipv6(self):
        self.start(self.sample_server(), "The plain set-up: Trabex.ini", "IPv6: Trabex.ini")
        for count, source in enumerate((REMOTE, LOCAL6), 1):
            self.send(self.smtp(source))
            self.assertEqual(self.header_of_last(count)["ip"], source)
        self.assertEqual([self.relaying(source) for source in (REMOTE, LOCAL, LOCAL6)], [550, 250, 250])


class BehindTheBalancer(PageScenario):
    """HAProxy in front."""

    def start_balancer(self):
        """Returns its ports: the one without and the one with TLS."""
        plain, tls = free_port(), free_port()
        text = self.block("A balancer in front: haproxy.cfg", **{
            "192.0.2.10:25,[2001:db8::10]:25\n": f"{LOOPBACK}:{plain},[::1]:{plain}\n",
            "192.0.2.10:465,[2001:db8::10]:465\n": f"{LOOPBACK}:{tls},[::1]:{tls}\n",
            "192.0.2.25:25 ": f"{LOOPBACK}:{self.proxy.port} ", "192.0.2.25:465 ": f"{LOOPBACK}:{self.tls_port} "})
        file = self.place.new_folder("balancer") / "haproxy.cfg"
        file.write_text("global\n    nbthread 1\n" + text)
        process = Process(self.place, "haproxy", ["haproxy", "-db", "-f", file])
        self.place.on_leaving(process.end)
        process.wait_listening(plain)
        return plain, tls


class Balancer(BehindTheBalancer):
    @runs("The plain set-up: Trabex.ini", "A certificate: Trabex.ini", "A port for TLS alone: Trabex.ini",
          "A balancer in front: Trabex.ini", "A balancer in front: haproxy.cfg")
    def test_balancer(self):
        self.issue("mx", NAME)
        self.start(self.sample_server(), "The plain set-up: Trabex.ini", "A certificate: Trabex.ini",
                   "A port for TLS alone: Trabex.ini", "A balancer in front: Trabex.ini")
        plain, tls = self.start_balancer()
        count = 0
        for source in (REMOTE, LOCAL6):
            for client in (self.smtp(source, plain), self.smtp(source, plain, context=self.trust()),
                           self.smtps(source, tls)):
                self.send(client)
                count += 1
                header = self.header_of_last(count)
                self.assertEqual(header["ip"], source)
                self.assertEqual(header["protocol"], "ESMTP" if count % 3 == 1 else "ESMTPS")
        # Its own checks.
        self.proxy.wait_for_log("PROXY header: local.", 2)


class Servers(PageScenario):
    """The servers behind: who the client is, and TLS."""

    def check_addresses(self, logged):
        """Mail arrives, the server's log has each client, and the server relays for its own clients only.

        `logged` makes of an address what the log holds.
        """
        for count, source in enumerate((REMOTE, LOCAL6), 1):
            self.send(self.smtp(source))
            self.server.wait_for_messages(count)
            wait_until(lambda: logged(source) in self.server.log(), f"{logged(source)} in the server's log")
        self.assertEqual([self.relaying(source) for source in (LOCAL, LOCAL6)], [250, 250])
        # Where Trabex would let everybody relay, the server does not.
        settings = {key: value for key, value in self.proxy.settings.items() if key != "BindPort"}
        self.proxy = self.trabex(self.server.port, {**settings, "LocalIPs": "127.0.0.0/8"})
        self.assertEqual([self.relaying(source) for source in (LOCAL, REMOTE)], [250, self.refused])

    def start_postfix(self, main_cf, **more):
        # Nothing leaves the machine.
        self.refused = 454
        return self.postfix({"virtual_mailbox_domains": "example.org", "default_transport": "virtual",
                             **read_options(main_cf)}, **more)

    @runs("The plain set-up: Trabex.ini", "IPv6: Trabex.ini", "Postfix: Trabex.ini", "Postfix: master.cf",
          "Postfix: main.cf")
    def test_postfix(self):
        service, *options = self.block("Postfix: master.cf").splitlines()
        self.assertEqual(service, "127.0.0.1:10025 inet n - y - - smtpd")
        server = self.start_postfix(self.block("Postfix: main.cf"), smtpd=dict(
            re.fullmatch(r"    -o (\w+)=(\w+)", option).groups() for option in options))
        self.start(server, "The plain set-up: Trabex.ini", "IPv6: Trabex.ini", "Postfix: Trabex.ini")
        self.check_addresses("client=unknown[{}]".format)

    @runs("The plain set-up: Trabex.ini", "IPv6: Trabex.ini", "Postfix: Trabex.ini 2", "Postfix: main.cf 2")
    def test_postfix_with_xclient(self):
        server = self.start_postfix(self.block("Postfix: main.cf 2"))
        self.start(server, "The plain set-up: Trabex.ini", "IPv6: Trabex.ini", "Postfix: Trabex.ini 2")
        # The name comes from this machine's hosts file, if it has one for the address.
        self.check_addresses("[{}]".format)

    @runs("The plain set-up: Trabex.ini", "IPv6: Trabex.ini", "Exim: Trabex.ini", "Exim: exim4.conf")
    def test_exim(self):
        options = read_options(self.block("Exim: exim4.conf"))
        self.assertEqual((options.pop("local_interfaces"), options.pop("daemon_smtp_ports")), (LOOPBACK, "10025"))
        self.refused = 550
        server = self.exim({**options, "acl_smtp_rcpt": "${if or{{match_ip{$sender_host_address}{+relay_from_hosts}}"
                                                        "{eq{$domain}{example.org}}}{accept}{deny}}"})
        self.start(server, "The plain set-up: Trabex.ini", "IPv6: Trabex.ini", "Exim: Trabex.ini")
        self.check_addresses(" H=(client.example.net) [{}]:".format)

    @runs("The plain set-up: Trabex.ini", "IPv6: Trabex.ini", "OpenSMTPD: Trabex.ini", "OpenSMTPD: smtpd.conf")
    def test_opensmtpd(self):
        table, listener, matches = re.fullmatch(
            r"(table .*)\nlisten on 127\.0\.0\.1 port 10025 (.*)\n((?:match .*\n)*)",
            self.block("OpenSMTPD: smtpd.conf")).groups()
        self.refused = 550
        server = self.opensmtpd([table], listening=listener,
                                matches=re.sub('"(deliver|outbound)"', '"box"', matches).splitlines())
        self.start(server, "The plain set-up: Trabex.ini", "IPv6: Trabex.ini", "OpenSMTPD: Trabex.ini")
        self.check_addresses(lambda address: f"smtp connected address={address.replace('::1', '[::1]')} ")

    def check_tls(self):
        self.send(self.smtp())
        self.server.wait_for_messages(1)
        self.proxy.wait_for_log(" TLS: TLSv1.3, TLS_AES_256_GCM_SHA384, certificate verified.")

    @runs("The plain set-up: Trabex.ini", "TLS to the server: Trabex.ini", "TLS to the server: main.cf")
    def test_tls_to_postfix(self):
        (self.files / "ca.pem").write_bytes(self.authority.file.read_bytes())
        self.issue("server", "server.example.org")
        server = self.start_postfix(self.block("TLS to the server: main.cf", **{"/etc/postfix": str(self.files)}))
        self.start(server, "The plain set-up: Trabex.ini", "TLS to the server: Trabex.ini")
        self.check_tls()

    @runs("The plain set-up: Trabex.ini", "TLS to the server: Trabex.ini", "TLS to the server: exim4.conf")
    def test_tls_to_exim(self):
        (self.files / "ca.pem").write_bytes(self.authority.file.read_bytes())
        certificate = self.issue("server", "server.example.org")
        # It sees no files but those that are put into its own place.
        options = read_options(self.block("TLS to the server: exim4.conf", **{
            "/etc/exim4/server.pem": f"/etc/files/{certificate.chain.name}",
            "/etc/exim4/server.key": f"/etc/files/{certificate.key.name}"}))
        self.start(self.exim(options, certificate=certificate), "The plain set-up: Trabex.ini",
                   "TLS to the server: Trabex.ini")
        self.check_tls()

    @runs("The plain set-up: Trabex.ini", "TLS to the server: Trabex.ini")
    def test_tls_to_opensmtpd_fails(self):
        """As the page says, with Debian's."""
        (self.files / "ca.pem").write_bytes(self.authority.file.read_bytes())
        certificate = self.issue("server", "server.example.org", kind="rsa")
        self.start(self.opensmtpd(certificate=certificate), "The plain set-up: Trabex.ini",
                   "TLS to the server: Trabex.ini")
        client = self.connect(self.proxy.address)
        self.assertEqual(client.read_line(), f"421 {NAME} is temporarily unavailable.")
        self.proxy.wait_for_log(" Error 40030. TLS failed: tlsv1 alert internal error")


class Log(BehindTheBalancer):
    @runs("The plain set-up: Trabex.ini", "A certificate: Trabex.ini", "A port for TLS alone: Trabex.ini",
          "IPv6: Trabex.ini", "A balancer in front: Trabex.ini", "A balancer in front: haproxy.cfg",
          "Postfix: Trabex.ini", "Postfix: main.cf", "Postfix: master.cf", "TLS to the server: Trabex.ini",
          "TLS to the server: main.cf", "What the log shows: log", "What the log shows: message")
    def test_all_of_it(self):
        """The log shows these lines in this order, and the message has this header."""
        self.issue("mx", NAME)
        self.issue("server", "server.example.org")
        (self.files / "ca.pem").write_bytes(self.authority.file.read_bytes())
        server = self.postfix({"virtual_mailbox_domains": "example.org", "myhostname": "server.example.org",
                               **read_options(self.block("Postfix: main.cf")),
                               **read_options(self.block("TLS to the server: main.cf",
                                                         **{"/etc/postfix": str(self.files)}))},
                              smtpd=dict(re.findall(r"-o (\w+)=(\w+)", self.block("Postfix: master.cf"))))
        self.start(server, "The plain set-up: Trabex.ini", "A certificate: Trabex.ini",
                   "A port for TLS alone: Trabex.ini", "IPv6: Trabex.ini", "A balancer in front: Trabex.ini",
                   "Postfix: Trabex.ini", "TLS to the server: Trabex.ini")
        plain, _ = self.start_balancer()
        self.send(self.smtp(REMOTE, plain, context=self.trust()))
        (_, content), = server.wait_for_messages(1)

        lines = iter(self.proxy.log_lines())
        for wanted in self.block("What the log shows: log").splitlines():
            pattern = self.masked(wanted)
            self.assertTrue(any(re.fullmatch(pattern, line) for line in lines), f"no more line {wanted!r}")
        header, = re.findall(rb"\AReceived: .*\n .*\n", content)
        self.assertRegex(header.decode(), self.masked(self.block("What the log shows: message")))

    @staticmethod
    def masked(text):
        """A pattern for the text in which addresses and numbers may be others."""
        text = re.escape(text).replace("\\ ", " ")
        text = re.sub(r"\w{3}, \d+ \w{3} \d{4} [\d:]+ \\\+\d{4}", r"\\w{3}, .*", text)
        text = re.sub(r"mail\\\.example\\\.net", "\\\\S+", text)
        # The parts of the log that have a width of their own.
        text = re.sub(r"\\\{ +\d+\\\} \\\[ *[\d.\\]+\\\]", r"\\{ *\\d+\\} \\[ *[\\d.]+\\]", text)
        text = re.sub(r"(?:\d+\\\.){3}\d+", r"[\\d.]+", text)
        return re.sub(r"(?<=[ :])(?:51234|25)\b", r"\\d+", text)


class Page(Scenario):
    def test_every_block_is_run(self):
        self.assertEqual(covered_by(Clients, Balancer, Servers, Log), set(read_blocks()))


if __name__ == "__main__":
    main()
