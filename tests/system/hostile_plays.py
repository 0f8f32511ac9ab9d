"""Plays hostile sessions: how a session is delivered, and what its client sees.

The sessions are the files of the folder hostile/; tests/script/README.md tells how they read. The program print_scripts,
which the tests of the build bring along, reads them.
"""

import asyncio
import json
import logging
import re
import socket
import struct
import subprocess
from pathlib import Path

from dialogue import trusting
from processes import LOOPBACK, Options, bound
from recording_server import PLACEHOLDER, until_read
from secured_stream import SecuredStream

FOLDER = Path(__file__).resolve().parent / "hostile"
SERVERS = ("scripted", "postfix", "exim", "opensmtpd")

# How a play's client is secured before the session begins.
PLAIN, STARTTLS, TLS_PORT = "plain", "STARTTLS", "TLS port"
_ALL = trusting(None)

# A remote client's address: the one that has a name without anybody having to ask DNS.
CLIENT = LOOPBACK

_DIGITS = "0123456789abcdefghijklmnopqrstuvwxyz"
_NOTHING = "(nothing more)"
# Any text in a line.
_ANY = r"(?:(?!\r\n).)*"
# How long a reply may take at the start of a session, and how long a session may take to end.
_PATIENT_SECONDS = 20
_ENDING_SECONDS = 2
_BYTES = 300


class HostileSession:
    """One file, as print_scripts gives it."""

    def __init__(self, read):
        self.name = read["name"]
        self.opening = read["opening"]  # lines of the ordinary dialogue before the trick, with the codes that answer them
        self.direct = read["direct"]
        self.owes = read["owes"]
        self.settings = {(section, key): value for section, key, value in read["settings"]}
        # Command to the list of what the scripted server says, each a list of segments.
        self.replies = {command: [[_bytes(segment) for segment in segments] for segments in replies]
                        for command, replies in read["replies"]}
        self.steps = read["steps"]

    def can_follow_starttls(self):
        """Whether it begins behind a greeting and an EHLO, which are the same when they have been there before."""
        return bool(self.opening) and not {"greeting", "EHLO"} & set(self.replies)

    def cuts(self):
        """Every way to send it with one cut: (number of the step, place)."""
        return [(number, cut) for number, step in enumerate(self.steps) for cut in step.get("cuts", ())]


def all_sessions():
    printed = subprocess.run([Options.build / "tests" / "print_scripts", FOLDER], stdout=subprocess.PIPE, check=True)
    return [HostileSession(read) for read in json.loads(printed.stdout)]


def _bytes(text):
    return text.encode("latin-1")


