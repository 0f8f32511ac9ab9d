"""The ways by which hostile sessions come and go on: under TLS whose records are cut anywhere, with STARTTLS in any place,
behind the header of a balancer, and to servers that are told by XCLIENT, under TLS, who the client is."""

import asyncio
import random
import re
import socket
import struct
import zlib

from addresses import IPV6, LOOPBACK, in_family
from hostile_plays import CLIENT, PLAIN, STARTTLS, TLS_PORT, Play
from processes import bound
from secured_stream import Wire

# Where the balancer comes from. It counts as a local client: whose header is not believed may relay.
BALANCER = in_family("127.0.0.5")
LOCAL = in_family("127.0.0.9")
# What no log may ever name as a client.
FORGED = in_family("127.66.66.66")

_SIGNATURE = b"\r\n\r\n\0\r\nQUIT\n"
_PROXY, _LOCAL_COMMAND = 0x21, 0x20
# The ordinary dialogue before the trick may take its time on a busy machine.
_PATIENT_SECONDS = 20
# Where STARTTLS stands in between, the replies of a whole session may be missing: after so many each is hardly waited for.
_MOST_MISSING = 4
_SHORT_SECONDS = 0.02
_FAMILY = socket.AF_INET6 if IPV6 else socket.AF_INET
BEHIND = (b"", b"RSET\r\n", b"MAIL FROM:<black-nnn@black.test>\r\n",
           b"MAIL FROM:<good@local.test>\r\nRCPT TO:<evil-nnn@outside.test>\r\n", b"EHLO black-nnn.test\r\n",
           b"XCLIENT ADDR=" + FORGED.encode() + b"\r\n", b"\x16\x03\x01", b"\r", b"\0")


def version1(client=CLIENT, port=4321, called=LOOPBACK, called_port=25):
    return f"PROXY TCP{6 if IPV6 else 4} {client} {called} {port} {called_port}\r\n".encode()


def version2(client=CLIENT, port=4321, called=LOOPBACK, called_port=25, further=b"", command=_PROXY):
    """`further` is what stands behind the addresses: values with their kinds and lengths."""
    addresses = (socket.inet_pton(_FAMILY, client) + socket.inet_pton(_FAMILY, called) +
                 struct.pack("!HH", port, called_port))
    return (_SIGNATURE + struct.pack("!BBH", command, 0x21 if IPV6 else 0x11, len(addresses) + len(further)) +
            addresses + further)


def values(random_source):
    """Values behind the addresses, some of them with what would be commands."""
    contents = (b"", b"h2", b"\r\nRCPT TO:<evil-nnn@outside.test>\r\n", random_source.randbytes(30), b"x" * 300,
                b"\x01\0\0\0\0\x21\0\7TLSv1.3")
    kinds = (0x01, 0x02, 0x03, 0x04, 0x05, 0x20, 0x30, 0xEE)
    chosen = [(random_source.choice(kinds), random_source.choice(contents)) for _ in range(random_source.randrange(1, 5))]
    return b"".join(struct.pack("!BH", kind, len(content)) + content for kind, content in chosen)


GOOD_HEADERS = ("version 1", "version 2", "version 2 with values")
# Behind the first header stands one that would make the client a local one.
DOUBLED_HEADERS = ("1 and 1", "1 and 2", "2 and 1", "2 and 2")
HEADER_DELIVERIES = ("once", "cut", "bytes", "glued")


def header_of(name, source):
    if name in DOUBLED_HEADERS:
        first, second = name.split(" and ")
        return ((version1 if first == "1" else version2)() +
                (version1 if second == "1" else version2)(LOCAL))
    if name == "version 1":
        return version1()
    return version2(further=values(source) if name == "version 2 with values" else b"")


