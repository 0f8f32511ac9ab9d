#!/usr/bin/env python3
"""TLS between Trabex and the server: STARTTLS and TLS from the first byte, verified and not.

A failure is never a way to plain text.
"""

import ssl

from messages import text_message
from trabex_system import (DOMAIN, LOOPBACK, Authority, Scenario, Smtp, in_family, main, polite_server,
                           without_received)

REMOTE = in_family("127.0.0.2")
SENDER = f"sender@{DOMAIN}"
RECIPIENT = f"r@{DOMAIN}"
NONE, WHEN_OFFERED, STARTTLS, TLS_PORT = 0, 1, 2, 3


class ToServer(Scenario):
    def setUp(self):
        super().setUp()
        self.authority = Authority(self.place)

    def front_of(self, port, how, **tls):
        return self.trabex(port, sections={"TLS": {"Server": how, **tls}})

    def send(self, proxy, content):
        with Smtp(proxy.address, REMOTE) as client:
            client.sendmail(SENDER, [RECIPIENT], content)

    def assertRefused(self, proxy, reason, times=1):
        """The client gets 421, and the log says why."""
        client = self.connect(proxy.address)
        self.assertEqual(client.read_line()[:3], "421")
        self.assertEqual(client.read_to_end(), b"")
        proxy.wait_for_log(reason, times)


class RealServers:
    """The cases; the classes below say which server it is."""

    def start_server(self, certificate):
        raise NotImplementedError

    def test_mail_arrives(self):
        server = self.start_server(self.authority.issue(["server.example", LOOPBACK]))
        for how, port in ((WHEN_OFFERED, server.port), (STARTTLS, server.port), (TLS_PORT, server.tls_port)):
            for verified in ({}, {"ServerVerify": 1, "ServerCA": self.authority.file},
                             {"ServerVerify": 1, "ServerCA": self.authority.file, "ServerName": "server.example"}):
                proxy = self.front_of(port, how, **verified)
                content = text_message(how, 30_000)
                before = server.count()
                self.send(proxy, content)
                messages = server.wait_for_messages(before + 1)
                self.assertIn(content.replace(b"\r\n", b"\n"), [without_received(each) for _, each in messages])
                proxy.wait_for_log(f"certificate {'verified' if verified else 'not verified'}")
        self.assertTrue(self.shows_tls(server.log()), server.log())

    def test_bad_certificates(self):
        """Without ServerVerify they are taken, with it they end the session before the client has said a word."""
        stranger = Authority(self.place, "stranger")
        for certificate, reason in ((self.authority.issue(["server.example"], expired=True), "expired"),
                                    (self.authority.issue(["other.example"]), "mismatch"),
                                    (stranger.issue(["server.example"]), "")):
            server = self.start_server(certificate)
            for how, port in ((WHEN_OFFERED, server.port), (STARTTLS, server.port), (TLS_PORT, server.tls_port)):
                proxy = self.front_of(port, how, ServerVerify=1, ServerCA=self.authority.file,
                                      ServerName="server.example")
                self.assertRefused(proxy, "Error 40030. TLS failed: ")
                if reason:
                    self.assertIn(reason, [line for line in proxy.log_lines() if "40030" in line][0].lower())
            self.send(self.front_of(server.port, STARTTLS, ServerName="server.example"), text_message(1))
            server.wait_for_messages(1)


class Postfix(RealServers, ToServer):
    def start_server(self, certificate):
        return self.postfix(certificate=certificate)

    def shows_tls(self, log):
        return "TLS connection established from" in log


class Exim(RealServers, ToServer):
    def start_server(self, certificate):
        return self.exim(certificate=certificate)

    def shows_tls(self, log):
        return "P=esmtps" in log


class OpenSmtpd(ToServer):
    """That of Debian 12 offers TLS and fails in every handshake, for its handling of keys is older than OpenSSL 3."""

    def test_a_handshake_that_fails(self):
        server = self.opensmtpd(certificate=self.authority.issue(["server.example"], kind="rsa"))
        for how, port in ((WHEN_OFFERED, server.port), (STARTTLS, server.port), (TLS_PORT, server.tls_port)):
            self.assertRefused(self.front_of(port, how), "Error 40030. TLS failed: ")
        self.assertEqual(server.count(), 0)

    def test_without_tls(self):
        server = self.opensmtpd()
        self.send(self.front_of(server.port, WHEN_OFFERED), text_message(1))
        server.wait_for_messages(1)
        self.assertRefused(self.front_of(server.port, STARTTLS),
                           "No session with this server: STARTTLS not offered. Closing connection.")


class ScriptedServers(ToServer):
    """Servers that no distribution has."""

    def server_that_says(self, behind_starttls):
        """It sends this in answer to STARTTLS, then stops reading."""
        heard = self.heard = []

        def dialogue(connection):
            connection.send_line("220 server.example ESMTP")
            heard.append(connection.read_line())
            connection.send(b"250-server.example\r\n250 STARTTLS\r\n")
            heard.append(connection.read_line())
            connection.send(behind_starttls)
            heard.append(connection.read_to_end())
        return self.scripted_server(dialogue)

    def test_replies_behind_the_220(self):
        for how in (WHEN_OFFERED, STARTTLS):
            server = self.server_that_says(b"220 go on\r\n250-server.example\r\n250 AUTH PLAIN\r\n")
            proxy = self.front_of(server.port, how)
            self.assertRefused(proxy, "No session with this server: data behind STARTTLS. Closing connection.")
            self.assertEqual(self.heard[1], "STARTTLS")

    def test_starttls_refused(self):
        server = self.server_that_says(b"454 not now\r\n")
        self.assertRefused(self.front_of(server.port, STARTTLS),
                           "No session with this server: STARTTLS refused. Closing connection.")

    def test_garbage_in_place_of_a_handshake(self):
        for how in (WHEN_OFFERED, STARTTLS):
            server = self.server_that_says(b"220 go on\r\n")
            proxy = self.front_of(server.port, how)
            client = self.connect(proxy.address)
            # Sooner it would be something behind the reply.
            proxy.wait_for_log("< 220 go on")
            server.connections[0].send(b"250 this is no handshake\r\n")
            self.assertEqual(client.read_line()[:3], "421")
            proxy.wait_for_log("Error 40030. TLS failed: ")

    def test_no_starttls(self):
        content = []
        server = self.scripted_server(polite_server(["8BITMIME"], content))
        self.send(self.front_of(server.port, WHEN_OFFERED), text_message(1))
        self.assertEqual(len(content), 1)
        self.assertRefused(self.front_of(server.port, STARTTLS),
                           "No session with this server: STARTTLS not offered. Closing connection.")

    def test_authentication_words(self):
        """What would bind to the wrong connection, or log Trabex in, is not offered where the server's side is TLS."""
        certificate = self.authority.issue(["localhost"])
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate.chain, certificate.key)
        polite = polite_server(["AUTH EXTERNAL PLAIN SCRAM-SHA-256 SCRAM-SHA-256-PLUS", "REQUIRETLS"])

        def dialogue(connection):
            connection.socket = context.wrap_socket(connection.socket, server_side=True)
            polite(connection)

        server = self.scripted_server(dialogue)
        client = self.connect(self.front_of(server.port, TLS_PORT).address)
        client.read_line()
        reply = client.command("EHLO c.example")
        self.assertEqual(reply, "250-server.example\n250 AUTH PLAIN")


if __name__ == "__main__":
    main()
