"""The servers that Trabex relays to in the system tests, and the relays that can take its place."""

import contextlib
import os
import re
import shutil
import signal
import smtplib
import socket
import threading
import time
import traceback
import unittest

from addresses import FAMILY, IPV6, LOOPBACK, bracketed, endpoint, in_family
from dialogue import Connection, HungUp
from processes import DOMAIN, Process, bound, connections_to, free_port, program, wait_until


class StoredMessage:
    """One message as the sample mail server stored it."""

    def __init__(self, path):
        self.path = path
        self.content = path.read_bytes()
        self.helo = self.client = self.sender = ""
        self.recipients = []
        for line in path.with_suffix(".envelope").read_text(errors="surrogateescape").splitlines():
            name, value = line.split(": ", 1)
            if name == "rcpt":
                self.recipients.append(value)
            elif name == "mail":
                self.sender = value
            elif name == "helo":
                self.helo = value
            elif name == "client":
                self.client = value


class SampleServer:
    """The sample mail server; it keeps each message byte for byte."""

    def __init__(self, place, *arguments, mail=None):
        self.mail = mail or place.new_folder("mail")
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        self.process = Process(place, "sample_mail_server",
                               [program("tools/sample_mail_server/sample_mail_server"),
                                "--address", LOOPBACK, "--port", self.port, "--folder", self.mail, *arguments])
        place.on_leaving(self._leave)
        self.process.wait_listening(self.port)

    def _leave(self):
        status = self.process.end()
        if status != 0:
            raise AssertionError(f"the sample mail server ended with status {status}:\n{self.process.stderr()}")

    def count(self):
        return len(list(self.mail.glob("*.eml")))

    @staticmethod
    def read(path):
        return StoredMessage(path)

    def messages(self):
        """All messages in the order of their arrival."""
        return [self.read(path) for path in sorted(self.mail.glob("*.eml"), key=lambda path: int(path.stem))]

    def wait_for_messages(self, count, seconds=60):
        wait_until(lambda: self.count() >= count, f"{count} messages", seconds)
        return self.messages()

    def wait_for_count(self, count, seconds=60):
        wait_until(lambda: self.count() >= count, f"{count} messages", seconds)


class SmtpSink:
    """Postfix's own sink: takes mail as fast as it comes and forgets it."""

    def __init__(self, place, connections=4096, patience=100):
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        # Seconds after which it leaves a client that says nothing.
        command = ["smtp-sink", "-m", connections, "-t", patience]
        if os.geteuid() == 0:
            command += ["-u", "nobody"]
        self.process = Process(place, "smtp-sink", [*command, endpoint(self.port), connections])
        place.on_leaving(self.process.end)
        self.process.wait_listening(self.port)


def bracketed_networks(text):
    """Networks of this run's family as Postfix wants them."""
    return re.sub(r"([0-9a-f]*:[0-9a-f:]*)", r"[\1]", in_family(text))


