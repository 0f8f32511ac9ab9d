#!/usr/bin/env python3
"""Who may connect, who is refused and how, and how long a session may stay."""

import socket

from messages import text_message
from trabex_system import (DOMAIN, FAMILY, LOOPBACK, Scenario, Smtp, connections_to, free_port, in_family, main,
                           polite_server, wait_until)


def name_of(ip):
    """The name that this machine knows for an address, or None."""
    try:
        return socket.gethostbyaddr(ip)[0]
    except OSError:
        return None


class Lists(Scenario):
    """Addresses of clients."""

    def setUp(self):
        super().setUp()
        self.server = self.sample_server()

    def assertAdmitted(self, proxy, source):
        client = self.connect(proxy.address, source=in_family(source))
        self.assertEqual(client.read_reply()[:3], "220", source)
        client.command("QUIT")
        client.close()

    def assertRefused(self, proxy, source):
        source = in_family(source)
        client = self.connect(proxy.address, source=source)
        self.assertEqual(client.read_to_end().decode(), f"554 Connection from {source} not allowed.\r\n")

    def test_black_list(self):
        proxy = self.trabex(self.server.port, {"IPBlackList": [in_family("127.0.0.2,127.0.0.8-127.0.0.9"),
                                                                in_family("127.1.0.0/16")]})
        for source in ("127.0.0.2", "127.0.0.8", "127.0.0.9", "127.1.0.0", "127.1.255.255"):
            self.assertRefused(proxy, source)
        for source in ("127.0.0.1", "127.0.0.3", "127.0.0.7", "127.0.0.10", "127.2.0.0", "127.0.255.255"):
            self.assertAdmitted(proxy, source)

    def test_allow_list(self):
        proxy = self.trabex(self.server.port, {"IPAllowList": in_family("127.0.0.1,127.0.0.4-127.0.0.5"),
                                               "IPBlackList": in_family("127.0.0.5")})
        for source in ("127.0.0.1", "127.0.0.4"):
            self.assertAdmitted(proxy, source)
        for source in ("127.0.0.2", "127.0.0.5", "127.0.0.6"):
            self.assertRefused(proxy, source)

    def test_white_list(self):
        proxy = self.trabex(self.server.port, {"IPAllowList": LOOPBACK, "IPBlackList": in_family("127.0.0.0/8"),
                                               "IPWhiteList": in_family("127.0.0.6"), "ValidateRDNS": 3,
                                               "HostsBlackList": "*"})
        self.assertAdmitted(proxy, "127.0.0.6")
        self.assertRefused(proxy, "127.0.0.1")
        self.assertRefused(proxy, "127.0.0.5")

    def test_a_refused_client_does_not_reach_the_server(self):
        server = self.scripted_server()
        proxy = self.trabex(server.port, {"IPBlackList": in_family("127.0.0.2")})
        for _ in range(5):
            self.assertRefused(proxy, "127.0.0.2")
        self.assertEqual(server.connections, [])


class Number(Scenario):
    """MaxConnections."""

    def test_too_many(self):
        proxy = self.trabex(self.sample_server().port, {"MaxConnections": 2})
        first, second = (self.connect(proxy.address) for _ in range(2))
        for client in (first, second):
            self.assertEqual(client.read_reply()[:3], "220")
        for _ in range(3):
            third = self.connect(proxy.address)
            self.assertEqual(third.read_to_end(), b"421 proxy.example is too busy. Try later.\r\n")
        self.assertEqual(second.command("QUIT")[:3], "221")
        # Three that had no server's side, and both sides of the one that left.
        proxy.wait_for_log("Disconnected.", 5)
        self.assertEqual(self.connect(proxy.address).read_reply()[:3], "220")

    def test_many_come_and_go(self):
        """A session that has ended is not counted, however it ended."""
        proxy = self.trabex(self.sample_server().port, {"MaxConnections": 1, "LogLevelServer": 0, "LogLevelRemote": 8})
        for number in range(50):
            client = self.connect(proxy.address)
            self.assertEqual(client.read_reply()[:3], "220", f"client {number}")
            if number % 2:
                client.command("QUIT")
                client.read_to_end()
            else:
                client.close()
            proxy.wait_for_log("Disconnected.", number + 1)


