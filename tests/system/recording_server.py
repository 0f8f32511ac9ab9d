"""A scripted server that keeps every byte it gets, and the most lenient reading of what it got.

The server itself is strict: a line ends in CR LF, content in the line with the single dot. What other servers might make
of the same bytes is looked for afterwards: commands behind any line end and any blanks, and dots that somebody takes for
the end of the content.
"""

import asyncio
import re
import unicodedata

from addresses import IPV6, LOOPBACK
from processes import bound
from secured_stream import SecuredStream

# What stands for the number of the play in a file.
PLACEHOLDER = b"nnn"
_MARKER = re.compile(rb"(?i:evil|black)-(\w{%d})" % len(PLACEHOLDER))

LINE_ENDS = re.compile(rb"[\r\n\0\v\f]+")
_BLANKS = b" \t\x08\x1b\x7f\xa0"
# Commands whose addresses and names the filter has to have seen.
_CHECKED = re.compile(rb"(?i:HELO|EHLO|MAIL|RCPT|SEND|SOML|SAML)(?![A-Za-z0-9])")
# Commands that would hand over the connection, or the client's identity.
_NEVER = re.compile(rb"(?i:STARTTLS|TURN|ATRN|XCLIENT|XFORWARD)(?![A-Za-z0-9])")
# Addresses in these parameters receive and send nothing.
_HARMLESS = re.compile(rb"(?i:[ \t](?:ORCPT|AUTH)=\S*)")
_BDAT = re.compile(rb"(?i:BDAT)(?![A-Za-z0-9])")
_PLAIN_BDAT = re.compile(rb"BDAT (0|[1-9][0-9]{0,9})(?: .*)?\Z")
_DOT = re.compile(rb"(?:\A|[\r\n])\.[\r\n\0]")

_EXTENSIONS = ["SIZE 100000", "8BITMIME", "CHUNKING", "PIPELINING", "STARTTLS", "XCLIENT ADDR", "XFORWARD ADDR",
               "SMTPUTF8"]


class Record:
    """What one connection brought, piece by piece: (kind, bytes), the kind being command, content, octets or secret, or broken
    where what came was no TLS.

    `preface` are the lines with which the proxy itself has opened it, where the server expects some; `read` is how many
    pieces came before the server said that it closes, None where it never did. What comes later no server reads.
    """

    def __init__(self):
        self.pieces = []
        self.preface = []
        self.read = None
        self.ended = False

    def violations(self):
        """What must not have come, in words."""
        found = []
        for kind, data in self.pieces[:self.read]:
            if kind == "command":
                found += command_violations(data)
            elif kind == "content":
                found += _content_violations(data)
            elif kind == "broken":
                found.append(data.decode())
        return found

    def text(self):
        return "\n".join(f"    {kind}: {data[:300]!r}" for kind, data in self.pieces)


def markers(data):
    """The numbers of the plays whose mark stands in the bytes, as it is or in letters that servers fold to it."""
    if data.isascii():
        return _MARKER.findall(data)
    text = unicodedata.normalize("NFKC", data.decode("utf-8", errors="surrogateescape").casefold()).casefold()
    # What nobody sees is dropped.
    text = "".join(letter for letter in text
                   if unicodedata.category(letter) != "Cf" and not "\ufe00" <= letter <= "\ufe0f")
    return _MARKER.findall(data) + _MARKER.findall(text.encode("utf-8", errors="surrogateescape"))


def command_violations(data):
    """What a server that takes anything for a line end finds in a command line, and must not, in words."""
    found = []
    for line in LINE_ENDS.split(data):
        line = line.strip(_BLANKS)
        if _NEVER.match(line):
            found.append(f"a command that is never forwarded: {line!r}")
        elif _CHECKED.match(line) and markers(_HARMLESS.sub(b"", line)):
            found.append(f"an address that was to be refused: {line!r}")
        elif _BDAT.match(line) and not (_PLAIN_BDAT.match(line) and int(line.split()[1]) < 1 << 31):
            found.append(f"a count that may be read in several ways: {line!r}")
    return found


def _content_violations(data):
    # The line end before the last dot stays: it may be that of a doubtful one.
    ended = data == b".\r\n" or data.endswith(b"\r\n.\r\n")
    inside = data[:-3] if ended else data
    dot = _DOT.search(inside)
    if not dot:
        return []
    return [f"a dot that some take for the end: {inside[max(0, dot.start() - 10):dot.end() + 60]!r}"]


class RecordingServer:
    """Listens on loopback in the running event loop. `script` maps commands to the replies of the next connection.

    With a `context`, an ssl.SSLContext, it takes no command of a client's before it was told by XCLIENT under TLS who that is.
    """

    def __init__(self, context=None):
        self._context = context
        self.records = []
        self.script = {}
        self.port = None
        self._server = None
        self._tasks = []

    async def start(self):
        self._server = await asyncio.start_server(self._serve, LOOPBACK, 0, backlog=500, limit=1 << 20)
        self.port = self._server.sockets[0].getsockname()[1]

    async def stop(self):
        """Waits for the ends of all connections, and cuts off those that do not end."""
        self._server.close()
        end = asyncio.get_running_loop().time() + bound(10)
        while not all(record.ended for record in self.records):
            if asyncio.get_running_loop().time() > end:
                break
            await asyncio.sleep(0.01)
        for task in self._tasks:
            task.cancel()
        await asyncio.gather(*self._tasks, return_exceptions=True)

    async def _serve(self, reader, writer):
        record = Record()
        self.records.append(record)
        self._tasks.append(asyncio.current_task())
        dialogue = _Dialogue(reader, writer, record, self.script)
        try:
            if self._context:
                await dialogue.take_preface(self._context)
            await dialogue.run()
            record.ended = True
        except (asyncio.IncompleteReadError, ConnectionError):
            record.ended = True
        except AssertionError as error:
            # Something in the clear where TLS stands.
            record.pieces.append(("broken", str(error).encode()))
            record.ended = True
        except asyncio.CancelledError:
            pass
        finally:
            writer.close()


