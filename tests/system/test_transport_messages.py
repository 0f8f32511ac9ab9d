#!/usr/bin/env python3
"""Every message that docs/tls-ipv6-addresses.md explains is what the programs say, and comes where the page says it."""

import ssl

from transport_page import (LOCAL, LOCAL6, NAME, REMOTE, SENDER, PageScenario, covered_by, read_messages, runs)
from trabex_system import LOOPBACK, Authority, Scenario, main, trusting


class Messages(PageScenario):
    """Each is brought about."""

    def start_with(self, server_port, settings=None, **tls):
        """Trabex with these settings and those of section TLS."""
        self.proxy = self.trabex(server_port, settings, sections={"TLS": tls} if tls else None)
        return self.proxy

    @runs("Value 465 is no port for TLS.", "ClientCA expected.", 'Invalid certificate entry "…".',
          'Inadmissible string: "…".', 'Invalid IP address range: "…".')
    def test_initialization_file(self):
        self.start_with(self.sample_server().port, {"BindPortTLS": 465, "ProxyProtocolFrom": "0.0.0.0/0"},
                        Certificate="one two three", ClientCertificates=2, MinVersion="1.4")
        for message in list(self.unused):
            self.see(message)
        self.proxy.wait_for_log("Error parsing initialization file. ", 5)

    @runs('Unable to load certificate "…". …', 'Unable to load ClientCA "…". …',
          'Unable to load ServerCA "…". …', "The one in force stays.", 'Certificate "…" expires at …')
    def test_files(self):
        self.issue("mx", NAME, expired=True)
        files, missing = f"{self.files}/mx.pem {self.files}/mx.key", self.files / "missing.pem"
        self.start_with(self.sample_server().port, Certificate=f"{files}, {missing}", ClientCertificates=1,
                        ClientCA=missing, Server=1, ServerCA=missing)
        for message in self.unused - {"The one in force stays."}:
            self.see(message)
        (self.files / "mx.pem").write_text("nothing")
        self.proxy.sections["TLS"]["HandshakeTimeout"] = 29
        self.proxy.write_ini()
        # By itself, after half a minute: one that is asked for is refused with a certificate that cannot be loaded.
        self.proxy.wait_for_log("The one in force stays.", seconds=90)
        self.see("The one in force stays.")

    @runs("Error 40030. TLS failed: …", "no shared cipher", "unsupported protocol", "tlsv1 alert unknown ca",
          "http request", "wrong version number", "TLS handshake broken off.")
    def test_handshakes(self):
        self.issue("mx", NAME)
        self.start_with(self.sample_server().port, {"BindPortTLS": self.tls_port},
                        Certificate=f"{self.files}/mx.pem {self.files}/mx.key")
        old = trusting(None, minimum_version=ssl.TLSVersion.TLSv1, maximum_version=ssl.TLSVersion.TLSv1_1)
        old.set_ciphers("ALL:@SECLEVEL=0")
        weak = trusting(None, maximum_version=ssl.TLSVersion.TLSv1_2)
        weak.set_ciphers("AES128-SHA")
        stranger = trusting(Authority(self.place, "stranger").file)
        for reason, context in (("unsupported protocol", old), ("no shared cipher", weak),
                                ("tlsv1 alert unknown ca", stranger)):
            with self.assertRaises(ssl.SSLError):
                self.smtp(context=context)
            self.see(reason)
        for reason, words in (("http request", b"GET / HTTP/1.0\r\n\r\n"),
                              ("wrong version number", b"EHLO c.example\r\n")):
            client = self.connect((LOOPBACK, self.tls_port))
            client.send(words)
            self.see(reason)
        self.see("Error 40030. TLS failed: …")
        self.connect((LOOPBACK, self.tls_port)).close()
        self.see("TLS handshake broken off.")

    @runs("TLS handshake time-out. Closing connection.", "Too many TLS handshakes. Closing connection.",
          "No certificate. Closing connection.", "Refused without TLS: …")
    def test_tls_port(self):
        self.issue("mx", NAME)
        server, files = self.sample_server(), f"{self.files}/mx.pem {self.files}/mx.key"
        self.start_with(server.port, {"BindPortTLS": self.tls_port}, Certificate=files, HandshakeTimeout=1,
                        MaxHandshakes=1)
        for _ in range(2):
            self.connect((LOOPBACK, self.tls_port))
        self.see("Too many TLS handshakes. Closing connection.")
        self.see("TLS handshake time-out. Closing connection.")
        self.proxy.end()
        self.start_with(server.port, {"BindPortTLS": self.tls_port}, Certificate=self.files / "missing.pem")
        self.connect((LOOPBACK, self.tls_port)).read_to_end()
        self.see("No certificate. Closing connection.")
        self.proxy.end()
        self.start_with(server.port, {"BindPortTLS": self.tls_port, "IPBlackList": REMOTE}, Certificate=files)
        self.connect((LOOPBACK, self.tls_port), source=REMOTE).read_to_end()
        self.see("Refused without TLS: …")

    @runs("Invalid PROXY header. Closing connection.", "PROXY header time-out. Closing connection.")
    def test_no_header(self):
        self.start_with(self.sample_server().port, {"ProxyProtocolFrom": LOOPBACK, "ProxyProtocolTimeout": 1})
        talking, silent = self.connect(self.proxy.address), self.connect(self.proxy.address)
        talking.send_line("EHLO c.example")
        for client in (talking, silent):
            self.assertEqual(client.read_to_end(), b"")
        self.see("Invalid PROXY header. Closing connection.")
        self.see("PROXY header time-out. Closing connection.")

    @runs("530 5.7.0 Must issue a STARTTLS command first.",
          "538 5.7.11 Encryption required for requested authentication mechanism.",
          "554 Connection from … not allowed.")
    def test_replies(self):
        self.issue("mx", NAME)
        self.start_with(self.sample_server().port,
                        {"BindIP": f"{LOOPBACK}, ::1", "LocalIPs": LOCAL, "IPAllowList": "0.0.0.0/0"},
                        Certificate=f"{self.files}/mx.pem {self.files}/mx.key", Require=1)
        for source, command in ((LOCAL, f"MAIL FROM:<{SENDER}>"), (REMOTE, "AUTH PLAIN AGEAYg=="), (LOCAL6, None)):
            client = self.connect(("::1" if source == LOCAL6 else LOOPBACK, self.proxy.port), source=source)
            reply = client.read_line()
            if command:
                client.command("EHLO c.example")
                reply = client.command(command)
            message, = [each for each in self.unused if each[:3] == reply[:3]]
            self.see(message, said=reply)

    def refusal(self, server, settings=None, **tls):
        """Trabex in front of the server; returns what a client hears, line by line."""
        self.start_with(server.port, settings, **tls)
        client = self.connect(self.proxy.address)
        return client.read_to_end().decode("ascii").splitlines()

    def assertNoSession(self, server, settings, *messages, **tls):
        said = self.refusal(server, settings, **tls)
        self.assertEqual(said, ["421 proxy.example is temporarily unavailable."])
        self.see(*messages)

    @runs("No session with this server: EHLO refused. Closing connection.", "unexpected data",
          "No session with this server: XCLIENT not offered. Closing connection.",
          "No session with this server: STARTTLS not offered. Closing connection.", "500",
          "421 4.3.0 … Server local error", "haproxy read: timeout error")
    def test_postfix(self):
        server = self.postfix()
        self.assertNoSession(server, {"SendClientIP": 1},
                             "No session with this server: EHLO refused. Closing connection.", "unexpected data")
        self.assertNoSession(server, {"SendClientIP": 3},
                             "No session with this server: XCLIENT not offered. Closing connection.")
        self.assertNoSession(server, {}, "No session with this server: STARTTLS not offered. Closing connection.",
                             Server=2)
        greeting, *said = self.refusal(server, {"SendClientIP": 2})
        self.assertEqual(greeting[:4], "220 ")
        self.see("500", said=said[0])
        server = self.postfix(smtpd={"smtpd_upstream_proxy_protocol": "haproxy", "smtpd_upstream_proxy_timeout": "1s"})
        self.see("421 4.3.0 … Server local error", said=self.refusal(server)[0])
        self.see("haproxy read: timeout error", said=server.log())
        # It is one of IPv4 alone.
        self.start_with(server.port, {"SendClientIP": 2, "BindIP": f"{LOOPBACK}, ::1"})
        self.assertEqual(self.connect(("::1", self.proxy.port)).read_line()[:4], "421 ")

    @runs("503 Command refused, required Proxy negotiation failed")
    def test_exim(self):
        self.start_with(self.exim({"hosts_proxy": LOOPBACK}).port)
        client = self.connect(self.proxy.address)
        client.read_line()
        self.see("503 Command refused, required Proxy negotiation failed", said=client.command("EHLO c.example"))

    @runs("No session with this server: connection closed. Closing connection.")
    def test_opensmtpd(self):
        self.assertNoSession(self.opensmtpd(listening="proxy-v2"), {"SendClientIP": 1},
                             "No session with this server: connection closed. Closing connection.")

    @runs("Error 40030. TLS failed: …", "certificate has expired", "hostname mismatch", "IP address mismatch",
          "unable to get local issuer certificate", "wrong version number")
    def test_tls_to_the_server(self):
        verifying = {"Server": 2, "ServerVerify": 1, "ServerCA": self.authority.file}
        server = self.postfix(certificate=self.authority.issue(["server.example.org"]))
        for message, tls in (("hostname mismatch", {**verifying, "ServerName": "other.example.org"}),
                             ("IP address mismatch", verifying), ("wrong version number", {"Server": 3}),
                             ("unable to get local issuer certificate", {"Server": 2, "ServerVerify": 1})):
            self.assertNoSession(server, {}, message, **tls)
        server = self.postfix(certificate=self.authority.issue(["server.example.org"], expired=True))
        self.assertNoSession(server, {}, "certificate has expired", **verifying, ServerName="server.example.org")
        self.see("Error 40030. TLS failed: …")


class Page(Scenario):
    def test_every_message_is_brought_about(self):
        self.assertEqual(covered_by(Messages), read_messages())


if __name__ == "__main__":
    main()