class Names(Scenario):
    """ValidateRDNS: the client's name in DNS."""

    def assertRefusedButOpen(self, client, greeting):
        """The proxy alone speaks with it, and says no to everything but QUIT."""
        self.assertEqual(client.read_line(), greeting)
        for line in ("EHLO client.example", "MAIL FROM:<s@test.example>", "NOOP", "WHAT"):
            self.assertEqual(client.command(line), "503 Bad sequence of commands.")
        self.assertEqual(client.command("QUIT"), "221 2.0.0 proxy.example closing connection.")
        self.assertEqual(client.read_to_end(), b"")

    def setUp(self):
        super().setUp()
        self.name = name_of(LOOPBACK)
        if not self.name:
            self.skipTest(f"this machine has no name for {LOOPBACK}")
        self.server = self.scripted_server()

    def test_black_list(self):
        proxy = self.trabex(self.server.port, {"ValidateRDNS": 1, "HostsBlackList": f"x,{self.name}"})
        self.assertRefusedButOpen(self.connect(proxy.address),
                                  f"554 Connection from {self.name} [{LOOPBACK}] not allowed.")
        self.assertEqual(self.server.connections, [])

    def test_allow_list(self):
        proxy = self.trabex(self.server.port, {"ValidateRDNS": 1, "HostsAllowList": "*.example"})
        self.assertRefusedButOpen(self.connect(proxy.address),
                                  f"554 Connection from {self.name} [{LOOPBACK}] not allowed.")

    def test_a_name_in_the_machines_own_table_leads_back(self):
        proxy = self.trabex(self.server.port, {"ConfirmHostNames": 1, "ValidateRDNS": 1, "HostsBlackList": self.name})
        self.assertRefusedButOpen(self.connect(proxy.address),
                                  f"554 Connection from {self.name} [{LOOPBACK}] not allowed.")

    def test_white_list(self):
        proxy = self.trabex(self.server.port, {"ValidateRDNS": 1, "HostsAllowList": "x", "HostsBlackList": "*",
                                               "HostsWhiteList": self.name.upper()})
        self.assertEqual(self.connect(proxy.address).read_reply()[:3], "220")

    def test_only_the_clients_asked_for(self):
        """1 means local clients, 2 remote ones; 0 leaves the lists without effect."""
        for mode, local, refused in ((0, True, False), (1, True, True), (2, True, False), (3, True, True),
                                     (0, False, False), (1, False, False), (2, False, True), (3, False, True)):
            with self.subTest(mode=mode, local=local):
                proxy = self.trabex(self.server.port, {"ValidateRDNS": mode, "HostsBlackList": "*",
                                                       "LocalIPs": LOOPBACK if local else "10.0.0.0/8"})
                self.assertEqual(self.connect(proxy.address).read_reply()[:3], "554" if refused else "220")

    def test_no_name(self):
        source = in_family("127.99.98.97")
        if name_of(source):
            self.skipTest(f"this machine has a name for {source}")
        proxy = self.trabex(self.server.port, {"ValidateRDNS": 3})
        self.assertRefusedButOpen(self.connect(proxy.address, source=source),
                                  f"454 Unable to verify DNS PTR record for {source}.")
        self.assertEqual(self.connect(proxy.address).read_reply()[:3], "220")


class Time(Scenario):
    """Timeout."""

    def test_refused_but_open(self):
        """A client that only the proxy speaks with is closed; an older one that reached the server is not."""
        proxy = self.trabex(self.sample_server().port, {"Timeout": 1, "ValidateRDNS": 2, "HostsBlackList": "*",
                                                        "LocalIPs": LOOPBACK})
        relayed = self.connect(proxy.address)
        self.assertEqual(relayed.read_reply()[:3], "220")
        refused = self.connect(proxy.address, source=in_family("127.0.0.2"))
        self.assertIn(refused.read_reply()[:3], ("554", "454"))
        self.assertEqual(refused.read_to_end(), b"")
        proxy.wait_for_log("Timeout exceeded. Closing connection.")
        self.assertEqual(relayed.command("NOOP")[:3], "250")

    def test_a_server_that_does_not_answer(self):
        """A full backlog: the connection is neither made nor refused."""
        port = free_port()
        listener = socket.create_server((LOOPBACK, port), family=FAMILY, backlog=0)
        self.addCleanup(listener.close)
        filling = []
        for _ in range(4):
            filler = socket.socket(FAMILY)
            filler.setblocking(False)
            filler.connect_ex((LOOPBACK, port))
            self.addCleanup(filler.close)
            filling.append(filler)
        proxy = self.trabex(port, {"Timeout": 1})
        client = self.connect(proxy.address)
        client.send(b"NOOP\r\n")
        self.assertEqual(client.read_to_end(), b"")
        proxy.wait_for_log("Timeout exceeded. Closing connection.")


