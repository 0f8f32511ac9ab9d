#!/usr/bin/env python3
"""What the log says of a session, word for word, and what it never says."""

import os
import re
import shutil
import signal
from pathlib import Path

from messages import text_message
from trabex_system import DOMAIN, LOOPBACK, Scenario, Smtp, endpoint, main, polite_server, wait_until

# Side, handle, address, text.
SESSION_LINE = re.compile(r"^([RS]): \{([ \d-]{6})\} \[([ .:\w]{15})\] (.*)$")


class OneSession(Scenario):
    def session_lines(self, proxy):
        """(side, text) of the session's lines; each side keeps its handle and its address."""
        lines = []
        handles = {}
        for line in proxy.log_lines():
            if not (found := SESSION_LINE.match(line)):
                continue
            side, handle, address, text = found.groups()
            self.assertEqual(address, f"{LOOPBACK:>15}")
            self.assertEqual(handles.setdefault(side, handle), handle)
            self.assertRegex(handle, r"^ *\d+$")
            lines.append((side, text))
        return lines

    def run_session(self, settings=None):
        """One message, with what may go wrong in a session that goes well; returns the proxy after its end."""
        server = self.scripted_server(polite_server())
        proxy = self.trabex(server.port, {"SendersBlackList": "bad@*", **(settings or {})})
        client = self.connect(proxy.address)
        client.read_reply()
        for line in ("EHLO client.example", f"MAIL FROM:<bad@{DOMAIN}>", f"MAIL FROM:<s@{DOMAIN}> BODY=8BITMIME",
                     f"RCPT TO:<r@{DOMAIN}>", "DATA"):
            client.command(line)
        client.send(text_message(1) + b".\r\n")
        client.read_reply()
        client.command("QUIT")
        client.read_to_end()
        self.assertEqual(proxy.end(), 0)
        return proxy

    def expected(self):
        refusal = f"550 5.7.1 Mail from bad@{DOMAIN} not allowed."
        return [
            ("R", "Connection Request."),
            ("S", "Connected."),
            ("S", "< 220 server.example ESMTP¶"),
            ("R", "> 220 server.example ESMTP"),
            ("R", "< EHLO client.example¶"),
            ("S", "> EHLO client.example¶"),
            ("S", "< 250-server.example¶250-8BITMIME¶250 CHUNKING¶"),
            ("R", "> 250-server.example¶250-8BITMIME¶250 CHUNKING"),
            ("R", f"< MAIL FROM:<bad@{DOMAIN}>¶"),
            ("R", f"> {refusal}"),
            ("R", f"< MAIL FROM:<s@{DOMAIN}> BODY=8BITMIME¶"),
            ("S", f"> MAIL FROM:<s@{DOMAIN}> BODY=8BITMIME¶"),
            ("S", "< 250 ok¶"),
            ("R", "> 250 ok"),
            ("R", f"< RCPT TO:<r@{DOMAIN}>¶"),
            ("S", f"> RCPT TO:<r@{DOMAIN}>¶"),
            ("S", "< 250 ok¶"),
            ("R", "> 250 ok"),
            ("R", "< DATA¶"),
            ("S", "> DATA¶"),
            ("S", "< 354 go on¶"),
            ("R", "> 354 go on"),
            ("S", "< 250 taken¶"),
            ("R", "> 250 taken"),
            ("R", "< QUIT¶"),
            ("S", "> QUIT¶"),
            ("S", "< 221 bye¶"),
            ("R", "> 221 bye"),
            ("R", "Disconnected. Bytes received/sent: *"),
            ("S", "Disconnected. Bytes received/sent: *"),
        ]

    @staticmethod
    def without_counts(lines):
        return [(side, re.sub(r"(?<=sent: )\d+/\d+$", "*", text)) for side, text in lines]

    def test_every_line(self):
        proxy = self.run_session()
        self.assertEqual(self.without_counts(self.session_lines(proxy)), self.expected())
        others = [line for line in proxy.log_lines() if not SESSION_LINE.match(line)]
        self.assertEqual(others, [
            "Trabex 3.04.012 started.",
            f"Listen on: {endpoint(proxy.port)}; Connect to: {endpoint(proxy.settings['ServerPort'])}.",
            "Trabex 3.04.012 stopped."])
        # Each line is stamped and ends in CR LF.
        self.assertRegex(proxy.log(), r"\A(\d\d/\d\d/\d\d \d\d:\d\d:\d\d [^\r\n]+\r\n)+\Z")
        file, = proxy.log_folder.iterdir()
        self.assertRegex(file.name, rf"^Trabex-{proxy.port}-\d{{6}}\.log$")

    def test_counts(self):
        """What the log counts is what went over the wire."""
        content = []
        received = []
        server = self.scripted_server(polite_server(content=content, replies={
            "VRFY": lambda connection, line: received.append(line) or "252 x"}))
        proxy = self.trabex(server.port)
        with Smtp(proxy.address) as client:
            client.sendmail(f"s@{DOMAIN}", [f"r@{DOMAIN}"], text_message(1, 100_000))
        proxy.wait_for_log("Disconnected.", 2)
        (to_client, of_server) = [
            tuple(map(int, text.rsplit(": ", 1)[1].split("/")))
            for _, text in self.session_lines(proxy) if text.startswith("Disconnected.")]
        header = len(content[0]) - len(text_message(1, 100_000))
        # What the client said went on to the server as it was, but for the header in front of the content.
        self.assertEqual(of_server[1], to_client[0] + header)
        self.assertEqual(to_client[1], of_server[0])

    def test_levels(self):
        """Each bit brings its lines and no others."""
        classes = {1: (), 2: ("< ",), 4: ("> ",), 8: ("Connect", "Disconnect")}
        for server_level, client_level in ((0, 0), (1, 1), (2, 4), (4, 2), (8, 8), (8, 0), (15, 6)):
            proxy = self.run_session({"LogLevelServer": server_level, "LogLevelRemote": client_level})
            wanted = [(side, text) for side, text in self.expected()
                      if any(level & (server_level if side == "S" else client_level) and text.startswith(beginnings)
                             for level, beginnings in classes.items())]
            self.assertEqual(self.without_counts(self.session_lines(proxy)), wanted, (server_level, client_level))


