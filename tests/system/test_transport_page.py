#!/usr/bin/env python3
"""docs/tls-ipv6-addresses.md works: its blocks are taken out of the page and run, with the real programs and a mail.

Addresses, ports and folders of the page become those of the scenario; everything else is as an administrator reads it.
"""

import re
import shlex
import smtplib
import ssl
import subprocess
import textwrap

from messages import text_message
from trabex_system import (LOOPBACK, REPO, Authority, Process, Scenario, bound, free_port, main, received_header,
                           trusting, wait_until)

PAGE = REPO / "docs" / "tls-ipv6-addresses.md"
FILES = ("Trabex.ini", "openssl", "haproxy.cfg", "master.cf", "main.cf", "exim4.conf", "smtpd.conf", "log", "message")

# The house's clients, and one of the world's; the only IPv6 address of a machine's loopback is one of the house.
LOCAL, LOCAL6 = "127.0.0.9", "::1"
REMOTE = "127.0.0.2"
NAME = "mx.example.org"
RECIPIENT, SENDER, ELSEWHERE = "you@example.org", "me@example.net", "them@elsewhere.invalid"


def read_blocks():
    """The indented blocks of the page by heading and file: "Postfix: main.cf", and then "Postfix: main.cf 2"."""
    blocks, heading, said, lines = {}, "", "", []

    def end_block():
        if not lines:
            return
        file = max(FILES, key=lambda name: said.rfind(f"`{name}`"))
        if f"`{file}`" not in said:
            raise AssertionError(f"which file is this in? {lines}")
        name, number = f"{heading}: {file}", 1
        while name in blocks:
            number += 1
            name = f"{heading}: {file} {number}"
        blocks[name] = textwrap.dedent("\n".join(lines)).strip() + "\n"
        lines.clear()

    for line in PAGE.read_text(encoding="utf-8").splitlines():
        if line.startswith("    ") or (lines and not line):
            lines.append(line)
            continue
        if lines:
            end_block()
            said = ""
        if line.startswith("#"):
            heading, said = line.lstrip("# "), ""
        said += line + " " if line else ""
    end_block()
    return blocks


def read_tables(heading):
    """The first columns of all tables below a heading: lists of what stands between backticks."""
    section = PAGE.read_text(encoding="utf-8").split(f"\n## {heading}\n", 1)[1].split("\n## ", 1)[0]
    rows = [line.split("|")[1].strip() for line in section.splitlines() if line.startswith("|")]
    return [re.findall(r"`([^`]+)`", row) for row in rows if "`" in row]


def runs(*names):
    """Says which blocks a case runs; it must use each of them."""
    def mark(case):
        case.blocks = names
        return case
    return mark


def read_ini(text):
    """The sections of an initialization file as dictionaries; a key on several lines has a list."""
    sections = {}
    for line in text.splitlines():
        if line.startswith("["):
            section = sections.setdefault(line.strip("[]"), {})
        else:
            key, value = re.fullmatch(r"(\w+) = (.*)", line).groups()
            section.setdefault(key, []).append(value)
    return sections


def read_options(text):
    """Lines "key = value" as a dictionary."""
    return dict(re.fullmatch(r"([\w ]+?) = (.*)", line).groups() for line in text.splitlines())


class PageScenario(Scenario):
    def setUp(self):
        super().setUp()
        self.unused = set(getattr(getattr(self, self._testMethodName), "blocks", ()))
        self.files = self.place.new_folder("etc")
        self.tls_port = free_port()
        self.authority = Authority(self.place)

    def tearDown(self):
        self.assertEqual(self.unused, set(), "blocks that the case has not used")

    def block(self, name, **more):
        """A block with the scenario's addresses, ports and folders."""
        self.assertIn(name, getattr(self, self._testMethodName).blocks)
        self.unused.discard(name)
        text = read_blocks()[name]
        for old, new in {**more, "[2001:db8:0:1::]/64": f"[{LOCAL6}]", "2001:db8:0:1::/64": LOCAL6, "10.0.0.0/8": LOCAL,
                         "192.0.2.25": LOOPBACK, "2001:db8::25": "::1", "192.0.2.10": LOOPBACK,
                         "2001:db8::10": "::1", "/etc/trabex": str(self.files)}.items():
            text = text.replace(old, new)
        return text

    def issue(self, file, *names, **more):
        """A certificate in the files of the page: <file>.pem and <file>.key."""
        certificate = self.authority.issue(list(names), **more)
        (self.files / f"{file}.pem").write_bytes(certificate.chain.read_bytes())
        (self.files / f"{file}.key").write_bytes(certificate.key.read_bytes())
        return certificate

    def start(self, server, *names, **changes):
        """Trabex with these blocks, each changing what those before have said; `changes` are keys of section Common."""
        common, sections = {}, {}
        for name in names:
            for section, keys in read_ini(self.block(name)).items():
                target = common if section == "Common" else sections.setdefault(section, {})
                target.update({key: values if len(values) > 1 else values[0] for key, values in keys.items()})
        self.assertEqual(common.pop("ServerPort"), "10025")
        if "BindPortTLS" in common:
            self.assertEqual(common["BindPortTLS"], "465")
            common["BindPortTLS"] = self.tls_port
        self.server = server
        self.proxy = self.trabex(server.port, {**common, **changes}, sections=sections)
        return self.proxy

    def smtp(self, source=REMOTE, port=None, **starttls):
        """A client that has said EHLO, under TLS if `starttls` has the context."""
        client = smtplib.SMTP("::1" if source == LOCAL6 else LOOPBACK, port or self.proxy.port,
                              local_hostname="client.example.net", timeout=bound(30), source_address=(source, 0))
        self.addCleanup(client.close)
        if starttls:
            client._host = NAME
            client.starttls(**starttls)
        client.ehlo()
        return client

    def smtps(self, source=REMOTE, port=None):
        client = smtplib.SMTP_SSL("::1" if source == LOCAL6 else LOOPBACK, port or self.tls_port, "client.example.net",
                                  timeout=bound(30), source_address=(source, 0), context=trusting(None))
        self.addCleanup(client.close)
        return client

    def trust(self):
        return trusting(self.authority.file)

    def send(self, client, recipient=RECIPIENT):
        content = text_message(1)
        client.sendmail(SENDER, [recipient], content)
        client.quit()
        return content

    def header_of_last(self, count):
        """What Trabex has put in front of the last of `count` messages that the sample server has."""
        return received_header(self.server.wait_for_messages(count)[-1].content)

    def relaying(self, source):
        """The code of the reply to a recipient elsewhere."""
        client = self.smtp(source)
        client.mail(SENDER)
        return client.rcpt(ELSEWHERE)[0]


class Blocks(PageScenario):
    def test_every_block_is_run(self):
        run = set()
        for scenario in (Clients, Balancer, Servers, Log):
            for name in dir(scenario):
                run.update(getattr(getattr(scenario, name), "blocks", ()))
        self.assertEqual(run, set(read_blocks()))


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
            self.assertEqual(self.header_of_last(count)["ip"], source.replace("::1", "IPv6:::1"))
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
                self.assertEqual(header["ip"], source.replace("::1", "IPv6:::1"))
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
        table, listener, matches = re.fullmatch(r"(table .*)\nlisten on 127\.0\.0\.1 port 10025 (.*)\n((?:match .*\n)*)",
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


if __name__ == "__main__":
    main()
