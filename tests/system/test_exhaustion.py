#!/usr/bin/env python3
"""No descriptor is left, or no memory: the sessions that are there go on, and so does the service afterwards."""

import collections
import os
import resource
import select
import ssl

from trabex_system import (Authority, HungUp, Options, Scenario, connections_to, in_family, keeps_freed_memory, main,
                           polite_server, trusting, wait_until)


class Exhausted(Scenario):
    """A Trabex with one session, which goes on."""

    def begin(self, server, settings=None, **more):
        self.proxy = self.trabex(server.port, {"ValidateRDNS": 0, **(settings or {})}, **more)
        self.session = self.greeted()

    def greeted(self):
        client = self.connect(self.proxy.address)
        self.assertEqual(client.read_reply()[:3], "220")
        self.assertEqual(client.command("EHLO client.example")[:3], "250")
        return client

    def limit(self, what, soft):
        hard = resource.prlimit(self.proxy.process.pid, what)[1]
        resource.prlimit(self.proxy.process.pid, what, (soft, hard))

    def assertGoesOn(self):
        self.assertIsNone(self.proxy.process.status(), "it runs")
        self.assertEqual(self.session.command("NOOP"), "250 ok")


class Descriptors(Exhausted):
    def test_no_descriptor(self):
        self.begin(self.scripted_server())
        held = len(os.listdir(f"/proc/{self.proxy.process.pid}/fd"))
        self.limit(resource.RLIMIT_NOFILE, held + 21)
        clients = [self.connect(self.proxy.address) for _ in range(40)]
        self.proxy.wait_for_log("Accepting pauses until a session ends.")
        served = [client for client in clients[:8] if client.read_reply()[:3] == "220"]
        self.assertEqual(len(served), 8)
        self.assertGoesOn()
        # Each that leaves makes room for one that waits.
        for client in clients:
            client.close()
        wait_until(lambda: connections_to(self.proxy.port) == 1, "the other sessions to end")
        self.greeted().close()
        self.assertGoesOn()
        self.limit(resource.RLIMIT_NOFILE, held + 1000)
        for client in [self.greeted() for _ in range(40)]:
            self.assertEqual(client.command("NOOP"), "250 ok")