class Moved(Scenario):
    """SIGUSR1 lets go of a file that was moved."""

    def open_files(self, proxy):
        return {os.readlink(file) for file in Path(f"/proc/{proxy.process.pid}/fd").iterdir()}

    def say(self, proxy, client, text):
        self.assertEqual(client.command(f"NOOP {text}")[:3], "250")
        wait_until(lambda: f"< NOOP {text}" in proxy.log(), f"the log line with {text}")

    def test_file_is_let_go(self):
        proxy = self.trabex(self.sample_server().port)
        client = self.connect(proxy.address)
        client.read_reply()
        self.say(proxy, client, "one")
        file, = proxy.log_folder.iterdir()
        moved = proxy.folder / "moved.log"
        file.rename(moved)
        # It is written to as long as no client says anything.
        self.assertEqual(client.command("NOOP two")[:3], "250")
        wait_until(lambda: b"NOOP two" in moved.read_bytes(), "the line in the moved file")
        proxy.process.send_signal(signal.SIGUSR1)
        proxy.wait_for_log("Log file reopened.")
        self.assertNotIn(str(moved), self.open_files(proxy))
        old = moved.read_bytes()
        self.say(proxy, client, "three")
        self.assertEqual(moved.read_bytes(), old)
        self.assertEqual(proxy.log_lines()[0], "Log file reopened.")
        client.close()
        self.assertEqual(proxy.end(), 0)
        # Every line is in one of the two.
        for text in (b"one", b"two", b"three"):
            self.assertEqual((old + file.read_bytes()).count(b"< NOOP " + text), 1, text)

    def test_folder_has_gone(self):
        # A folder that was not there at the start is a stranger to the sandbox.
        proxy = self.trabex(self.sample_server().port, sections={"Service": {"Sandbox": 0}})
        client = self.connect(proxy.address)
        client.read_reply()
        self.say(proxy, client, "one")
        shutil.rmtree(proxy.log_folder)
        proxy.process.send_signal(signal.SIGUSR1)
        proxy.wait_for_log("Log file reopened.")
        # Not even the folder above it is there: the lines are lost, the mail goes on.
        shutil.rmtree(proxy.folder)
        proxy.process.send_signal(signal.SIGUSR1)
        self.assertEqual(client.command("NOOP")[:3], "250")
        wait_until(lambda: not any(str(proxy.folder) in name for name in self.open_files(proxy)),
                   "the deleted file to be let go")
        proxy.folder.mkdir()
        self.say(proxy, client, "two")

    def test_without_a_log(self):
        proxy = self.trabex(self.sample_server().port, {"Log": 0})
        for _ in range(3):
            proxy.process.send_signal(signal.SIGUSR1)
        client = self.connect(proxy.address)
        client.read_reply()
        self.assertEqual(client.command("NOOP")[:3], "250")
        self.assertFalse(proxy.log_folder.exists())


