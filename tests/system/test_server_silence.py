#!/usr/bin/env python3
"""ServerTimeout and EnforceMaxSize: a server that hangs in each state, and messages that grow too large."""

import threading
import time

from trabex_system import DOMAIN, Scenario, Smtp, connections_to, main, polite_server, wait_until

UNAVAILABLE = "421 proxy.example is temporarily unavailable."
TOO_LONG = "Server time-out. Closing connection."
SECONDS = 1


def hang(connection, line):
    """Says nothing more until the other side closes."""
    connection.read_to_end()


def reads_content(connection, line):
    connection.send_line("354 go on")
    connection.read_content()
    hang(connection, line)


def reads_chunk(connection, line):
    connection.read_bytes(int(line.split(" ")[1]))
    hang(connection, line)


def says_half(connection, line):
    connection.send(b"250-half\r\n25")
    hang(connection, line)


ENVELOPE = [f"MAIL FROM:<s@{DOMAIN}>", f"RCPT TO:<r@{DOMAIN}>"]
# By the name with which the client says EHLO: what the server says instead, what the client says after EHLO, whether it is told,
# and how often the time passes.
STATES = {
    "ehlo": ({"EHLO": hang}, [], True, 1),
    "half": ({"NOOP": says_half}, ["NOOP"], True, 1),
    "mail": ({"MAIL": hang}, ENVELOPE[:1], True, 1),
    "rcpt": ({"RCPT": hang}, ENVELOPE, True, 1),
    "data": ({"DATA": hang}, [*ENVELOPE, "DATA"], True, 1),
    "content": ({"DATA": reads_content}, [*ENVELOPE, "DATA", "text\r\n."], True, 2),
    "chunk": ({"BDAT": reads_chunk}, [*ENVELOPE, "BDAT 4\r\nab"], True, 1),
    "last-chunk": ({"BDAT": reads_chunk}, [*ENVELOPE, "BDAT 4 LAST\r\nab"], True, 2),
    "quit": ({"QUIT": hang}, ["QUIT"], False, 1),
}


def hangs_by_name(connection):
    """A polite server until the state that the client's name says."""
    replies = {}

    def begins(connection, line):
        replies.update(STATES[line.split(" ")[1]][0])
        if replies["EHLO"] is hang:
            return hang(connection, line)
        return "250-server.example\r\n250 CHUNKING"

    replies["EHLO"] = begins
    polite_server(replies=replies)(connection)


class Silence(Scenario):
    """A server that says nothing more."""

    def play(self, proxy, lines, told, times):
        client = self.connect(proxy.address)
        if lines:
            client.read_reply()
        for line in lines[:-1]:
            client.command(line)
        if lines:
            client.send_line(lines[-1])
        begun = time.monotonic()
        said = client.read_to_end().decode()
        took = time.monotonic() - begun
        self.assertEqual(said, UNAVAILABLE + "\r\n" if told else "")
        # The program's time may have begun a little before ours.
        self.assertGreater(took, times * SECONDS - 0.3)

    def play_all(self, plays):
        """All at once, since each of them waits."""
        failures = []

        def play(state, arguments):
            try:
                self.play(*arguments)
            except BaseException as error:  # of a thread, which nobody else would see
                failures.append(f"{state}: {error!r}")

        threads = [threading.Thread(target=play, args=each) for each in plays.items()]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(failures, [])

    def test_ends_the_session_in_each_state(self):
        server = self.scripted_server(hangs_by_name)
        proxy = self.trabex(server.port, sections={"Service": {"ServerTimeout": SECONDS}})
        self.play_all({state: (proxy, ["EHLO " + state, *lines], told, times)
                       for state, (_, lines, told, times) in STATES.items()})
        wait_until(lambda: connections_to(server.port) == 0, "the server's connections to end")
        proxy.wait_for_log(TOO_LONG, len(STATES))
        self.assertEqual({line[0] for line in proxy.log_lines() if TOO_LONG in line}, {"S"})

    def test_before_its_greeting(self):
        server = self.scripted_server(lambda connection: hang(connection, ""))
        proxy = self.trabex(server.port, sections={"Service": {"ServerTimeout": SECONDS}})
        self.play_all({number: (proxy, [], True, 1) for number in range(20)})
        wait_until(lambda: connections_to(server.port) == 0, "the server's connections to end")
        proxy.wait_for_log(TOO_LONG, 20)


class Size(Scenario):
    """EnforceMaxSize."""

    def test_too_large_a_message_is_never_delivered(self):
        content = []
        server = self.scripted_server(polite_server(extensions=("SIZE 5000", "CHUNKING"), content=content))
        proxy = self.trabex(server.port, {"AddReceived": 0}, sections={"Service": {"EnforceMaxSize": 1}})
        reply = (552, b"5.3.4 Message size (%d bytes) exceeds fixed maximium message size (5000 bytes).")
        lines = (b"x" * 98 + b"\r\n") * 50
        for text, taken in ((lines, True), (lines + b"\r\n", False), (lines * 1000, False)):
            with Smtp(proxy.address) as client:
                client.ehlo()
                client.mail(f"s@{DOMAIN}")
                client.rcpt(f"r@{DOMAIN}")
                self.assertEqual(client.data(text), (250, b"taken") if taken
                                 else (reply[0], reply[1] % len(text)))
                if not taken:
                    client.close()
        for octets, taken in ((5000, True), (5001, False)):
            client = self.connect(proxy.address)
            client.read_reply()
            for line in ("EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>", f"RCPT TO:<r@{DOMAIN}>"):
                client.command(line)
            client.send(b"BDAT %d LAST\r\n" % octets + b"x" * octets)
            self.assertEqual(client.read_reply()[:3], "250" if taken else "552")
        wait_until(lambda: connections_to(server.port) <= 1, "the connections of what was refused to end")
        self.assertEqual([len(message) for message in content], [5000, 5000])


if __name__ == "__main__":
    main()