class Postfix:
    """A Postfix of the scenario's own: everything it has is in the place, and it delivers into one Maildir.

    With a `certificate` it offers STARTTLS, and has a second port, `tls_port`, with TLS from the first byte. `smtpd` are
    settings of its smtpd alone.
    """

    def __init__(self, place, settings=None, certificate=None, smtpd=None):
        if os.geteuid() != 0:
            raise unittest.SkipTest("Postfix runs as root only")
        folder = place.new_folder("postfix")
        self._configuration = folder / "etc"
        self._queue = folder / "queue"
        self.maildir = folder / "box" / "mail"
        self._log = folder / "postfix.log"
        for path in (self._configuration, self._queue, folder / "data", folder / "box"):
            path.mkdir()
        shutil.chown(folder / "data", "postfix")
        shutil.chown(folder / "box", "nobody", "nogroup")
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        nobody = os.stat(folder / "box").st_uid, os.stat(folder / "box").st_gid
        main = {
            "compatibility_level": "3.6", "queue_directory": self._queue, "data_directory": folder / "data",
            "command_directory": "/usr/sbin", "daemon_directory": "/usr/lib/postfix/sbin", "mail_owner": "postfix",
            "setgid_group": "postdrop", "maillog_file": self._log, "maillog_file_prefixes": folder,
            "inet_interfaces": LOOPBACK, "inet_protocols": "ipv6" if IPV6 else "ipv4", "myhostname": "server.example",
            "mynetworks": bracketed_networks("127.0.0.0/8"), "mydestination": "", "alias_maps": "", "alias_database": "",
            "local_recipient_maps": "", "virtual_mailbox_domains": DOMAIN,
            "virtual_mailbox_base": folder / "box", "virtual_mailbox_maps": "static:mail/",
            "virtual_uid_maps": f"static:{nobody[0]}", "virtual_gid_maps": f"static:{nobody[1]}",
            "virtual_mailbox_limit": 0, "mailbox_size_limit": 0, "message_size_limit": 0,
            # The content is to be compared: nothing is added to it, and an empty disk is no condition.
            "local_header_rewrite_clients": "", "queue_minfree": 0, "smtpd_peername_lookup": "no",
            "virtual_destination_concurrency_limit": 20, "virtual_destination_recipient_limit": 1,
            "smtpd_client_connection_count_limit": 0, "default_process_limit": 100,
        }
        services = [f"{endpoint(self.port)} inet n - n - - smtpd"]
        if certificate:
            self.tls_port = free_port()
            services.append(f"{endpoint(self.tls_port)} inet n - n - - smtpd -o smtpd_tls_wrappermode=yes")
            main.update({"smtpd_tls_security_level": "may", "smtpd_tls_chain_files": certificate.both,
                         "smtpd_tls_loglevel": 1})
        main.update(settings or {})
        own = "".join(f" -o {key}={value}" for key, value in (smtpd or {}).items())
        (self._configuration / "main.cf").write_text("".join(f"{key} = {value}\n" for key, value in main.items()))
        (self._configuration / "master.cf").write_text("".join(
            f"{line}\n" for line in (
                *(f"{service}{own}" for service in services),
                "cleanup unix n - n - 0 cleanup", "qmgr unix n - n 300 1 qmgr",
                "rewrite unix - - n - - trivial-rewrite",
                "bounce unix - - n - 0 bounce", "defer unix - - n - 0 bounce", "trace unix - - n - 0 bounce",
                "verify unix - - n - 1 verify", "flush unix n - n 1000? 0 flush", "proxymap unix - - n - - proxymap",
                "proxywrite unix - - n - 1 proxymap", "smtp unix - - n - - smtp", "relay unix - - n - - smtp",
                "showq unix n - n - - showq", "error unix - - n - - error", "retry unix - - n - - error",
                "discard unix - - n - - discard", "local unix - n n - - local", "virtual unix - n n - - virtual",
                "lmtp unix - - n - - lmtp", "anvil unix - - n - 1 anvil", "scache unix - - n - 1 scache",
                "tlsmgr unix - - n 1000? 1 tlsmgr", "pickup unix n - n 60 1 pickup",
                "postlog unix-dgram n - n - 1 postlogd")))
        self.process = Process(place, "postfix", ["postfix", "-c", self._configuration, "start-fg"])
        place.on_leaving(self._leave)
        try:
            self.process.wait_listening(self.port)
        except AssertionError as error:
            raise AssertionError(f"{error}\n{self.log()}") from None

    def _leave(self):
        # What "postfix stop" does, without its pause of a second: the master ends its group, and with it the command.
        if self.process.status() is None:
            os.kill(int((self._queue / "pid" / "master.pid").read_text()), signal.SIGTERM)
        self.process.wait()

    def log(self):
        return self._log.read_text(errors="surrogateescape") if self._log.exists() else ""

    def settle(self):
        """Waits until no client is connected any more, the queue is empty and what there was to log is in the log."""
        wait_until(lambda: connections_to(self.port) == 0, "Postfix's sessions to end")
        # Its processes write the log through one other process: what a message leaves there comes after everything before.
        sender = f"settled{time.monotonic_ns()}@{DOMAIN}"
        with smtplib.SMTP(*self.address, local_hostname="localhost", timeout=bound(60)) as client:
            client.sendmail(sender, [f"settled@{DOMAIN}"], b"")
        wait_until(lambda: f"from=<{sender}>" in self.log() and not self.queued(), "Postfix's queue to be empty")

    def queued(self):
        """The text of the queue files."""
        return "\n".join(path.read_text(errors="surrogateescape")
                         for folder in ("maildrop", "incoming", "active", "deferred", "hold")
                         for path in (self._queue / folder).rglob("*") if path.is_file())

    def count(self):
        return len(list(self.maildir.glob("new/*")))

    def wait_for_messages(self, count, seconds=120):
        """Waits for `count` messages and returns (recipient, content) of each; the lines end in LF here."""
        wait_until(lambda: self.count() >= count, f"{count} messages in the Maildir", seconds)
        return [self._split(path.read_bytes()) for path in self.maildir.glob("new/*")]

    @staticmethod
    def _split(content):
        """Recipient and content, without the lines that Postfix puts in front."""
        head = re.match(rb"Return-Path: .*\nX-Original-To: (.*)\nDelivered-To: .*\nReceived: .*\n(?:[ \t].*\n)*",
                        content)
        if not head:
            raise AssertionError(f"not as Postfix delivers: {content[:400]!r}")
        return head.group(1).decode("utf-8"), content[head.end():]


