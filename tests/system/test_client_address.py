#!/usr/bin/env python3
"""Whose connection it is: HAProxy in front announces the client, and Postfix, Exim and OpenSMTPD behind are told.

The server's own log has the client's address and port, and it is the client's address by which it refuses to relay.
"""

import smtplib

from messages import text_message
from trabex_system import (DOMAIN, IPV6, LOOPBACK, Authority, Balancer, Scenario, Smtp, bound, bracketed,
                           bracketed_networks, endpoint, exim_list,
                           free_port, in_family, main, received_header, trusting, wait_until)

REMOTE = in_family("127.0.0.2")
SENDER = f"sender@{DOMAIN}"
RECIPIENT = f"r@{DOMAIN}"
PROXY1, PROXY2, XCLIENT = 1, 2, 3


class InFront(Scenario):
    """HAProxy is the balancer."""

    def start(self, settings=None, sections=None):
        self.server = self.sample_server()
        self.proxy = self.trabex(self.server.port, {"ProxyProtocolFrom": LOOPBACK, "LocalIPs": in_family("127.0.0.9"),
                                                    "LocalDomains": DOMAIN, **(settings or {})}, sections=sections)
        return self.proxy

    def send_through(self, balancer, source=REMOTE):
        with Smtp(balancer.address, source) as client:
            port = client.sock.getsockname()[1]
            client.sendmail(SENDER, [RECIPIENT], text_message(1))
        return port

    def test_both_versions(self):
        for sending, binding in (("send-proxy", ""), ("send-proxy-v2", ""),
                                 ("send-proxy-v2 proxy-v2-options unique-id,crc32c", "")):
            self.start()
            balancer = Balancer(self.place, self.proxy.port, sending, binding)
            port = self.send_through(balancer)
            header = received_header(self.server.wait_for_messages(1)[0].content)
            self.assertEqual(header["ip"], REMOTE, sending)
            self.proxy.wait_for_log(f"PROXY header: {endpoint(port, REMOTE)} to {endpoint(balancer.port)}.")

    def test_data_about_tls(self):
        """The balancer ends the client's TLS and tells of it; that is skipped."""
        certificate = Authority(self.place).issue(["localhost"])
        self.start()
        balancer = Balancer(self.place, self.proxy.port, "send-proxy-v2-ssl-cn", f"ssl crt {certificate.both}")
        with smtplib.SMTP_SSL(*balancer.address, "client.example", source_address=(REMOTE, 0), timeout=bound(30),
                              context=trusting(None)) as client:
            client.sendmail(SENDER, [RECIPIENT], text_message(1))
        self.assertEqual(received_header(self.server.wait_for_messages(1)[0].content)["ip"], REMOTE)

    def test_tls_port_behind_the_balancer(self):
        """The header comes in the clear, the handshake behind it."""
        authority = Authority(self.place)
        certificate = authority.issue(["localhost", LOOPBACK])
        tls_port = free_port()
        self.start({"BindPortTLS": tls_port}, {"TLS": {"Certificate": f"{certificate.chain} {certificate.key}"}})
        balancer = Balancer(self.place, tls_port, "send-proxy-v2")
        with smtplib.SMTP_SSL("localhost", balancer.port, "client.example", source_address=(REMOTE, 0),
                              timeout=bound(30), context=trusting(authority.file)) as client:
            client.sendmail(SENDER, [RECIPIENT], text_message(1))
        header = received_header(self.server.wait_for_messages(1)[0].content)
        self.assertEqual((header["ip"], header["protocol"]), (REMOTE, "ESMTPS"))

    def test_lists_and_relaying_go_by_the_client(self):
        self.start({"IPBlackList": in_family("127.0.0.3")})
        balancer = Balancer(self.place, self.proxy.port, "send-proxy")
        with self.assertRaises(smtplib.SMTPException):
            self.send_through(balancer, in_family("127.0.0.3"))
        self.proxy.wait_for_log("554 ")
        with Smtp(balancer.address, REMOTE) as client:
            client.ehlo()
            client.mail(SENDER)
            self.assertEqual(client.rcpt("r@elsewhere.invalid")[0], 550)
        with Smtp(balancer.address, in_family("127.0.0.9")) as client:
            client.ehlo()
            client.mail(SENDER)
            self.assertEqual(client.rcpt("r@elsewhere.invalid")[0], 250)

    def test_health_checks(self):
        """HAProxy's own, by connection and with its local header, leave no error and are never local."""
        for sending in ("check inter 100 send-proxy", "check inter 100 send-proxy-v2"):
            self.start({"LocalIPs": LOOPBACK})
            Balancer(self.place, self.proxy.port, sending)
            self.proxy.wait_for_log("PROXY header: ", 3)
            self.proxy.wait_for_log("Disconnected.", 3)
            for line in ("Invalid PROXY header", "Error "):
                self.assertNotIn(line, self.proxy.log(), sending)
        # Without a header it breaks off before the system tells anybody; others close in order.
        self.start()
        for _ in range(3):
            self.connect(self.proxy.address).close()
        self.proxy.wait_for_log("Disconnected.", 3)
        self.assertNotIn("Invalid PROXY header", self.proxy.log())

    def test_local_is_no_local_client(self):
        self.start({"LocalIPs": LOOPBACK})
        for header in (b"PROXY UNKNOWN\r\n", b"\r\n\r\n\0\r\nQUIT\n\x20\x00\x00\x00"):
            client = self.connect(self.proxy.address)
            client.send(header)
            self.assertEqual(client.read_line()[:4], "220 ")
            client.command("EHLO c.example")
            client.command(f"MAIL FROM:<{SENDER}>")
            self.assertEqual(client.command("RCPT TO:<r@elsewhere.invalid>")[:3], "550", header)
        self.proxy.wait_for_log("PROXY header: local.", 2)

    def test_malformed_headers(self):
        """The connection closes without a word."""
        self.start()
        signature = b"\r\n\r\n\0\r\nQUIT\n"
        family, other = ("TCP6", "TCP4") if IPV6 else ("TCP4", "TCP6")
        addresses = f"{REMOTE} {LOOPBACK}"
        bad = (f"PROXY {family} {addresses} 70000 25\r\n".encode(), f"PROXY {other} {addresses} 1 25\r\n".encode(),
               f"PROXY  {family} {addresses} 1 25\r\n".encode(), b"EHLO c.example\r\n", b"PROXY UDP4 \r\n",
               b"PROXY " + b"x" * 200, signature + b"\x31\x11\0\x0c" + bytes(12), signature + b"\x21\x12\0\x0c" + bytes(12),
               signature + b"\x21\x11\0\x05" + bytes(5), signature + b"\x21\x11\xff\xff")
        for number, header in enumerate(bad, 1):
            client = self.connect(self.proxy.address)
            client.send(header)
            self.assertEqual(client.read_to_end(), b"", header)
            self.proxy.wait_for_log("Invalid PROXY header. Closing connection.", number)

    def test_no_header_comes(self):
        self.start({"ProxyProtocolTimeout": 1})
        client = self.connect(self.proxy.address)
        client.send(b"PROXY TCP4")
        self.assertEqual(client.read_to_end(), b"")
        self.proxy.wait_for_log("PROXY header time-out. Closing connection.")

    def test_strangers_are_no_balancer(self):
        self.start()
        client = self.connect(self.proxy.address, source=REMOTE)
        client.send_line(f"PROXY {'TCP6' if IPV6 else 'TCP4'} {in_family('127.0.0.9 127.0.0.1')} 1 25")
        self.assertEqual(client.read_line()[:4], "220 ")
        self.assertEqual(client.read_line()[:3], "503")
        client.command("EHLO c.example")
        client.command(f"MAIL FROM:<{SENDER}>")
        self.assertEqual(client.command("RCPT TO:<r@elsewhere.invalid>")[:3], "550")


