"""Clients and what is said: connections line by line, Python's own client with BDAT, message content."""

import re
import smtplib
import socket
import ssl
import struct

from processes import Options, bound


class HungUp(Exception):
    """The peer closed the connection where more was expected."""


class Connection:
    """A connected socket, line by line. Every read and write fails at the bound instead of waiting for ever."""

    def __init__(self, connected, seconds=30):
        self.socket = connected
        self.socket.settimeout(bound(seconds))
        self._received = bytearray()

    def send(self, data):
        self.socket.sendall(data)

    def send_line(self, line):
        self.send(line.encode("utf-8", errors="surrogateescape") + b"\r\n")

    def _receive(self):
        try:
            data = self.socket.recv(65536)
        except TimeoutError:
            raise AssertionError(f"nothing more came; so far unread: {bytes(self._received)!r}") from None
        if not data:
            raise HungUp(bytes(self._received))
        self._received += data

    def read_line(self):
        """The next line, without its CR LF."""
        while (end := self._received.find(b"\r\n")) < 0:
            self._receive()
        line = self._received[:end].decode("utf-8", errors="surrogateescape")
        del self._received[:end + 2]
        return line

    def read_bytes(self, count):
        while len(self._received) < count:
            self._receive()
        data = bytes(self._received[:count])
        del self._received[:count]
        return data

    def read_content(self):
        """Message content after DATA up to the single dot, the dots undoubled."""
        lines = []
        while (line := self.read_raw_line()) != b".\r\n":
            lines.append(line[1:] if line.startswith(b".") else line)
        return b"".join(lines)

    def read_raw_line(self):
        while (end := self._received.find(b"\r\n")) < 0:
            self._receive()
        line = bytes(self._received[:end + 2])
        del self._received[:end + 2]
        return line

    def read_reply(self):
        """A complete reply, its lines joined by LF."""
        lines = [self.read_line()]
        while lines[-1][3:4] == "-":
            lines.append(self.read_line())
        return "\n".join(lines)

    def start_tls(self, context, name=None):
        """From now on all goes through TLS; `context` is an ssl.SSLContext of a client, `name` whom it asks for."""
        self.socket = context.wrap_socket(self.socket, server_hostname=name)

    def command(self, line):
        """Sends a command line and returns the reply."""
        self.send_line(line)
        return self.read_reply()

    def read_to_end(self):
        """Everything up to the peer's orderly close."""
        try:
            while True:
                self._receive()
        except HungUp:
            data = bytes(self._received)
            self._received.clear()
            return data

    def finish_sending(self):
        """Half-closes: the peer sees our end, and can still be heard."""
        self.socket.shutdown(socket.SHUT_WR)

    def reset(self):
        """Breaks the connection off with a reset."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def close(self):
        self.socket.close()


def trusting(file, **versions):
    """The ssl.SSLContext of a client that trusts whom the certificate in `file` vouches for; None: everybody.

    `versions` may be minimum_version and maximum_version, of ssl.TLSVersion.
    """
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    if file is None:
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
    else:
        context.load_verify_locations(file)
    for name, version in versions.items():
        setattr(context, name, version)
    return context


def connect(address, source=None, receive_buffer=None):
    """A client's connection; `source` is the client's own address ("127.0.0.7")."""
    client = socket.socket(socket.AF_INET6 if ":" in address[0] else socket.AF_INET)
    if receive_buffer:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    client.settimeout(bound(30))
    if source:
        client.bind((source, 0))
    client.connect(address)
    return Connection(client)


class Smtp(smtplib.SMTP):
    """Python's own client, with BDAT added."""

    def __init__(self, address, source=None):
        super().__init__(*address, local_hostname="client.example", timeout=bound(60),
                         source_address=(source, 0) if source else None)

    def bdat(self, sender, recipients, chunks):
        """Sends a message in these chunks; raises when anything is refused."""
        self.ehlo_or_helo_if_needed()
        self._expect(250, self.mail(sender))
        for recipient in recipients:
            self._expect(250, self.rcpt(recipient))
        for i, chunk in enumerate(chunks):
            last = " LAST" if i + 1 == len(chunks) else ""
            self.send(f"BDAT {len(chunk)}{last}\r\n".encode("ascii") + chunk)
            self._expect(250, self.getreply())

    @staticmethod
    def _expect(code, reply):
        if reply[0] != code:
            raise smtplib.SMTPResponseException(*reply)


_RECEIVED = re.compile(
    rb"\AReceived: from (?P<helo>\S*) \((?P<name>\S+) \[(?P<ip>[0-9.]+|IPv6:[0-9a-f:]+)\]\) by (?P<by>\S+)\r?\n"
    rb"      with (?P<protocol>SMTP|ESMTPS?A?)(?: tls (?P<cipher>[A-Z0-9_]+))?; "
    rb"(?:Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d\d (?:Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) \d{4} "
    rb"\d\d:\d\d:\d\d [+-]\d{4}\r?\n")


def without_received(content):
    """The content without the header that Trabex puts in front; fails when it is not there (exactly once)."""
    if Options.through != "trabex":
        return content
    header = _RECEIVED.match(content)
    if not header:
        raise AssertionError(f"no Received header in front: {content[:300]!r}")
    return content[header.end():]


def received_header(content):
    """The parts of Trabex's own header, as text by name; the address without its tag."""
    header = _RECEIVED.match(content)
    if not header:
        raise AssertionError(f"no Received header in front: {content[:300]!r}")
    parts = {name: value.decode("ascii") for name, value in header.groupdict().items() if value is not None}
    return {**parts, "ip": parts["ip"].removeprefix("IPv6:")}


def describe_difference(sent, arrived):
    """A short word on the first byte that differs; comparing large contents by assertEqual floods the screen."""
    if sent == arrived:
        return ""
    at = next((i for i, (a, b) in enumerate(zip(sent, arrived)) if a != b), min(len(sent), len(arrived)))
    return (f"sent {len(sent)} bytes, {len(arrived)} arrived; they differ from byte {at} on: "
            f"{sent[max(0, at - 20):at + 40]!r} became {arrived[max(0, at - 20):at + 40]!r}")