def bad_headers():
    """Headers that are none, with what is wrong with them."""
    good1, good2 = version1(), version2()
    other = b"TCP4" if IPV6 else b"TCP6"
    own = b"TCP6" if IPV6 else b"TCP4"
    client, called = CLIENT.encode(), LOOPBACK.encode()
    yield "no header", b"EHLO client.test\r\n"
    yield "a greeting of TLS", b"\x16\x03\x01\x02\0\1\0\1\xfc\3\3" + bytes(40)
    yield "only a line end", b"\r\nEHLO client.test\r\n"
    yield "small letters", good1.lower()
    yield "a blank in front", b" " + good1
    yield "two blanks", good1.replace(b" ", b"  ", 1)
    yield "a tab", good1.replace(b" ", b"\t", 1)
    yield "LF alone", good1.replace(b"\r\n", b"\n")
    yield "CR alone", good1.replace(b"\r\n", b"\rEHLO client.test\r\n")
    yield "NUL in it", good1.replace(b" 25", b"\0 25")
    yield "another family", b"PROXY %s %s %s 1 25\r\n" % (other, client, called)
    yield "a family that is none", b"PROXY UDP4 %s %s 1 25\r\n" % (client, called)
    yield "a family with more", b"PROXY TCP44 %s %s 1 25\r\n" % (client, called)
    for what, port in (("too large", b"65536"), ("negative", b"-1"), ("signed", b"+1"), ("hexadecimal", b"0x19"),
                       ("with a zero in front", b"025"), ("empty", b""), ("a word", b"smtp"), ("huge", b"9" * 30)):
        yield f"a port that is {what}", b"PROXY %s %s %s %s 25\r\n" % (own, client, called, port)
        yield f"a called port that is {what}", b"PROXY %s %s %s 1 %s\r\n" % (own, client, called, port)
    for what, address in (("of four digits", b"127.0.0.1000"), ("of three numbers", b"127.0.1"), ("a name", b"localhost"),
                          ("in brackets", b"[" + client + b"]"), ("empty", b""), ("with a port", b"[" + client + b"]:25"),
                          ("of the other family", b"127.0.0.1" if IPV6 else b"fe80::1"), ("of five", b"1.2.3.4.5"),
                          ("octal", b"0177.0.0.1"), ("a number", b"2130706433"), ("with a mask", client + b"/8"),
                          ("with a zone", client + b"%lo")):
        yield f"an address {what}", b"PROXY %s %s %s 1 25\r\n" % (own, address, called)
        yield f"a called address {what}", b"PROXY %s %s %s 1 25\r\n" % (own, client, address)
    yield "no ports", b"PROXY %s %s %s\r\n" % (own, client, called)
    yield "one port", b"PROXY %s %s %s 1\r\n" % (own, client, called)
    yield "three ports", b"PROXY %s %s %s 1 2 3\r\n" % (own, client, called)
    yield "a blank behind", b"PROXY %s %s %s 1 2 \r\n" % (own, client, called)
    yield "too long", b"PROXY UNKNOWN " + b"x" * 100 + b"\r\n"
    yield "without an end", b"PROXY UNKNOWN " + b"x" * 500
    yield "UNKNOWN with more glued", b"PROXY UNKNOWNS\r\n"
    yield "nothing behind the word", b"PROXY\r\n"
    for at in range(12):
        yield f"a signature wrong at {at}", good2[:at] + bytes([good2[at] ^ 1]) + good2[at + 1:]
    for version in (0x01, 0x11, 0x31, 0xF1):
        yield f"version {version >> 4}", _SIGNATURE + bytes([version]) + good2[13:]
    for command in (0x22, 0x2F):
        yield f"command {command & 15}", _SIGNATURE + bytes([command]) + good2[13:]
    for family in (0x12, 0x22, 0x31, 0x32, 0x41, 0x13):
        yield f"family and protocol {family:#x}", _SIGNATURE + bytes([_PROXY, family]) + good2[14:]
    yield "too short for its addresses", _SIGNATURE + bytes([_PROXY, good2[13]]) + b"\0\5" + bytes(5)
    yield "too long a header", _SIGNATURE + bytes([_PROXY, good2[13]]) + b"\xff\xff" + good2[16:]