class Behind:
    """The server is told; the classes below say which one it is."""

    def start_server(self, how):
        raise NotImplementedError

    def logged(self, address, port):
        """What the server's log holds of a client."""
        raise NotImplementedError

    hows = ()

    def start(self, how, settings=None, sections=None, **server):
        self.server = self.start_server(how, **server)
        # Trabex itself would let everything pass: who may relay, the server decides.
        self.proxy = self.trabex(self.server.port, {"SendClientIP": how, "LocalIPs": in_family("127.0.0.0/8"),
                                                    **(settings or {})}, sections=sections)

    def test_the_log_has_the_client(self):
        for how in self.hows:
            self.start(how)
            with Smtp(self.proxy.address, REMOTE) as client:
                port = client.sock.getsockname()[1]
                client.sendmail(SENDER, [RECIPIENT], text_message(1))
            self.server.wait_for_messages(1)
            wait_until(lambda: self.logged(REMOTE, port) in self.server.log(), self.logged(REMOTE, port))

    def test_relaying_goes_by_the_client(self):
        """127.0.0.9 is the only one for whom the server relays."""
        for how in self.hows:
            self.start(how)
            for source, code in ((in_family("127.0.0.9"), 250), (REMOTE, self.refused)):
                with Smtp(self.proxy.address, source) as client:
                    client.ehlo()
                    client.mail(SENDER)
                    self.assertEqual(client.rcpt("r@elsewhere.invalid")[0], code, (how, source))

    def test_a_server_that_expects_nothing(self):
        """It never sees a command of the client."""
        for how in (PROXY1, PROXY2, XCLIENT):
            self.server = self.plain_server()
            self.proxy = self.trabex(self.server.port, {"SendClientIP": how})
            client = self.connect(self.proxy.address, source=REMOTE)
            # A mail in one piece, whatever is answered.
            client.send(f"EHLO c.example\r\nMAIL FROM:<{SENDER}>\r\nRCPT TO:<{RECIPIENT}>\r\nDATA\r\n"
                        "Subject: x\r\n\r\nx\r\n.\r\nQUIT\r\n".encode())
            got = client.read_to_end()
            if how != PROXY2:
                self.assertEqual(got, b"421 proxy.example is temporarily unavailable.\r\n")
                self.proxy.wait_for_log("No session with this server: ")
            # The server finds QUIT in the header of version 2, and hangs up.
            self.assertNotIn(b"250", got)
            self.server.settle()
            self.assertNotIn(SENDER, self.server.log())

    refused = 550


