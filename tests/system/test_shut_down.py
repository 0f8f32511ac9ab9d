#!/usr/bin/env python3
"""The end of the program: by signal, by another instance, in the middle of sessions."""

import os
import signal
import socket

from trabex_system import (DOMAIN, LOOPBACK, Process, Scenario, connections_to, in_family, is_listening, main, run_trabex,
                           wait_until)

GOODBYE = "421 4.3.2 proxy.example is shutting down."


class InSessions(Scenario):
    def test_every_client_is_told(self):
        """Idle, within a transaction, within content, before the first word, refused but open."""
        server = self.sample_server()
        proxy = self.trabex(server.port, {"ValidateRDNS": 2, "HostsBlackList": "*", "LocalIPs": LOOPBACK})
        clients = []
        for lines in ([], ["EHLO client.example"], ["EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>"],
                      ["EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>", f"RCPT TO:<r@{DOMAIN}>", "DATA"]):
            for _ in range(5):
                client = self.connect(proxy.address)
                client.read_reply()
                for line in lines:
                    client.command(line)
                if len(lines) == 4:
                    client.send(b"half a message\r\n")
                clients.append(client)
        refused = self.connect(proxy.address, source=in_family("127.0.0.2"))
        self.assertEqual(refused.read_reply()[1:3], "54")
        self.assertEqual(proxy.end(), 0)
        for client in [*clients, refused]:
            self.assertEqual(client.read_to_end().decode(), GOODBYE + "\r\n")
        wait_until(lambda: connections_to(server.port) == 0, "the server's connections to end")
        self.assertEqual(server.count(), 0)
        lines = proxy.log_lines()
        self.assertEqual(lines[-1], "Trabex 3.04.012 stopped.")
        self.assertEqual(sum("> " + GOODBYE in line for line in lines), len(clients) + 1)
        self.assertFalse(is_listening(proxy.port))

    def test_a_client_that_does_not_read_holds_nothing_up(self):
        def flood(connection):
            connection.send_line("220 ready")
            while True:
                connection.send(b"250-still talking\r\n" * 1000)

        proxy = self.trabex(self.scripted_server(flood).port)
        deaf = self.connect(proxy.address, receive_buffer=4096)
        self.assertEqual(deaf.read_line(), "220 ready")
        other = self.connect(proxy.address)
        self.assertEqual(other.read_line(), "220 ready")
        other.close()
        self.assertEqual(proxy.end(), 0)