class Play:
    """One session, delivered in one way to one address.

    `delivery` is "once", "bytes" (each byte by itself) or a cut of the session. A reply that the session waits for is
    waited for `patience` seconds. When `exactly`, each must come and be the expected one; `complaints` tells what was
    not so. `unguarded` says that Trabex is not there, and so there may be more replies than the session waits for.
    `security` is whether the session is under TLS, and how it came there; `wire` how its records leave.
    """

    numbers = 0
    source = CLIENT
    _ending_seconds = _ENDING_SECONDS

    def __init__(self, session, delivery, patience, exactly, unguarded=False, security=PLAIN, wire=None):
        self.session = session
        self.delivery = delivery
        self.security = security
        self.client_port = None
        self.unplayed = False  # whether it could not even begin
        self.heard_all = False  # whether this client waited for everything that it was to be told
        self._wire = wire
        self.complaints = []
        self._patience = patience
        self._exactly = exactly
        self._unguarded = unguarded
        number = Play.numbers
        Play.numbers += 1
        self.number = "".join(_DIGITS[number // 36 ** place % 36] for place in (2, 1, 0))
        self._reader = self._writer = None
        self._port = None

    def __str__(self):
        how = self.delivery if isinstance(self.delivery, str) else "step {} cut at {}".format(*self.delivery)
        return f"{self.session.name} ({how}{'' if self.security == PLAIN else ', ' + self.security})"

    async def run(self, address):
        try:
            await self._connect(address)
            if self.security == TLS_PORT:
                await self._secure()
            elif self.security == STARTTLS:
                await self._expect("", "220")
                await self._expect("EHLO client-nnn.test", "250")
                got = await self._expect("STARTTLS", "220")
                if not got.startswith("220"):
                    # A server that is busy may not have greeted yet.
                    self.unplayed = True
                    return
                await self._secure()
            await self._open()
            for number, step in enumerate(self.session.steps):
                await self._take(number, step)
            if self.session.steps[-1]["do"] != "shut":
                await self._complete()
            await self._close()
        except AssertionError as error:
            self.complaints.append(str(error))
        except OSError:
            # The other side has closed while something was sent.
            pass
        finally:
            if self._writer:
                self._writer.close()

    async def _connect(self, address):
        self._reader, self._writer = await asyncio.open_connection(*address, local_addr=(self.source, 0))
        self._port = address[1]
        self.client_port = self._writer.get_extra_info("sockname")[1]

    async def _secure(self):
        self._reader = self._writer = SecuredStream(self._reader, self._writer, _ALL, wire=self._wire)
        try:
            await asyncio.wait_for(self._reader.handshake(), bound(_PATIENT_SECONDS))
        except (asyncio.TimeoutError, OSError) as error:
            raise AssertionError(f"no handshake: {error!r}") from None

    async def _open(self):
        # There is no second greeting.
        for line, code in self.session.opening[1 if self.security == STARTTLS else 0:]:
            await self._expect(line, code)

    async def _expect(self, line, code):
        """Sends the line, if there is one, and waits for a reply with the code; returns what came."""
        if line:
            self._writer.write(self._numbered(_bytes(line) + b"\r\n"))
        got = await self._reply(bound(_PATIENT_SECONDS))
        if not got.startswith(code):
            self.complaints.append(f"waited for {code}, got {got!r}")
        return got

    async def _take(self, number, step):
        if step["do"] == "send":
            await self._send(number, self._numbered(_bytes(step["bytes"])))
        elif step["do"] == "reply":
            await self._wait(step["lines"], self._patience, self._exactly)
        elif step["do"] == "closed":
            await self._wait_for_end()
        elif step["do"] == "reset":
            self._reset()
            raise ConnectionResetError

    def _reset(self):
        connection = self._writer.get_extra_info("socket")
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._writer.transport.abort()

    def _numbered(self, data):
        return data.replace(PLACEHOLDER, self.number.encode("ascii"))

    async def _send(self, number, data):
        if self.delivery == "bytes":
            # Of a very long line the middle leaves at once.
            ends = [*range(1, _BYTES), *range(max(_BYTES, len(data) - _BYTES), len(data) + 1)]
            for begin, end in zip([0, *ends], ends):
                self._writer.write(data[begin:end])
                await asyncio.sleep(0)
                if self._writer.is_closing():
                    raise ConnectionResetError
        elif self.delivery != "once" and self.delivery[0] == number:
            cut = self.delivery[1]
            self._writer.write(data[:cut])
            await until_read(self._port, self._writer.get_extra_info("sockname")[1])
            self._writer.write(data[cut:])
        else:
            self._writer.write(data)
        await self._writer.drain()

    async def _reply(self, seconds):
        """The next reply; what there is of it when the connection ends, or nothing comes in that time."""
        lines = [b""]
        try:
            while not lines[-1] or lines[-1][3:4] == b"-":
                lines.append(await asyncio.wait_for(self._reader.readuntil(b"\r\n"), seconds))
        except asyncio.TimeoutError:
            lines.append(_NOTHING.encode("ascii"))
        except asyncio.IncompleteReadError as cut_off:
            lines.append(cut_off.partial)
        return b"".join(lines).decode("latin-1")

    async def _wait(self, lines, seconds, exactly):
        """Waits for a reply of these lines, each a list of the pieces that stand in it with any text in between."""
        got = await self._reply(seconds)
        form = "".join(_ANY.join(map(re.escape, pieces)) + "\r\n" for pieces in lines)
        if exactly and not re.fullmatch(form, got, re.DOTALL):
            self.complaints.append(f"waited for {lines}, got {got!r}")

    async def _wait_for_end(self):
        try:
            rest = await asyncio.wait_for(self._reader.read(), self._patience)
        except asyncio.TimeoutError:
            rest = "no end"
        if self._exactly and rest:
            self.complaints.append(f"waited for the end of the connection, got {rest!r}")

    async def _complete(self):
        """Sends an open transaction off; servers say in their logs what they have taken, not what they would take."""
        if self._unguarded:
            while await self._reply(0.3) not in ("", _NOTHING):
                pass
        for line in (b"", b"RCPT TO:<good@local.test>", b"DATA"):
            self._writer.write(line + b"\r\n")
            reply = await self._reply(0.3)
            # Somebody who says nothing is reading content.
            if not reply or reply == _NOTHING or reply.startswith("354"):
                break
        self._writer.write(b".\r\n")
        # Who hangs up now takes the message back.
        reply = await self._reply(self._ending_seconds)
        self.heard_all = reply.endswith("\r\n")

    async def _close(self):
        """Ends this side; when the other one does not follow, breaks off."""
        self._writer.write_eof()
        try:
            await asyncio.wait_for(self._reader.read(), self._ending_seconds)
        except asyncio.TimeoutError:
            self.heard_all = False
            self._reset()


def plays(session, patience, exactly, security=PLAIN):
    """All the ways to play a session through Trabex."""
    deliveries = ["once", "bytes", *session.cuts()]
    return [Play(session, delivery, patience, exactly, security=security) for delivery in deliveries]


def unguarded_play(session, patience=0.3):
    """The way to play it without Trabex."""
    return Play(session, "once", patience, exactly=False, unguarded=True)


async def run_all(all_plays, address_of, at_a_time, before=lambda play: None):
    """Runs plays, several at a time; `address_of` gives the address for a play, before(play) is called first."""
    limit = asyncio.Semaphore(at_a_time)
    # Many go on sending when they have been refused.
    logging.getLogger("asyncio").setLevel(logging.ERROR)

    async def run(play):
        async with limit:
            before(play)
            await play.run(address_of(play))

    await asyncio.gather(*map(run, all_plays))