class _Dialogue:
    """One connection."""

    def __init__(self, reader, writer, record, script):
        self._reader = reader
        self._writer = writer
        self._record = record
        self._script = {command: list(replies) for command, replies in script.items()}

    async def run(self):
        await self._say("greeting", b"220 server.test ESMTP")
        while True:
            line = await self._read("command", b"\r\n")
            verb = line.split()[0].upper().decode("latin-1") if line.split() else ""
            handler = getattr(self, f"_take_{verb.lower()}", None)
            if handler:
                await handler(line)
            else:
                await self._say(verb, b"250 ok")
            if verb == "QUIT":
                return

    async def take_preface(self, context):
        """All that the proxy says of its own: it begins TLS and names the client."""
        self._writer.write(b"220 own.test ESMTP\r\n")
        for expected in (rb"EHLO \S+\r\n", rb"STARTTLS\r\n", rb"EHLO \S+\r\n", rb"XCLIENT [^\r\n]+\r\n"):
            line = await self._reader.readuntil(b"\r\n")
            self._record.preface.append(line)
            if not re.fullmatch(expected, line):
                raise ConnectionResetError
            if line.startswith(b"EHLO"):
                self._writer.write(b"250-own.test\r\n250-STARTTLS\r\n"
                                   b"250 XCLIENT NAME REVERSE_NAME PORT DESTADDR DESTPORT ADDR PROTO HELO LOGIN\r\n")
            elif line.startswith(b"STARTTLS"):
                self._writer.write(b"220 go on\r\n")
                self._reader = self._writer = SecuredStream(self._reader, self._writer, context, server_side=True)
                await self._reader.handshake()

    async def _read(self, kind, end=None, count=None):
        try:
            data = await (self._reader.readuntil(end) if end else self._reader.readexactly(count))
        except asyncio.IncompleteReadError as cut_off:
            self._record.pieces.append((kind, cut_off.partial))
            raise
        self._record.pieces.append((kind, data))
        return data

    async def _say(self, command, otherwise):
        """Answers a command; returns the code that the last line has."""
        own = self._script.get(command)
        segments = own.pop(0) if own else [otherwise + b"\r\n"]
        for segment in segments:
            self._writer.write(segment)
            await self._writer.drain()
            if len(segments) > 1:
                await self._taken()
        lines = b"".join(segments).rstrip(b"\r\n").rsplit(b"\n", 1)
        if lines[-1].startswith(b"421") and self._record.read is None:
            self._record.read = len(self._record.pieces)
        return lines[-1][:3]

    async def _taken(self):
        """Until the peer has read what was said."""
        host_port = self._writer.get_extra_info("peername"), self._writer.get_extra_info("sockname")
        await until_read(host_port[0][1], host_port[1][1])

    async def _take_ehlo(self, _line):
        lines = ["server.test", *_EXTENSIONS]
        text = "\r\n".join(f"250{' ' if i + 1 == len(lines) else '-'}{line}" for i, line in enumerate(lines))
        await self._say("EHLO", text.encode("ascii"))

    async def _take_quit(self, _line):
        await self._say("QUIT", b"221 bye")

    async def _take_data(self, _line):
        if await self._say("DATA", b"354 go on") != b"354":
            return
        content = b""
        while content != b".\r\n" and not content.endswith(b"\r\n.\r\n"):
            try:
                content += await self._reader.readuntil(b".\r\n")
            except asyncio.IncompleteReadError as cut_off:
                self._record.pieces.append(("content", content + cut_off.partial))
                raise
        self._record.pieces.append(("content", content))
        await self._say("content", b"250 taken")

    async def _take_bdat(self, line):
        if "BDAT!" in self._script:
            await self._say("BDAT!", b"")
        words = line.split()
        if len(words) > 1 and words[1].isdigit():
            await self._read("octets", count=int(words[1]))
        if "BDAT!" not in self._script:
            await self._say("BDAT", b"250 taken")

    async def _take_xexch50(self, line):
        if await self._say("XEXCH50", b"354 go on") != b"354":
            return
        count = line.split()[1]
        if count.isdigit():
            await self._read("octets", count=int(count))
            await self._say("content", b"250 taken")

    async def _take_auth(self, _line):
        code = await self._say("AUTH", b"334 ")
        while code == b"334":
            await self._read("secret", b"\r\n")
            code = await self._say("secret", b"535 no")


def _unread(local_port, remote_port):
    """How many bytes wait unread in the socket with these ports."""
    wanted = f":{local_port:04X}", f":{remote_port:04X}"
    with open("/proc/net/tcp6" if IPV6 else "/proc/net/tcp", encoding="ascii") as table:
        for row in table:
            fields = row.split()
            if fields[1][-5:] == wanted[0] and fields[2][-5:] == wanted[1]:
                return int(fields[4].split(":")[1], 16)
    return 0


async def until_read(local_port, remote_port):
    """Waits until the owner of the socket with these ports has read everything that was sent to it."""
    end = asyncio.get_running_loop().time() + bound(10)
    while _unread(local_port, remote_port):
        if asyncio.get_running_loop().time() > end:
            raise AssertionError(f"what was sent to port {local_port} is not read")
        await asyncio.sleep(0.0005)
