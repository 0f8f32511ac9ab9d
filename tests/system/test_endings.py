#!/usr/bin/env python3
"""Peers that hang up, refuse, are not there, are slow, or close one half only."""

import socket
import threading

from messages import binary_lines, text_message
from trabex_system import (DOMAIN, FAMILY, LOOPBACK, HungUp, Options, Scenario, Smtp, bound, connections_to,
                           describe_difference, free_port, keeps_freed_memory, main, polite_server, queued_bytes,
                           unread_bytes, wait_until)

UNAVAILABLE = "421 proxy.example is temporarily unavailable."


class Server(Scenario):
    """What the server does."""

    def test_not_there(self):
        proxy = self.trabex(free_port())
        client = self.connect(proxy.address)
        self.assertEqual(client.read_to_end().decode(), UNAVAILABLE + "\r\n")
        proxy.wait_for_log("Disconnected.")
        self.assertTrue(any(line.startswith("S: ") and "Error 10061. " in line for line in proxy.log_lines()))

    def test_comes_later(self):
        """Each session tries anew."""
        proxy = self.trabex(port := free_port())
        self.assertEqual(self.connect(proxy.address).read_line(), UNAVAILABLE)
        listener = socket.create_server((LOOPBACK, port), family=FAMILY)
        self.addCleanup(listener.close)
        client = self.connect(proxy.address)
        server, _ = listener.accept()
        self.addCleanup(server.close)
        server.sendall(b"220 here I am\r\n")
        self.assertEqual(client.read_reply(), "220 here I am")

    def test_refuses_with_its_greeting(self):
        def dialogue(connection):
            connection.send_line("554 not today")

        proxy = self.front(self.scripted_server(dialogue).port)
        self.assertEqual(self.connect(proxy.address).read_to_end(), b"554 not today\r\n")

    def test_says_nothing_and_hangs_up(self):
        proxy = self.front(self.scripted_server(lambda connection: None).port)
        self.assertEqual(self.connect(proxy.address).read_to_end(), b"")

    def test_hangs_up_inside_a_line(self):
        for said in (b"421 no time", b"220-wait\r\n220 for", b"2"):
            proxy = self.trabex(self.scripted_server(lambda connection, said=said: connection.send(said)).port)
            self.assertEqual(self.connect(proxy.address).read_to_end(), said + b"\r\n")

    def test_hangs_up_after_a_reply(self):
        """What it has said reaches the client, though the client has sent more that is never read."""
        def quits(connection, line):
            connection.send_line("421 leaving")
            raise HungUp

        proxy = self.trabex(self.scripted_server(polite_server(replies={"NOOP": quits})).port)
        for _ in range(20):
            client = self.connect(proxy.address)
            client.read_reply()
            client.command("EHLO client.example")
            client.send(b"NOOP\r\n" + b"VRFY somebody\r\n" * 100)
            self.assertEqual(client.read_reply(), "421 leaving")
            # The next line may have been on its way to the server already; it has a reply of its own then.
            self.assertIn(client.read_to_end(), (b"", UNAVAILABLE.encode("ascii") + b"\r\n"))

    def test_hangs_up_in_the_content(self):
        def breaks_off(connection, line):
            connection.send_line("354 go on")
            connection.read_bytes(100_000)
            raise HungUp

        proxy = self.front(self.scripted_server(polite_server(replies={"DATA": breaks_off})).port)
        client = self.connect(proxy.address)
        client.read_reply()
        for line in ("EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>", f"RCPT TO:<r@{DOMAIN}>", "DATA"):
            client.command(line)
        # How far the client gets is a matter of buffers; but it is told, or finds the connection at its end.
        try:
            for _ in range(2000):
                client.send(b"x" * 70 + b"\r\n" * 1000)
            told = client.read_to_end()
        except ConnectionError:
            told = b""
        self.assertIn(told, (b"", UNAVAILABLE.encode("ascii") + b"\r\n"))

    def test_resets(self):
        def resets(connection, line):
            connection.reset()
            raise HungUp

        proxy = self.trabex(self.scripted_server(polite_server(replies={"NOOP": resets})).port)
        client = self.connect(proxy.address)
        client.read_reply()
        client.command("EHLO client.example")
        self.assertEqual(client.command("NOOP"), UNAVAILABLE)
        self.assertEqual(client.read_to_end(), b"")

    def test_slow(self):
        """Byte by byte; and no reply is taken for that of another command."""
        step = threading.Event()

        def slowly(connection):
            def say(text):
                for byte in text.encode("ascii"):
                    connection.send(bytes([byte]))

            say("220-server.example\r\n220 ready\r\n")
            while True:
                verb = connection.read_line().split(" ")[0]
                if verb == "NOOP":
                    # Only when the client has long sent its next command.
                    self.assertTrue(step.wait(bound(20)))
                say({"EHLO": "250-server.example\r\n250-8BITMIME\r\n250 HELP\r\n", "NOOP": "250 noop done\r\n",
                     "VRFY": "252 vrfy done\r\n", "QUIT": "221 bye\r\n"}[verb])

        proxy = self.front(self.scripted_server(slowly).port)
        client = self.connect(proxy.address)
        self.assertEqual(client.read_reply(), "220-server.example\n220 ready")
        self.assertEqual(client.command("EHLO client.example"), "250-server.example\n250-8BITMIME\n250 HELP")
        client.send(b"NOOP\r\nVRFY x\r\nQUIT\r\n")
        step.set()
        self.assertEqual([client.read_reply() for _ in range(3)], ["250 noop done", "252 vrfy done", "221 bye"])

    def test_slow_reader(self):
        """A server that takes its time over the content: the rest waits with the client, and all of it arrives."""
        content = binary_lines(1, 20 << 20)
        taken = []
        go_on = threading.Event()

        def reads_late(connection, line):
            connection.send_line("354 go on")
            self.assertTrue(go_on.wait(bound(30)))
            taken.append(connection.read_content())
            return "250 taken"

        proxy = self.front(self.scripted_server(polite_server(replies={"DATA": reads_late})).port, {"AddReceived": 0})
        measures = Options.through == "trabex" and not keeps_freed_memory()
        before = proxy.process.peak_bytes() if measures else 0
        failure = []

        def deliver():
            try:
                with Smtp(proxy.address) as client:
                    client.sendmail(f"s@{DOMAIN}", f"r@{DOMAIN}", content, ["BODY=8BITMIME"])
            except Exception as error:
                failure.append(error)

        sending = threading.Thread(target=deliver, daemon=True)
        sending.start()
        # As long as the server does not read, the client is held: nothing moves any more.
        queues = []

        def standstill():
            queues.append(queued_bytes(proxy.port))
            return len(queues) > 20 and sum(queues[-1]) > 0 and len(set(queues[-20:])) == 1

        wait_until(standstill, "the client to be held")
        go_on.set()
        sending.join(bound(60))
        self.assertEqual(failure, [])
        self.assertSame(content, taken[0], "the message")
        if measures:
            self.assertLess(proxy.process.peak_bytes(), before + (8 << 20), "the proxy does not swallow the message")