class Hostile(Scenario):
    def test_nobody_forges_a_line(self):
        proxy = self.trabex(self.sample_server().port)
        client = self.connect(proxy.address)
        client.read_reply()
        client.send(b"EHLO a\x1b[2J\r\nEHLO a\n15/11/26 13:54:24 forged\r\nEHLO a\rb\0c\x7f\r\nNOOP\r\n")
        self.assertEqual([client.read_reply()[:3] for _ in range(4)], ["500", "500", "500", "250"])
        # A command of a terminal in one byte, a line separator, another direction of writing, a tag.
        client.send(b"NOOP \x9b2J\r\n" + "NOOP \u2028\u202e\U000e0041\r\n".encode())
        self.assertEqual([client.read_reply()[:3] for _ in range(2)], ["250", "250"])
        proxy.wait_for_log("\\x81")
        log = proxy.log()
        self.assertNotRegex(log, r"[\x00-\x09\x0b\x0c\x0e-\x1f\x7f]")
        self.assertNotRegex(log, r"(?<!\r)\n")
        self.assertNotRegex(log, r"\r(?!\n)")
        self.assertIn("< EHLO a\\x1B[2J¶", log)
        for side, sign in (("R", "<"), ("S", ">")):
            for shown in ("\\x9B2J", "\\xE2\\x80\\xA8\\xE2\\x80\\xAE\\xF3\\xA0\\x81\\x81"):
                self.assertRegex(log, f"{side}: .*" + re.escape(f"] {sign} NOOP {shown}¶"))
        self.assertNotRegex(log, r"(?m)^.{17} forged")

    def test_secrets(self):
        """Authentication data is not in the log, wherever the client says it."""
        def auth(connection, line):
            if line.count(" ") == 1:
                connection.send_line("334 VXNlcm5hbWU6")
                connection.read_line()
                connection.send_line("334 UGFzc3dvcmQ6")
                connection.read_line()
            return "235 welcome"

        server = self.scripted_server(polite_server(("AUTH PLAIN LOGIN",), replies={"AUTH": auth}))
        proxy = self.trabex(server.port)
        client = self.connect(proxy.address)
        client.read_reply()
        client.command("EHLO client.example")
        self.assertEqual(client.command("AUTH PLAIN c2VjcmV0MQ=="), "235 welcome")
        self.assertEqual(client.command("AUTH LOGIN"), "334 VXNlcm5hbWU6")
        self.assertEqual(client.command("c2VjcmV0Mg=="), "334 UGFzc3dvcmQ6")
        self.assertEqual(client.command("c2VjcmV0Mw=="), "235 welcome")
        self.assertEqual(client.command("NOOP"), "250 ok")
        log = proxy.log()
        self.assertNotIn("c2VjcmV0", log)
        self.assertIn("AUTH PLAIN ***", log)


if __name__ == "__main__":
    main()
