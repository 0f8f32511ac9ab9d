#!/usr/bin/env python3
"""Trabex.exe with certificates: mail over both ways of TLS, TLS to the server, a renewal; and mail in another time zone."""

import datetime
import re
import smtplib
import ssl
import zoneinfo

from wine_system import WineScenario, WineTrabex, wait_until, windows_path  # noqa: I001
from messages import text_message
from trabex_system import (DOMAIN, LOOPBACK, Authority, HungUp, Smtp, bound, free_port, main, polite_server,
                           replace_file, trusting, without_received)

SENDER = f"sender@{DOMAIN}"
RECIPIENT = f"r@{DOMAIN}"
STARTTLS, TLS_PORT = 2, 3


class Tls(WineScenario):
    def setUp(self):
        super().setUp()
        self.authority = Authority(self.place)
        self.context = trusting(self.authority.file)
        self.context.check_hostname = False

    def test_mail_from_clients(self):
        """By STARTTLS and by the port of TLS, then a renewed certificate; two looks a minute apart find that."""
        old, new = (self.authority.issue(["localhost", LOOPBACK]) for _ in range(2))
        chain, key = (self.place.new_folder("certificate") / name for name in ("chain of it.pem", "schlüssel.pem"))
        chain.write_bytes(old.chain.read_bytes())
        key.write_bytes(old.key.read_bytes())
        server = self.sample_server()
        tls_port = free_port()
        proxy = self.trabex(server.port, {"BindPortTLS": tls_port}, sections={
            "TLS": {"Certificate": f'"{windows_path(chain)}" "{windows_path(key)}"'}})

        def by_starttls():
            client = smtplib.SMTP(*proxy.address, local_hostname="client.example", timeout=bound(60))
            client.starttls(context=self.context)
            return client

        def by_tls_port():
            return smtplib.SMTP_SSL(LOOPBACK, tls_port, local_hostname="client.example", timeout=bound(60),
                                    context=self.context)

        def serial():
            with by_starttls() as client:
                return client.sock.getpeercert()["serialNumber"]

        for number, begin in enumerate((by_starttls, by_tls_port)):
            content = text_message(number, 200_000)
            with begin() as client:
                self.assertEqual(client.sock.getpeercert()["serialNumber"], old.serial())
                client.sendmail(SENDER, [RECIPIENT], content)
            arrived = server.wait_for_messages(number + 1)[number]
            self.assertSame(content, without_received(arrived.content), f"message {number}")
        replace_file(chain, new.chain.read_bytes())
        replace_file(key, new.key.read_bytes())
        wait_until(lambda: serial() == new.serial(), "the renewed certificate", 150)
        self.assertIn("Certificates reloaded.", proxy.log())

    def test_to_the_server(self):
        certificate = self.authority.issue(["server.example"])
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate.chain, certificate.key)
        content, refusals = [], []

        def secure(connection):
            try:
                connection.socket = context.wrap_socket(connection.socket, server_side=True)
            except ssl.SSLError as refusal:
                refusals.append(refusal.reason)
                raise HungUp from refusal

        def secure_when_asked(connection, _):
            connection.send_line("220 go on")
            secure(connection)

        polite = polite_server(["8BITMIME"], content)

        def under_tls(connection):
            secure(connection)
            polite(connection)

        offering = self.scripted_server(polite_server(["8BITMIME", "STARTTLS"], content, {"STARTTLS": secure_when_asked}))
        secured = self.scripted_server(under_tls)
        for number, (how, server) in enumerate(((STARTTLS, offering), (TLS_PORT, secured))):
            proxy = self.trabex(server.port, sections={"TLS": {
                "Server": how, "ServerVerify": 1, "ServerCA": self.authority.file, "ServerName": "server.example"}})
            sent = text_message(number, 50_000)
            with Smtp(proxy.address) as client:
                client.sendmail(SENDER, [RECIPIENT], sent)
            self.assertSame(sent, without_received(content[number]), f"message {number}")
            proxy.wait_for_log("certificate verified")
        # Nobody whom the file does not vouch for is spoken to.
        stranger = Authority(self.place, "stranger")
        proxy = self.trabex(secured.port, sections={"TLS": {
            "Server": TLS_PORT, "ServerVerify": 1, "ServerCA": stranger.file, "ServerName": "server.example"}})
        self.assertEqual(self.connect(proxy.address).read_line()[:3], "421")
        proxy.wait_for_log("Error 40030. TLS failed: ")
        wait_until(lambda: refusals, "the refusal")
        self.assertEqual(refusals, ["TLSV1_ALERT_UNKNOWN_CA"])
        self.assertEqual(len(content), 2)


class InTimeZone(WineTrabex):
    zone = ""

    def command(self):
        return ["env", f"TZ={self.zone}", *super().command()]


class Time(WineScenario):
    def test_follows_the_time_zone(self):
        """The header and the log have the local time of the machine."""
        server = self.sample_server()
        for number, (zone, shown) in enumerate((("Asia/Kolkata", "+0530"), ("America/Caracas", "-0400"))):
            proxy = InTimeZone(self.place, server.port, json_log=True, start=False)
            proxy.zone = zone
            proxy.start()
            with Smtp(proxy.address) as client:
                client.sendmail(SENDER, [RECIPIENT], text_message(number))
            content = server.wait_for_messages(number + 1)[number].content
            dates = re.search(rb"; (.*) ([+-]\d{4})\r?\n", content)
            self.assertEqual(dates[2].decode(), shown)
            told = datetime.datetime.strptime(dates[1].decode(), "%a, %d %b %Y %H:%M:%S")
            stamp = datetime.datetime.strptime(proxy.log()[:17], "%d/%m/%y %H:%M:%S")
            now = datetime.datetime.now(zoneinfo.ZoneInfo(zone)).replace(tzinfo=None)
            for time in (told, stamp):
                self.assertLess(abs(now - time), datetime.timedelta(minutes=20))


if __name__ == "__main__":
    main()