class Transport:
    """One way: whether the client is under TLS and how its records leave, what stands in front, and where STARTTLS is said.

    `place` is the number of the step before which it is said, with `behind` in the same packet; None: it is not. `to_server`
    is how Trabex speaks to the server: plain, tls or xclient. All of it is plain data, so that it can be kept in a file.
    """

    def __init__(self, kind, security=PLAIN, wire="whole", seed=0, header=None, header_delivery="once", place=None, behind="",
                 to_server="plain"):
        self.kind = kind
        self.security = security
        self.wire = wire
        self.seed = seed
        self.header = header
        self.header_delivery = header_delivery
        self.place = place
        self.behind = behind
        self.to_server = to_server

    def needs_certificate(self):
        return self.security != PLAIN or self.place is not None

    def __str__(self):
        return ", ".join([self.kind] + [f"{name} {value}" for name, value in vars(self).items()
                                        if name != "kind" and value not in (None, "", PLAIN, "whole", "once")])


class TransportPlay(Play):
    """A play that comes by this way."""

    def __init__(self, session, delivery, patience, exactly, transport):
        # Where it comes under TLS in between, or claims to be somebody else, other replies come than those that the file names.
        exactly = exactly and transport.place is None and transport.header not in DOUBLED_HEADERS
        super().__init__(session, delivery, patience, exactly, security=transport.security,
                         wire=Wire(transport.wire, transport.seed))
        self.transport = transport
        self.secured = False
        if transport.header:
            self.source = BALANCER
        self._glued = b""
        self._strict = exactly
        self._missing = 0

    def __str__(self):
        how = self.delivery if isinstance(self.delivery, str) else "step {} cut at {}".format(*self.delivery)
        return f"{self.session.name} ({how}; {self.transport})"

    async def _connect(self, address):
        await super()._connect(address)
        if not self.transport.header:
            return
        source = random.Random(self.transport.seed)
        header = self._numbered(header_of(self.transport.header, source))
        delivery = self.transport.header_delivery
        if delivery == "glued":
            # To the first command, or to the beginning of the handshake; so it goes alone where the session says nothing.
            self._glued = header
        elif delivery == "bytes":
            for at in range(len(header)):
                self._writer.write(header[at:at + 1])
                await asyncio.sleep(0)
        else:
            cut = source.randrange(1, len(header)) if delivery == "cut" else len(header)
            self._writer.write(header[:cut])
            await asyncio.sleep(0.001 if cut < len(header) else 0)
            self._writer.write(header[cut:])

    async def _secure(self):
        if self._glued:
            glued, self._glued = self._glued, b""
            self._writer = _Behind(glued, self._writer)
        await super()._secure()

    async def _expect(self, line, code):
        if self._glued:
            glued, self._glued = self._glued, b""
            # The greeting comes when the header is there, and the first command with it.
            self._writer.write(glued)
        if self._strict:
            return await super()._expect(line, code)
        if line:
            self._writer.write(self._numbered(line.encode("latin-1") + b"\r\n"))
        # A server whose replies are the play's affair may never give this one.
        return await self._reply(1 if self.session.replies else bound(_PATIENT_SECONDS))

    async def _reply(self, seconds):
        reply = await super()._reply(seconds)
        self._missing = 0 if reply.endswith("\r\n") else self._missing + 1
        return reply

    async def _wait(self, lines, seconds, exactly):
        if self.transport.place is not None and self._missing >= _MOST_MISSING:
            seconds = _SHORT_SECONDS
        await super()._wait(lines, seconds, exactly)

    async def _open(self):
        lines = self.session.opening[1 if self.security == STARTTLS else 0:]
        if self._glued and len(lines) > 1:
            glued, self._glued = self._glued, b""
            self._writer.write(glued + self._numbered(lines[1][0].encode("latin-1") + b"\r\n"))
            await self._expect("", lines[0][1])
            await self._expect("", lines[1][1])
            lines = lines[2:]
        for line, code in lines:
            await self._expect(line, code)

    async def _take(self, number, step):
        if self._glued:
            glued, self._glued = self._glued, b""
            self._writer.write(glued)
        if number == self.transport.place:
            await self._say_starttls()
        await super()._take(number, step)

    async def _say_starttls(self):
        self._writer.write(b"STARTTLS\r\n" + self._numbered(self.transport.behind.encode("latin-1")))
        if any("STARTTLS" in step.get("bytes", "").upper() for step in self.session.steps):
            # Which of the two a reply answers is not known, nor whether TLS has begun with the session's own.
            await self._reply(self._patience)
            return
        while not (reply := await self._reply(self._patience)).startswith("220 2.0.0 Ready to start TLS."):
            if not reply.endswith("\r\n"):
                return
        if self.transport.behind:
            self.complaints.append("TLS begins with data behind STARTTLS")
        await self._secure()
        self.secured = True
        # Whatever was said before is forgotten, so the ordinary dialogue begins anew.
        for line, _ in self.session.opening[1:]:
            await self._expect(line, "")