class Sequence(Scenario):
    """Commands out of order."""

    def test_too_many(self):
        proxy = self.trabex(self.sample_server().port, {"MaxBadSeq": 3})
        client = self.connect(proxy.address)
        client.read_reply()
        client.send(b"MAIL FROM:<>\r\nRCPT TO:<a@b>\r\nDATA\r\nMAIL FROM:<>\r\nNOOP\r\n")
        self.assertEqual([client.read_line()[:3] for _ in range(4)], ["503"] * 4)
        self.assertEqual(client.read_to_end(), b"")
        proxy.wait_for_log("Maximum out-of-order commands exceeded. Closing connection.")

    def test_just_not_too_many(self):
        proxy = self.trabex(self.sample_server().port, {"MaxBadSeq": 3})
        client = self.connect(proxy.address)
        client.read_reply()
        for _ in range(3):
            self.assertEqual(client.command("DATA")[:3], "503")
        self.assertEqual(client.command("EHLO client.example")[:3], "250")
        self.assertEqual(client.command("QUIT")[:3], "221")


class LocalAndRemote(Scenario):
    """What a client may do depends on where it is."""

    def test_relaying(self):
        server = self.sample_server()
        proxy = self.trabex(server.port, {"LocalIPs": LOOPBACK, "LocalDomains": f"{DOMAIN},*.{DOMAIN}"})
        with Smtp(proxy.address) as local:
            local.sendmail(f"s@{DOMAIN}", ["r@elsewhere.invalid"], text_message(1))
        with Smtp(proxy.address, source=in_family("127.0.0.2")) as remote:
            remote.ehlo()
            remote.mail("s@elsewhere.invalid")
            self.assertEqual(remote.rcpt("r@elsewhere.invalid"),
                             (550, b"5.7.1 Relaying to elsewhere.invalid not allowed."))
            self.assertEqual(remote.rcpt(f"r@sub.{DOMAIN.upper()}")[0], 250)
            self.assertEqual(remote.rcpt(f"r%elsewhere.invalid@{DOMAIN}")[0], 550)
            self.assertEqual(remote.rcpt(f"r@{DOMAIN}")[0], 250)
            remote.data(text_message(2))
        self.assertEqual([message.recipients for message in server.wait_for_messages(2)],
                         [["r@elsewhere.invalid"], [f"r@sub.{DOMAIN.upper()}", f"r@{DOMAIN}"]])

    def test_limits(self):
        proxy = self.trabex(self.sample_server().port,
                            {"MaxRecipientsRemote": 2, "MaxTransactionsRemote": 1, "MaxSize": "10K",
                             "LocalIPs": LOOPBACK, "LocalDomains": "*"})
        with Smtp(proxy.address, source=in_family("127.0.0.2")) as remote:
            remote.ehlo()
            self.assertEqual(remote.esmtp_features["size"], "10240")
            self.assertEqual(remote.docmd(f"MAIL FROM:<s@{DOMAIN}> SIZE=10240")[0], 250)
            self.assertEqual([remote.rcpt(f"r{number}@{DOMAIN}")[0] for number in range(3)], [250, 250, 452])
            remote.data(text_message(1))
            self.assertEqual(remote.mail(f"s@{DOMAIN}"), (452, b"4.5.0 Too many transactions during one session."))
        with Smtp(proxy.address) as local:
            local.ehlo()
            self.assertEqual(local.docmd(f"MAIL FROM:<s@{DOMAIN}> SIZE=10241"),
                             (552, b"5.3.4 Message size (10241 bytes) exceeds fixed maximium message size "
                                   b"(10240 bytes)."))
            for _ in range(3):
                local.sendmail(f"s@{DOMAIN}", [f"r{number}@{DOMAIN}" for number in range(5)], text_message(1))


class Unreachable(Scenario):
    """The server's own view."""

    def test_one_connection_per_session(self):
        server = self.scripted_server(polite_server())
        proxy = self.trabex(server.port)
        clients = [self.connect(proxy.address) for _ in range(30)]
        for client in clients:
            client.read_reply()
        self.assertEqual(connections_to(server.port), 30)
        for client in clients:
            self.assertEqual(client.command("QUIT")[:3], "221")
        wait_until(lambda: connections_to(server.port) == 0, "the server's connections to end")


if __name__ == "__main__":
    main()
