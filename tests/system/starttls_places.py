"""STARTTLS in every place of a session: before each step of an ordinary one the client says STARTTLS, with and without more
in the same packet, and makes the handshake whenever it is asked to."""

import asyncio

from dialogue import trusting
from hostile_plays import CLIENT
from processes import bound
from secured_stream import SecuredStream

_SECONDS = 20
_ALL = trusting(None)
_BLACK = b"MAIL FROM:<black-nnn@black.test>\r\n"
_EVIL = b"RCPT TO:<evil-nnn@elsewhere.test>\r\n"

# Each step is what the client sends and the code that answers it; no code: nothing does, since it is not the end of what
# is said.
_GREETING = [(b"", "220"), (b"EHLO client-nnn.test\r\n", "250")]
_MESSAGE = [(b"MAIL FROM:<good@local.test>\r\n", "250"), (b"RCPT TO:<good@local.test>\r\n", "250")]
_SESSIONS = {
    "data": [*_GREETING, *_MESSAGE, (b"DATA\r\n", "354"), (b"a line\r\n", None), (b"half a", None), (b" line\r\n", None),
             (b".\r\n", "250"), (b"NOOP\r\n", "250")],
    "chunks": [*_GREETING, *_MESSAGE, (b"BDAT 100\r\n", None), (b"x" * 100, "250"), (b"BDAT 0 LAST\r\n", "250"),
               (b"RSET\r\n", "250")],
    "login": [*_GREETING, (b"AUTH LOGIN\r\n", "334"), (b"Z29vZA==\r\n", "334"), (b"Z29vZA==\r\n", "235"),
              (b"NOOP\r\n", "250")],
    "hello": [(b"", "220"), (b"HELO client-nnn.test\r\n", "250"), (b"NOOP\r\n", "250")],
    "left": [*_GREETING, *_MESSAGE, (b"RSET\r\n", "250"), (b"VRFY good@local.test\r\n", "250")],
}
REPLIES = {"AUTH": [[b"334 VXNlcm5hbWU6\r\n"]], "secret": [[b"334 UGFzc3dvcmQ6\r\n"], [b"235 welcome\r\n"]]}
_BEHIND = [b"", b"RSET\r\n", _BLACK, _BLACK + _EVIL, b"E", b"\x16\x03\x01", b"\r\n", b"STARTTLS\r\n"]
# Where the client was offered it and the server would forget what went before with the next EHLO.
_BEGINS = {("data", 2), ("data", 9), ("data", 10), ("chunks", 2), ("chunks", 7), ("chunks", 8), ("login", 2), ("left", 2),
           ("left", 5), ("left", 6)}


class Place:
    """STARTTLS before the step `number` of the session `name`, with `behind` in the same packet."""

    numbers = 0

    def __init__(self, name, number, behind):
        self.name = name
        self.number = number
        self.behind = behind
        # As the marks of the hostile sessions.
        self.mark = f"{Place.numbers:03d}".encode("ascii")
        Place.numbers += 1
        self.complaints = []
        self.secured = False
        self.refused = False
        self._stream = None

    def __str__(self):
        return f"{self.name}, before step {self.number}, behind it {self.behind!r}"

    def begins_tls(self):
        return (self.name, self.number) in _BEGINS

    async def run(self, address, record):
        """Plays it; record() is what the server has got."""
        reader, writer = await asyncio.open_connection(*address, local_addr=(CLIENT, 0))
        self._reader, self._writer = reader, writer
        try:
            for data, code in _SESSIONS[self.name][:self.number]:
                await self._exchange(data, code)
            await self._say_starttls()
            if self.secured:
                await self._go_on_under_tls(record)
        except (OSError, asyncio.IncompleteReadError) as error:
            if not self.refused:
                self.complaints.append(f"{error!r}")
        finally:
            writer.close()

    def _numbered(self, data):
        return data.replace(b"nnn", self.mark)

    def _send(self, data):
        self._writer.write(self._numbered(data))

    async def _line(self):
        return await asyncio.wait_for(self._reader.readuntil(b"\r\n"), bound(_SECONDS))

    async def _reply(self):
        line = await self._line()
        while line[3:4] == b"-":
            line = await self._line()
        return line.decode("ascii")

    async def _exchange(self, data, code):
        """Sends and takes the reply, which has this code; returns it."""
        self._send(data)
        reply = await self._reply() if code else ""
        if code and not reply.startswith(code):
            self.complaints.append(f"waited for {code} to {data!r}, got {reply!r}")
        return reply

    async def _say_starttls(self):
        self._send(b"STARTTLS\r\n" + self.behind)
        if not self.begins_tls():
            return await self._go_on_in_clear()
        reply = await self._reply()
        if self.behind:
            self.refused = True
            if reply != "554 5.5.0 Data behind STARTTLS.\r\n" or await self._writer_ended():
                self.complaints.append(f"with data behind STARTTLS it goes on: {reply!r}")
            return None
        if not reply.startswith("220"):
            self.complaints.append(f"STARTTLS is not taken: {reply!r}")
            return None
        self._reader = self._writer = SecuredStream(self._reader, self._writer, _ALL)
        await asyncio.wait_for(self._reader.handshake(), bound(_SECONDS))
        self.secured = True
        return None

    async def _writer_ended(self):
        """What comes before the end of the connection."""
        return await asyncio.wait_for(self._reader.read(), bound(_SECONDS))

    async def _go_on_in_clear(self):
        """It was no beginning of TLS: a command out of place, or content. No reply says that the handshake may begin."""
        self._send(b"\r\n.\r\n" + _BLACK + _EVIL)
        self._writer.write_eof()
        said = await self._writer_ended()
        if b"Ready to start TLS" in said:
            self.complaints.append(f"TLS begins: {said!r}")

    async def _go_on_under_tls(self, record):
        before = len(record().pieces)
        # Nothing of what was said before counts.
        for data in (b"MAIL FROM:<good@local.test>\r\n", b"RCPT TO:<good@local.test>\r\n", b"DATA\r\n", b"AUTH LOGIN\r\n"):
            await self._exchange(data, "503")
        self._send(b"EHLO client-nnn.test\r\n")
        lines = [await self._line()]
        while lines[-1][3:4] == b"-":
            lines.append(await self._line())
        if any(b"STARTTLS" in line for line in lines):
            self.complaints.append("it is offered under TLS")
        await self._exchange(b"STARTTLS\r\n", "502")
        await self._exchange(b"RCPT TO:<good@local.test>\r\n", "503")
        await self._exchange(_BLACK, "550")
        await self._exchange(b"MAIL FROM:<good@local.test>\r\n", "250")
        await self._exchange(_EVIL, "550")
        await self._exchange(b"RCPT TO:<good@local.test>\r\n", "250")
        await self._exchange(b"DATA\r\n", "354")
        await self._exchange(b"STARTTLS\r\n.\r\n", "250")
        await self._exchange(b"QUIT\r\n", "221")
        got = [data.split(b"\r\n")[0].split(b" ")[0] for kind, data in record().pieces[before:] if kind == "command"]
        if got != [b"EHLO", b"MAIL", b"RCPT", b"DATA", b"QUIT"]:
            self.complaints.append(f"under TLS the server got {got}")


def all_places():
    return [Place(name, number, behind) for name, steps in _SESSIONS.items() for number in range(1, len(steps) + 1)
            for behind in _BEHIND]