class Memory(Exhausted):
    """A limit on the address space, at what is used already."""

    ROUNDS = 6
    STEP = 100 << 10
    HELP = "\r\n".join(f"214-{'a long line of help' * 40}" for _ in range(80)) + "\r\n214 that is all"
    BALANCER = in_family("127.0.0.2")

    def setUp(self):
        super().setUp()
        if Options.through == "trabex" and keeps_freed_memory():
            self.skipTest("what a sanitizer needs has no bound")
        self.certificate = Authority(self.place).issue(["localhost"])
        extensions, replies, tls = self.server()
        polite = polite_server(("8BITMIME", "CHUNKING", "SIZE 100000000", *extensions), None, {"HELP": self.HELP, **replies})

        def dialogue(connection):
            try:
                polite(connection)
            except ssl.SSLError as error:
                raise HungUp from error

        self.begin(self.scripted_server(dialogue), {"ProxyProtocolFrom": self.BALANCER, "LocalDomains": "*"},
                   sections={"TLS": {"Certificate": self.certificate.both, **tls}, "Service": {"JsonEvents": "session"}})
        self.kinds = {"plain": self.mail, "TLS": self.mail_under_tls, "header of a balancer": self.mail_behind_balancer,
                      "large chunks": self.large_chunks, "many recipients": self.many_recipients,
                      "long replies": self.long_replies}

    def server(self):
        """What it offers and replies beside what any does, and what is set for it in section TLS."""
        return (), {}, {}

    # ---- each raises when it is not served as ever

    def expect(self, client, line, code):
        client.send_line(line)
        self.judge(client, code, client.read_reply(), line[:40])

    def judge(self, client, code, reply, what):
        if reply[:3] == "421":
            self.assertEqual(reply, "421 proxy.example is temporarily unavailable.")
            self.assertEqual(client.read_to_end(), b"")
            raise Refused
        self.assertEqual(reply[:3], code, f"{what}: {reply[:300]}")

    def open(self, **more):
        return self.connect(self.proxy.address, **more)

    def greet(self, client):
        self.judge(client, "220", client.read_reply(), "the greeting")
        self.expect(client, "EHLO client.example", "250")

    def mail(self, client=None):
        client = client or self.open()
        self.greet(client)
        self.finish(client)

    def finish(self, client):
        for line, code in (("MAIL FROM:<s@test.example>", "250"), ("RCPT TO:<r@test.example>", "250"), ("DATA", "354"),
                           ("a: b\r\n\r\n" + 200 * "a line of content\r\n" + ".", "250"), ("QUIT", "221")):
            self.expect(client, line, code)

    def mail_under_tls(self):
        client = self.open()
        self.greet(client)
        self.expect(client, "STARTTLS", "220")
        client.start_tls(trusting(None))
        self.expect(client, "EHLO client.example", "250")
        self.finish(client)

    def mail_behind_balancer(self):
        client = self.open(source=self.BALANCER)
        client.send_line("PROXY TCP4 192.0.2.7 192.0.2.1 40000 25" if ":" not in self.BALANCER else
                         "PROXY TCP6 2001:db8::7 2001:db8::1 40000 25")
        self.mail(client)

    def large_chunks(self):
        client = self.open()
        self.greet(client)
        self.expect(client, "MAIL FROM:<s@test.example>", "250")
        self.expect(client, "RCPT TO:<r@test.example>", "250")
        for last in "", "", " LAST":
            client.send(f"BDAT 500000{last}\r\n".encode("ascii") + bytes(499998))
            self.expect(client, "", "250")
        self.expect(client, "QUIT", "221")

    def many_recipients(self):
        client = self.open()
        self.greet(client)
        self.expect(client, "MAIL FROM:<s@test.example>", "250")
        for number in range(50):
            self.expect(client, f"RCPT TO:<{'r' * 50}{number}@{'a-long-domain.' * 10}test.example>", "250")
        self.expect(client, "QUIT", "221")

    def long_replies(self):
        client = self.open()
        self.greet(client)
        for _ in range(5):
            self.expect(client, "HELP", "214")
        self.expect(client, "QUIT", "221")

    # ----

    def address_space(self):
        with open(f"/proc/{self.proxy.process.pid}/statm", encoding="ascii") as table:
            return int(table.read().split()[0]) * resource.getpagesize()

    def use_up(self):
        """Limits the memory to what there is, and has clients hold all of it: each a line that does not end."""
        limit = self.address_space()
        self.limit(resource.RLIMIT_AS, limit)
        refused = 0
        poll = select.poll()
        clients = {}
        for _ in range(2000):
            client = self.open()
            try:
                self.greet(client)
                client.send(b"x" * 1500)
                clients[client.socket.fileno()] = client
                poll.register(client.socket, select.POLLIN)
            except Refused:
                refused += 1
            for descriptor, _ in poll.poll(0):
                poll.unregister(descriptor)
                client = clients.pop(descriptor)
                with self.assertRaises(Refused):
                    self.judge(client, "421", client.read_reply(), "a line without an end")
                refused += 1
            if refused >= 20:
                return limit
        return self.fail("there is memory for everybody")

    def outcome(self, play):
        """How a session went: served, refused by 421, or cut off."""
        try:
            play()
        except Refused:
            return "421"
        except (HungUp, OSError):
            return "end"
        return "served"

    def test_no_memory(self):
        limit = self.use_up()
        outcomes = {kind: [] for kind in self.kinds}
        # With a little more room each time.
        for number in range(self.ROUNDS):
            for kind, play in self.kinds.items():
                with self.subTest(kind=kind):
                    outcomes[kind].append(self.outcome(play))
            self.assertGoesOn()
            self.limit(resource.RLIMIT_AS, limit + (number + 1) * self.STEP)
        self.limit(resource.RLIMIT_AS, resource.RLIM_INFINITY)
        self.assertNotEqual({ends[0] for ends in outcomes.values()}, {"served"})
        for kind, ends in outcomes.items():
            # Without memory for a handshake there is no way to say so, and before a header nothing is said.
            if kind not in ("TLS", "header of a balancer"):
                self.assertNotIn("end", ends, kind)
        for play in self.kinds.values():
            play()
        self.assertGoesOn()
        all_ends = collections.Counter(end for ends in outcomes.values() for end in ends)
        print("sessions without memory:", ", ".join(f"{count} {end}" for end, count in sorted(all_ends.items())))


    def test_end_without_memory(self):
        """Whoever is there is told so, and the program ends as ever."""
        self.use_up()
        self.assertEqual(self.proxy.end(), 0)
        self.assertEqual(self.session.read_reply()[:3], "421")


class MemoryWithServerUnderTls(Memory):
    """The same where each session has TLS with the server, too, and ends with 421 when there is no memory for that."""

    def server(self):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.certificate.chain, self.certificate.key)

        def start_tls(connection, _):
            connection.send_line("220 go on")
            connection.socket = context.wrap_socket(connection.socket, server_side=True)

        return ("STARTTLS",), {"STARTTLS": start_tls}, {"Server": 2}


class Refused(Exception):
    """By 421."""


if __name__ == "__main__":
    main()