class Client(Scenario):
    """What the client does."""

    def test_hangs_up(self):
        """Wherever in the dialogue: the server's connection goes too."""
        for lines in ([], ["EHLO client.example"], ["EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>"],
                      ["EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>", f"RCPT TO:<r@{DOMAIN}>", "DATA"]):
            for reset in (False, True):
                with self.subTest(lines=lines, reset=reset):
                    server = self.scripted_server()
                    proxy = self.front(server.port)
                    client = self.connect(proxy.address)
                    client.read_reply()
                    for line in lines:
                        client.command(line)
                    self.assertEqual(connections_to(server.port), 1)
                    if reset:
                        client.reset()
                    else:
                        client.close()
                    wait_until(lambda: connections_to(server.port) == 0, "the server's connection to end")

    def test_hangs_up_in_the_content(self):
        """Half a message is no message."""
        server = self.sample_server()
        proxy = self.front(server.port)
        client = self.connect(proxy.address)
        client.read_reply()
        for line in ("EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>", f"RCPT TO:<r@{DOMAIN}>", "DATA"):
            client.command(line)
        client.send(b"half a message\r\n")
        client.close()
        wait_until(lambda: connections_to(server.port) == 0, "the server's connection to end")
        self.assertEqual(server.count(), 0)

    def test_half_closes(self):
        """A client that has said everything, and its end with it, as "printf ... | nc" does.

        The session may end there (the client has hung up), but what was complete before is not lost.
        """
        server = self.sample_server()
        proxy = self.front(server.port)
        client = self.connect(proxy.address)
        client.read_reply()
        for line in ("EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>", f"RCPT TO:<r@{DOMAIN}>", "DATA"):
            client.command(line)
        client.send(b"a whole message\r\n.\r\n")
        client.finish_sending()
        server.wait_for_messages(1)
        client.read_to_end()
        wait_until(lambda: connections_to(server.port) == 0, "the server's connection to end")

    def test_byte_by_byte(self):
        server = self.sample_server()
        proxy = self.front(server.port)
        client = self.connect(proxy.address)
        client.read_reply()
        for line, code in [("EHLO client.example", "250"), (f"MAIL FROM:<s@{DOMAIN}>", "250"),
                           (f"RCPT TO:<r@{DOMAIN}>", "250"), ("DATA", "354"), ("a line\r\n.", "250"), ("QUIT", "221")]:
            for byte in f"{line}\r\n".encode("ascii"):
                client.send(bytes([byte]))
            self.assertEqual(client.read_reply()[:3], code, line)
        self.assertEqual(server.count(), 1)

    def test_does_not_read(self):
        """A client that sends commands and reads no reply is held back, and holds up no other session."""
        server = self.sample_server()
        proxy = self.front(server.port)
        deaf = self.connect(proxy.address, receive_buffer=4096)
        deaf.read_reply()
        deaf.command("EHLO client.example")
        deaf.socket.setblocking(False)
        sent = 0
        try:
            while sent < 50_000_000:
                sent += deaf.socket.send(b"VRFY somebody\r\n" * 1000)
        except BlockingIOError:
            pass
        self.assertLess(sent, 50_000_000, "it is held at some time")
        with Smtp(proxy.address) as client:
            client.sendmail(f"s@{DOMAIN}", f"r@{DOMAIN}", text_message(1))
        self.assertEqual(server.count(), 1)

    def test_reads_slowly(self):
        """A reply that is longer than all buffers between, to a client that reads late."""
        lines = "".join(f"250-line {number} of a long reply\r\n" for number in range(400_000)) + "250 end\r\n"

        def long_reply(connection, line):
            connection.send(lines.encode("ascii"))

        server = self.scripted_server(polite_server(replies={"HELP": long_reply}))
        proxy = self.front(server.port)
        client = self.connect(proxy.address, receive_buffer=4096)
        client.read_reply()
        client.command("EHLO client.example")
        client.send_line("HELP")
        seen = []

        def standstill():
            seen.append(unread_bytes(proxy.port, server.port))
            return len(seen) > 20 and min(seen[-1]) > 0 and len(set(seen[-20:])) == 1

        wait_until(standstill, "the server to be held")
        reply = client.read_reply().replace("\n", "\r\n") + "\r\n"
        self.assertEqual(describe_difference(lines, reply), "")
        self.assertEqual(client.command("QUIT"), "221 bye")


if __name__ == "__main__":
    main()