class BySignal(Scenario):
    def test_signals(self):
        server = self.sample_server()
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGQUIT):
            with self.subTest(number=number):
                proxy = self.trabex(server.port)
                client = self.connect(proxy.address)
                client.read_reply()
                proxy.process.send_signal(number)
                self.assertEqual(client.read_to_end().decode(), GOODBYE + "\r\n")
                client.close()
                self.assertEqual(proxy.process.wait(), 0)
                self.assertEqual(proxy.log_lines()[-1], "Trabex 3.04.012 stopped.")
                self.assertEqual((proxy.process.stdout(), proxy.process.stderr()), ("", ""))

    def test_hang_up_of_a_terminal_can_be_ignored(self):
        """As nohup does."""
        proxy = self.trabex(self.sample_server().port, start=False)
        proxy.wrapper = ["nohup"]
        proxy.start()
        before = proxy.log()
        proxy.process.send_signal(signal.SIGHUP)
        # It has seen the signal when it answers to something that came later.
        client = self.connect(proxy.address)
        self.assertEqual(client.read_reply()[:3], "220")
        self.assertEqual(client.command("NOOP")[:3], "250")
        self.assertIsNone(proxy.process.status())
        self.assertTrue(proxy.log().startswith(before))
        self.assertNotIn("reload", proxy.log(), "neither the end nor a request")
        self.assertEqual(proxy.end(), 0)

    def test_signals_without_meaning(self):
        """Sent to every process of it, in the middle of a session."""
        proxy = self.trabex(self.sample_server().port)
        client = self.connect(proxy.address)
        client.read_reply()
        self.assertEqual(client.command("NOOP")[:3], "250")
        before = proxy.log()
        for number in (signal.SIGUSR2, signal.SIGALRM, signal.SIGVTALRM, signal.SIGIO, signal.SIGPIPE,
                       signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU):
            with self.subTest(number=number):
                os.killpg(proxy.process.pid, number)
                self.assertEqual(client.command("NOOP")[:3], "250")
                self.assertIsNone(proxy.process.status())
        added = proxy.log()[len(before):].splitlines()
        self.assertTrue(all("NOOP" in line or " 250 " in line for line in added), added)
        client.close()
        self.assertEqual(proxy.end(), 0)

    def test_quit_key(self):
        """Ctrl-\\ reaches every process of it, the one that saves the greylisting records too: none is lost."""
        database = self.place.folder / "grey.gldb"
        proxy = self.trabex(self.sample_server().port, {"LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN},
                            sections={"GreyListing": {"Enabled": 1, "Database": database}})
        client = self.connect(proxy.address)
        client.read_reply()
        for line, code in (("EHLO client.example", "250"), ("MAIL FROM:<s@elsewhere.invalid>", "250"),
                           (f"RCPT TO:<r@{DOMAIN}>", "451")):
            self.assertEqual(client.command(line)[:3], code)
        # The reload saves in the background.
        proxy.process.send_signal(signal.SIGHUP)
        proxy.wait_for_log("Configuration reloaded")
        os.killpg(proxy.process.pid, signal.SIGQUIT)
        self.assertEqual(client.read_to_end().decode(), GOODBYE + "\r\n")
        client.close()
        self.assertEqual(proxy.process.wait(), 0)
        self.assertIn(b"elsewhere.invalid", database.read_bytes())

    def test_twice(self):
        """An impatient second signal changes nothing."""
        proxy = self.trabex(self.sample_server().port)
        client = self.connect(proxy.address)
        client.read_reply()
        for _ in range(5):
            proxy.process.send_signal(signal.SIGTERM)
        self.assertEqual(proxy.process.wait(), 0)
        self.assertEqual(client.read_to_end().decode(), GOODBYE + "\r\n")


class Instances(Scenario):
    def setUp(self):
        super().setUp()
        self.server = self.sample_server()

    def assertAlive(self, proxy):
        client = self.connect(proxy.address)
        self.assertEqual(client.read_reply()[:3], "220")
        client.close()

    def test_second_instance(self):
        proxy = self.trabex(self.server.port)
        status, out, err = run_trabex("/I", proxy.ini, "/HI")
        message = "The instance of this application listening on the same port already running."
        self.assertEqual((status, out), (1, ""))
        self.assertIn(message, err)
        self.assertEqual(proxy.log_lines()[-1], message)
        self.assertAlive(proxy)

    def test_side_by_side(self):
        proxies = [self.trabex(self.server.port) for _ in range(3)]
        for proxy in proxies:
            self.assertAlive(proxy)

    def test_exit_request(self):
        proxy, other = (self.trabex(self.server.port) for _ in range(2))
        client = self.connect(proxy.address)
        client.read_reply()
        self.assertEqual(run_trabex("/X", "/P", proxy.port), (0, "", ""))
        self.assertEqual(proxy.process.wait(), 0)
        self.assertEqual(client.read_to_end().decode(), GOODBYE + "\r\n")
        self.assertEqual(proxy.log_lines()[-1], "Trabex 3.04.012 stopped.")
        self.assertAlive(other)
        # By the port of the initialization file.
        self.assertEqual(run_trabex("/EXIT", "/I", other.ini), (0, "", ""))
        self.assertEqual(other.process.wait(), 0)

    def test_exit_request_to_nobody(self):
        proxy = self.trabex(self.server.port)
        self.assertEqual(proxy.end(), 0)
        self.assertEqual(run_trabex("/X", "/P", proxy.port), (0, "", ""))

    def test_exit_request_of_somebody_else(self):
        """Only the same user and root may ask."""
        if os.geteuid() != 0:
            self.skipTest("needs root to become somebody else")
        proxy = self.trabex(self.server.port)
        # A copy that another user can reach.
        copy = self.place.copy_program("Trabex")
        request = Process(self.place, "request", ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                                  copy, "/X", "/P", proxy.port])
        self.assertEqual(request.wait(), 4)
        self.assertEqual(request.stderr(), f"Trabex: The instance on port {proxy.port} belongs to another user.\n")
        self.assertAlive(proxy)

    def test_name_taken_by_another_user(self):
        """Anybody can take it; that is no instance of ours, and the start says so."""
        if os.geteuid() != 0:
            self.skipTest("needs root to become somebody else")
        proxy = self.trabex(self.server.port, start=False)
        script = ("import signal, socket, sys; taken = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); "
                  "taken.bind(chr(0) + sys.argv[1]); print('taken', flush=True); signal.pause()")
        name = f"5B0E7C19D4A24F36A1F863D20C97BE48{proxy.port}"
        for user, told in ((65534, "nobody"), (54321, "uid 54321")):
            with self.subTest(user=user):
                stranger = Process(self.place, "stranger", ["setpriv", f"--reuid={user}", f"--regid={user}",
                                                            "--clear-groups", "/usr/bin/python3", "-c", script, name])
                self.place.on_leaving(stranger.end)
                wait_until(lambda process=stranger: "taken" in process.stdout(), "the name to be taken")
                message = (f"A process of another user ({told}) holds the name of the instance listening on the same "
                           "port; no instance of our own user runs.")
                self.assertEqual(run_trabex("/I", proxy.ini, "/HI"), (1, "", f"Trabex: {message}\n"))
                self.assertEqual(proxy.log_lines()[-1], message)
                # It never reads; when the system buffers no more for it, a request does not block.
                with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender, \
                        self.assertRaises(BlockingIOError):
                    sender.setblocking(False)
                    while True:
                        sender.sendto(b"exit", f"\0{name}")
                self.assertEqual(run_trabex("/X", "/P", proxy.port),
                                 (1, "", f"Trabex: The instance on port {proxy.port} does not answer.\n"))
                self.assertIsNone(stranger.status())
                stranger.send_signal(signal.SIGKILL)
                stranger.wait()
        proxy.start()
        self.assertAlive(proxy)

    def test_the_port_is_free_again_at_once(self):
        proxy = self.trabex(self.server.port)
        for _ in range(3):
            self.assertAlive(proxy)
            self.assertEqual(proxy.end(), 0)
            proxy.start()
        self.assertAlive(proxy)

    def test_killed(self):
        """The lock goes with the process, however it ends."""
        proxy = self.trabex(self.server.port)
        self.assertEqual(proxy.end(signal.SIGKILL), -signal.SIGKILL)
        proxy.start()
        self.assertAlive(proxy)


class Kept(Scenario):
    """What is to survive the end."""

    def test_greylisting_database(self):
        server = self.sample_server()
        proxy = self.trabex(server.port, {"LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN},
                            sections={"GreyListing": {"Enabled": 1, "Log": 1,
                                                      "Database": self.place.folder / "grey.gldb"}})
        for attempt in range(1, 4):
            client = self.connect(proxy.address)
            client.read_reply()
            for line in ("EHLO client.example", "MAIL FROM:<s@elsewhere.invalid>"):
                self.assertEqual(client.command(line)[:3], "250")
            self.assertEqual(client.command(f"RCPT TO:<r@{DOMAIN}>"), "451 4.7.1 Greylisted. Delivery delayed.")
            self.assertEqual(client.command("DATA")[:1], "5", "no recipient, no content")
            client.close()
            proxy.wait_for_log(f"Attempts: {attempt};")
            self.assertEqual(proxy.end(), 0)
            proxy.start()
        decisions = [line for line in proxy.log_lines() if line.startswith("Greylisting: ")]
        self.assertEqual([line.split(" Attempts")[0] for line in decisions],
                         ["Greylisting: New, Delayed.", "Greylisting: Delayed.", "Greylisting: Delayed."])


if __name__ == "__main__":
    main()