class ToPostfix(Behind, Scenario):
    hows = (PROXY1, PROXY2, XCLIENT)
    refused = 454

    def start_server(self, how, **more):
        settings = {"mynetworks": bracketed_networks("127.0.0.9"), "smtpd_client_port_logging": "yes",
                    "inet_protocols": "all", "default_transport": "virtual",
                    "smtpd_relay_restrictions": "permit_mynetworks, defer_unauth_destination"}
        if how == XCLIENT:
            return self.postfix({**settings, "smtpd_authorized_xclient_hosts": bracketed_networks(LOOPBACK)}, **more)
        return self.postfix(settings, smtpd={"smtpd_upstream_proxy_protocol": "haproxy"}, **more)

    def plain_server(self):
        return self.postfix()

    def logged(self, address, port):
        return f"[{address}]:{port}"


class ToExim(Behind, Scenario):
    hows = (PROXY1, PROXY2)

    def start_server(self, how, **more):
        return self.exim({"hosts_proxy": exim_list(LOOPBACK), "domainlist own": DOMAIN,
                          "acl_smtp_rcpt": "${if or{{eq{$sender_host_address}{" + in_family("127.0.0.9") +
                                           "}}{eq{$domain}{" + DOMAIN + "}}}{accept}{deny}}"}, **more)

    def plain_server(self):
        return self.exim()

    def logged(self, address, port):
        return f"[{address}]:{port}"


class ToOpenSmtpd(Behind, Scenario):
    hows = (PROXY2,)

    def start_server(self, how, **more):
        return self.opensmtpd(listening="proxy-v2", matches=(
            f'match from any for domain "{DOMAIN}" action "box"',
            f'match from src {in_family("127.0.0.9")} for any action "box"'), **more)

    def plain_server(self):
        return self.opensmtpd()

    def logged(self, address, port):
        # It does not log the port.
        return f"smtp connected address={bracketed(address)} "


if __name__ == "__main__":
    main()
