#!/usr/bin/env python3
"""A mail server for one test: mail_sink.py PORT FILE. It takes everything from clients that tell by XCLIENT for whom they
come, and appends to the file what it was told and given. Says on its first line that it listens; the end of its input is
its end."""

import socketserver
import sys
import threading

PORT, FILE = int(sys.argv[1]), sys.argv[2]


class Session(socketserver.StreamRequestHandler):
    def say(self, *lines):
        self.wfile.write("".join(f"{line}\r\n" for line in lines).encode())

    def keep(self, text):
        with open(FILE, "a", encoding="utf-8") as file:
            file.write(text)

    def take_content(self):
        self.say("354 Go on")
        while (line := self.rfile.readline()) not in (b".\r\n", b""):
            self.keep(line.decode(errors="replace"))
        self.say("250 2.0.0 Taken")

    def handle(self):
        self.say("220 sink.example.org ESMTP")
        while line := self.rfile.readline().decode(errors="replace").strip():
            verb = line.split()[0].upper()
            if verb == "XCLIENT":
                self.keep(f"{line}\n")
                self.say("220 sink.example.org ESMTP")
            elif verb == "EHLO":
                self.say("250-sink.example.org", "250 XCLIENT NAME ADDR PORT")
            elif verb == "DATA":
                self.take_content()
            elif verb == "QUIT":
                return self.say("221 2.0.0 Bye")
            else:
                self.say("250 2.0.0 Ok")


class Server(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True


with Server(("127.0.0.1", PORT), Session) as server:
    print("listening", flush=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    sys.stdin.read()
    server.shutdown()