class ScriptedServer:
    """A server whose every move a case decides: `dialogue(connection)` runs in a thread per connection.

    The connection is closed when it returns, or raises HungUp to leave from somewhere inside.
    An exception in a dialogue fails the case when the place is left. The default dialogue is polite_server().
    """

    def __init__(self, place, dialogue=None):
        self._dialogue = dialogue or polite_server()
        self._listener = socket.create_server((LOOPBACK, 0), family=FAMILY, backlog=256)
        self.port = self._listener.getsockname()[1]
        self.address = (LOOPBACK, self.port)
        self._failures = []
        self._threads = []
        self.connections = []
        self._accepting = threading.Thread(target=self._accept, daemon=True)
        self._accepting.start()
        place.on_leaving(self._leave)

    def _accept(self):
        while True:
            try:
                accepted, _ = self._listener.accept()
            except OSError:
                return
            connection = Connection(accepted)
            self.connections.append(connection)
            thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _serve(self, connection):
        try:
            self._dialogue(connection)
        except (HungUp, ConnectionError, BrokenPipeError):
            pass
        except Exception:
            self._failures.append(traceback.format_exc())
        finally:
            connection.close()

    def stop_listening(self):
        # close() alone would leave the accept of the thread waiting.
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._accepting.join(bound(10))

    def _leave(self):
        self.stop_listening()
        for connection in self.connections:
            with contextlib.suppress(OSError):
                connection.socket.shutdown(socket.SHUT_RDWR)
        for thread in self._threads:
            thread.join(bound(10))
        if self._failures:
            raise AssertionError("in a scripted server:\n" + "\n".join(self._failures))


def polite_server(extensions=("8BITMIME", "CHUNKING"), content=None, replies=None):
    """The dialogue of a server that accepts everything.

    `replies` maps a verb to what is said instead: a text, or a function of (connection, line) that returns a text
    or None when it said everything itself. Message content is appended to the list `content`.
    """
    def dialogue(connection):
        connection.send_line("220 server.example ESMTP")
        while True:
            line = connection.read_line()
            verb = line.split(" ")[0].upper()
            own = (replies or {}).get(verb)
            if callable(own):
                own = own(connection, line)
                if own is None:
                    continue
            if own is not None:
                connection.send_line(own)
            elif verb == "EHLO":
                lines = ["server.example", *extensions]
                connection.send("".join(f"250{'-' if i + 1 < len(lines) else ' '}{text}\r\n"
                                        for i, text in enumerate(lines)).encode("ascii"))
            elif verb == "DATA":
                connection.send_line("354 go on")
                message = connection.read_content()
                if content is not None:
                    content.append(message)
                connection.send_line("250 taken")
            elif verb == "BDAT":
                message = connection.read_bytes(int(line.split(" ")[1]))
                if content is not None:
                    content.append(message)
                connection.send_line("250 taken")
            elif verb == "QUIT":
                connection.send_line("221 bye")
                return
            else:
                connection.send_line("250 ok")
    return dialogue


class Balancer:
    """HAProxy as a balancer in front: it tells Trabex each client's address.

    `sending` are words for the server's line, such as send-proxy-v2; `binding` words for its own listener.
    """

    def __init__(self, place, proxy_port, sending, binding="", source=None):
        folder = place.new_folder("balancer")
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        configuration = folder / "haproxy.cfg"
        configuration.write_text(
            "global\n  nbthread 1\n"
            "defaults\n  mode tcp\n  timeout connect 10s\n  timeout client 10m\n  timeout server 10m\n"
            f"listen smtp\n  bind {endpoint(self.port)} {binding}\n" +
            (f"  source {source}\n" if source else "") +
            f"  server trabex {endpoint(proxy_port)} {sending}\n")
        self.process = Process(place, "balancer", ["haproxy", "-db", "-f", configuration])
        place.on_leaving(self.process.end)
        self.process.wait_listening(self.port)


class HaProxy:
    """HAProxy that relays bytes between two loopback ports with one thread: the peer to compare with.

    `binding` are words for its listener, such as ssl crt <file>.
    """

    def __init__(self, place, server_port, connections=5000, binding=""):
        folder = place.new_folder("haproxy")
        self.server_port = server_port
        self.port = free_port()
        self.address = (LOOPBACK, self.port)
        configuration = folder / "haproxy.cfg"
        configuration.write_text(
            f"global\n  nbthread 1\n  maxconn {connections}\n"
            "defaults\n  mode tcp\n  timeout connect 10s\n  timeout client 10m\n  timeout server 10m\n"
            f"listen smtp\n  bind {endpoint(self.port)} {binding}\n  server real {endpoint(server_port)}\n")
        self.process = Process(place, "haproxy", ["haproxy", "-db", "-f", configuration])
        # SIGTERM is its immediate stop; it reports it as a signal or as status 143.
        place.on_leaving(self.process.end)
        self.process.wait_listening(self.port)


class Direct:
    """No proxy at all: the server itself, under the same face."""

    def __init__(self, server_port):
        self.port = server_port
        self.address = (LOOPBACK, server_port)