class _Behind:
    """A writer whose first bytes leave together with others in front of them."""

    def __init__(self, first, writer):
        self._first = first
        self._writer = writer

    def write(self, data):
        first, self._first = self._first, b""
        self._writer.write(first + data)

    def __getattr__(self, name):
        return getattr(self._writer, name)


def seed_of(*parts):
    """The same number for the same parts, in every run."""
    return zlib.crc32(repr(parts).encode())


def _header(source):
    return {"header": source.choice(GOOD_HEADERS), "header_delivery": source.choice(HEADER_DELIVERIES)}


def can_go(kind, session):
    """Whether what the file says of the server's first words holds where the proxy itself has heard others before."""
    return kind != "xclient" or not {"greeting", "EHLO"} & set(session.replies)


def transport_of(kind, session, seed):
    """A way of this kind that the seed chooses, for this session."""
    source = random.Random(seed)
    wire = {"wire": source.choice(Wire.STYLES), "seed": seed}
    if kind == "starttls":
        if session.can_follow_starttls() and source.random() < 0.4:
            return Transport(kind, STARTTLS, **wire)
        place = source.randrange(len(session.steps))
        return Transport(kind, place=place, behind=source.choice(BEHIND).decode("latin-1"), **wire)
    if kind == "tls-port":
        return Transport(kind, TLS_PORT, **wire)
    if kind == "proxy":
        if source.random() < 0.3:
            return Transport(kind, header=source.choice(DOUBLED_HEADERS), seed=seed)
        securities = [PLAIN, PLAIN, TLS_PORT] + [STARTTLS] * session.can_follow_starttls()
        return Transport(kind, source.choice(securities), **wire, **_header(source))
    if kind == "xclient":
        return Transport(kind, to_server="xclient")
    return Transport(kind)


async def play_bad_header(address, header):
    """What the client hears that sends this header and a whole session with it."""
    reader, writer = await asyncio.open_connection(*address, local_addr=(BALANCER, 0))
    try:
        writer.write(header + b"EHLO client.test\r\nMAIL FROM:<black-zzz@black.test>\r\nRCPT TO:<evil-zzz@outside.test>\r\n")
        return await asyncio.wait_for(reader.read(), bound(20))
    except ConnectionResetError:
        # It has not read what stands behind.
        return b""
    finally:
        writer.close()


def expected_xclient(port):
    """What the server is told of the client with this port; None: any."""
    address = f"IPV6:{CLIENT}" if IPV6 else CLIENT
    return re.compile(f"XCLIENT NAME=localhost REVERSE_NAME=localhost PORT={port or '[0-9]+'} DESTADDR={re.escape(address)} "
                      f"DESTPORT=[0-9]+ ADDR={re.escape(address)}\r\n".encode())
