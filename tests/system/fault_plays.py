"""Faults of either side of a session in each phase of the dialogue, many at once in one Trabex.

Each play is one session. Its client has an address of its own, by which the server (told by a PROXY header), the log and
the log in JSON know it. Beside the plays a plain session talks all the time.

Each fault of SERVER_FAULTS and CLIENT_FAULTS is played in each of PHASES by each of TRANSPORTS, but for those that would be
nothing: makes_sense_of_server and makes_sense_of_client say which, and why.
"""

import asyncio
import contextlib
import socket
import ssl
import struct

from addresses import LOOPBACK
from secured_stream import SecuredStream, Wire

UNAVAILABLE = "421 proxy.example is temporarily unavailable."
# Of a reply without an end the client takes so much.
ENOUGH = 300_000

GREETING, PREFACE, EHLO, STARTTLS, HANDSHAKE, AFTER_TLS, AUTH, MAIL, RCPT, DATA, CONTENT, DOT, BDAT, QUIT = PHASES = (
    "greeting", "EHLO of Trabex", "EHLO", "STARTTLS", "handshake", "EHLO after TLS", "AUTH", "MAIL", "RCPT", "DATA",
    "content", "dot", "BDAT", "QUIT")
# What the client says, and the code of the reply to it.
STEPS = {
    GREETING: ("", "220"),
    EHLO: ("EHLO client.example\r\n", "250"),
    STARTTLS: ("STARTTLS\r\n", "220"),
    AFTER_TLS: ("EHLO client.example\r\n", "250"),
    AUTH: ("AUTH PLAIN dGVzdA==\r\n", "235"),
    MAIL: ("MAIL FROM:<s@test.example>\r\n", "250"),
    RCPT: ("RCPT TO:<r@test.example>\r\n", "250"),
    DATA: ("DATA\r\n", "354"),
    CONTENT: ("a line\r\nand another\r\n", None),
    DOT: (".\r\n", "250"),
    BDAT: ("BDAT 10 LAST\r\n1234567890", "250"),
    QUIT: ("QUIT\r\n", "221"),
}
SERVER_FAULTS = ("refuses", "hangs", "resets", "closes", "sends without end", "sends a line without end",
                 "speaks unasked", "offers unasked", "byte by byte")
CLIENT_FAULTS = ("vanishes", "vanishes inside", "is silent", "byte by byte", "never reads", "half-closes")
SLOW = "a byte a second"
# Where TLS is spoken.
PLAIN, WITH_CLIENT, WITH_SERVER = TRANSPORTS = ("plain", "TLS with the client", "TLS with the server")


UNASKED = "250 nobody has asked"
# What no client may be offered.
OFFERED = "250-nobody has asked\n250-STARTTLS\n250-PIPELINING\n250 XCLIENT NAME ADDR"
REFUSED = "554 5.7.1 refused by the test"
_LONG = "a line of a long reply"
# The server's replies.
REPLIES = {
    GREETING: "220 server.example ESMTP",
    EHLO: "250-server.example\n250-8BITMIME\n250-AUTH PLAIN\n250 CHUNKING",
    AFTER_TLS: "250-server.example\n250-8BITMIME\n250-AUTH PLAIN\n250 CHUNKING",
    AUTH: "235 ok",
    MAIL: "250 ok",
    RCPT: "250 ok",
    DATA: "354 go on",
    DOT: "250 taken",
    BDAT: "250 taken",
    QUIT: "221 bye",
    PREFACE: "250-server.example\n250 STARTTLS",
    STARTTLS: "220 go on",
    CONTENT: "",
    HANDSHAKE: "",
}


def prefix(phase, transport):
    """What the client does before the phase."""
    before = [GREETING, EHLO, *([STARTTLS, HANDSHAKE, AFTER_TLS] if transport == WITH_CLIENT else []), AUTH, MAIL, RCPT]
    if phase in before:
        return before[:before.index(phase)]
    return {QUIT: before[:-2], DATA: before, CONTENT: [*before, DATA], DOT: [*before, DATA, CONTENT], BDAT: before}[phase]


def table(transport):
    """(side, fault, phase) of all plays."""
    for phase in PHASES:
        for fault in SERVER_FAULTS:
            if makes_sense_of_server(fault, phase, transport):
                yield "server", fault, phase
        for fault in CLIENT_FAULTS:
            if makes_sense_of_client(fault, phase, transport):
                yield "client", fault, phase


def slow_table(transport):
    """The same of those that take as many seconds as they send bytes."""
    for phase in PHASES:
        if makes_sense_of_client("byte by byte", phase, transport):
            yield "client", SLOW, phase


def is_between_peers(phase, transport):
    """Whether Trabex and the server are at it, and the client has heard nothing yet."""
    return phase == PREFACE or (transport == WITH_SERVER and phase in (STARTTLS, HANDSHAKE))


def exists(phase, transport):
    if phase in (STARTTLS, HANDSHAKE):
        return transport != PLAIN
    return phase != AFTER_TLS or transport == WITH_CLIENT


def makes_sense_of_server(fault, phase, transport):
    if transport == WITH_CLIENT and phase == STARTTLS:
        return False  # Trabex answers at once, and does not ask the server
    if transport == WITH_CLIENT and phase == HANDSHAKE:
        return fault not in ("refuses", "hangs", "byte by byte")  # of a server that owes nothing
    if fault == "offers unasked" and phase in (DATA, CONTENT, QUIT):
        return False  # the session ends with it, and nothing is offered to anybody
    return exists(phase, transport) and (phase, fault) != (CONTENT, "byte by byte")  # there is no reply to it


def makes_sense_of_client(fault, phase, transport):
    if is_between_peers(phase, transport):
        return fault in ("vanishes", "half-closes")  # it has nothing to say, and gets nothing
    if phase == GREETING:
        return fault in ("vanishes", "never reads", "half-closes")  # it has nothing to say
    if fault == "never reads" and phase in (STARTTLS, HANDSHAKE, CONTENT):
        return False  # it gets nothing that could stay where it is
    return exists(phase, transport)


class _Bytes(Wire):
    """Each byte of what is encrypted in a packet of its own."""

    def segments(self, data):
        return [bytes([byte]) for byte in data]


class Peer:
    """One end of a connection: lines, ends of every kind; in the clear or under TLS."""

    def __init__(self, reader, writer):
        self.reader, self.writer = reader, writer
        self._raw = writer
        self.heard = bytearray()

    async def start_tls(self, context, server_side, slowly=False):
        secured = SecuredStream(self.reader, self.writer, context, server_side, _Bytes() if slowly else None)
        self.reader = self.writer = secured
        await secured.handshake()

    async def send(self, data):
        self.writer.write(data.encode("latin-1") if isinstance(data, str) else data)
        await self.writer.drain()

    async def send_slowly(self, data, pause=0):
        """Each byte in a packet (and a record) of its own, with so many seconds behind it."""
        for byte in data.encode("latin-1") if isinstance(data, str) else data:
            await self.send(bytes([byte]))
            await asyncio.sleep(pause)

    async def read_line(self):
        line = await self.reader.readuntil(b"\r\n")
        self.heard += line
        return line.decode("latin-1")[:-2]

    async def read_reply(self):
        lines = [await self.read_line()]
        while lines[-1][3:4] == "-":
            lines.append(await self.read_line())
        return "\n".join(lines)

    async def read_to_end(self):
        """What still comes; a reset is an end as well."""
        try:
            data = await (self.reader.read() if self.reader is self.writer else self.reader.read(-1))
        except ConnectionError:
            return ""
        self.heard += data
        return data.decode("latin-1")

    async def read_some(self):
        """At least a byte; nothing at the end."""
        try:
            data = await (self.reader.read_some() if self.reader is self.writer else self.reader.read(65536))
        except ConnectionError:
            return ""
        return data.decode("latin-1")

    def stop_reading(self):
        """What comes stays with the system."""
        self._raw.transport.pause_reading()

    def end_sending(self):
        self.writer.write_eof()

    def reset(self):
        with contextlib.suppress(OSError):
            self._raw.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._raw.transport.abort()

    def close(self):
        self._raw.close()


class Play:
    """One session with one fault. `told` is what its client heard in the phase of the fault and behind it."""

    def __init__(self, transport, side, fault, phase, address):
        self.transport, self.side, self.fault, self.phase, self.address = transport, side, fault, phase, address
        self.name = f"{transport}: {side} {fault}, {phase}"
        self.told = ""
        self.sent = 0  # by the server, of what has no end
        self.server_began = False
        self.server_ended = asyncio.Event()
        self.reached_server = asyncio.Event()  # the phase
        self.client_waits = asyncio.Event()
        self.server_acted = asyncio.Event()  # in its fault

    async def run(self, proxy, context):
        """Plays the client's part. Raises AssertionError when something comes before the fault that should not."""
        client = socket.socket()
        client.setblocking(False)
        client.bind((self.address, 0))
        if self.fault == "never reads":
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        await asyncio.get_running_loop().sock_connect(client, proxy)
        peer = Peer(*await asyncio.open_connection(sock=client, limit=1 << 20))
        self._context = context
        try:
            if not self.before_client():
                for phase in prefix(self.phase, self.transport):
                    await self._step(peer, phase)
            await (self._meet_server(peer) if self.side == "server" else self._misbehave(peer))
        except (asyncio.IncompleteReadError, ConnectionError) as error:
            raise AssertionError(f"{error!r}; so far: {bytes(peer.heard)!r}") from None
        finally:
            peer.close()

    def before_client(self):
        """Whether the phase is one of Trabex and the server alone: the client has heard nothing yet."""
        return self.phase == GREETING or is_between_peers(self.phase, self.transport)

    async def _step(self, peer, phase):
        if phase == HANDSHAKE:
            return await peer.start_tls(self._context, False)
        text, code = STEPS[phase]
        await peer.send(text)
        if code:
            reply = await peer.read_reply()
            if reply[:3] != code:
                raise AssertionError(f"{phase}: {reply!r}")

    async def _meet_server(self, peer):
        if (self.transport, self.phase) == (WITH_CLIENT, HANDSHAKE):
            return await self._meet_server_in_handshake(peer)
        if not self.before_client():
            await peer.send(STEPS[self.phase][0] + (STEPS[DOT][0] if (self.phase, self.fault) == (CONTENT, "hangs") else ""))
        if self.fault in ("sends without end", "sends a line without end"):
            while len(self.told) < ENOUGH and (more := await peer.read_some()):
                self.told += more
            return peer.reset()
        self.client_waits.set()
        # Whatever comes: the client goes on to its last word, where that is still possible.
        if (reply := await self._reply(peer)) and self.fault in ("speaks unasked", "offers unasked") and reply[:3] != "421":
            reply = await self._reply(peer)
        if reply.startswith("354") and self.fault != "speaks unasked":
            await peer.send(STEPS[DOT][0])
            reply = await self._reply(peer)
        if reply and reply[:3] not in ("421", "221"):
            await peer.send(STEPS[QUIT][0])
        self.told += await peer.read_to_end()

    async def _meet_server_in_handshake(self, peer):
        """The server has its say while TLS with the client is due."""
        self.client_waits.set()
        await (self.server_ended if self.fault in ("closes", "resets") else self.server_acted).wait()
        try:
            await peer.start_tls(self._context, False)
        except (AssertionError, ConnectionError):
            if self.fault != "closes":
                raise
            return
        if self.fault in ("sends without end", "sends a line without end"):
            while len(self.told) < ENOUGH and (more := await peer.read_some()):
                self.told += more
            return peer.reset()
        if self.fault in ("speaks unasked", "offers unasked") and await self._reply(peer):
            await peer.send(STEPS[QUIT][0])
        self.told += await peer.read_to_end()

    async def _reply(self, peer):
        """The next reply; nothing at the end. It is what the client is told."""
        try:
            reply = await peer.read_reply()
        except (asyncio.IncompleteReadError, ConnectionError):
            return ""
        self.told += reply.replace("\n", "\r\n") + "\r\n"
        return reply

    async def _misbehave(self, peer):
        text = STEPS[self.phase][0] if self.phase in STEPS and not self.before_client() else ""
        if self.fault == "vanishes":
            await self._say(peer, text)
            peer.reset()
        elif self.fault == "vanishes inside":
            await peer.send(text[:len(text) // 2] or "\x16\x03\x01")
            peer.reset()
        elif self.fault == "is silent":
            self.client_waits.set()
            self.told += await peer.read_to_end()
        elif (self.fault, self.phase) == (SLOW, HANDSHAKE):
            # As much as a handshake begins with.
            with contextlib.suppress(ConnectionError):
                await peer.send_slowly(b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + bytes(500), 1)
        elif self.fault in ("byte by byte", SLOW):
            await peer.send_slowly(text, 1 if self.fault == SLOW else 0)
            if self.phase == STARTTLS:
                await self._step(peer, GREETING)
            if self.phase in (STARTTLS, HANDSHAKE):
                await peer.start_tls(self._context, False, slowly=self.phase == HANDSHAKE)
            elif self.phase == CONTENT:
                await self._step(peer, DOT)
            elif await self._reply(peer) == "354 go on":
                await self._step(peer, DOT)
            if self.phase != QUIT:
                await peer.send(STEPS[QUIT][0])
            self.told += await peer.read_to_end()
        elif self.fault == "never reads":
            peer.stop_reading()
            await peer.send(text)
            await self._nothing_moves()
            peer.reset()
        elif self.fault == "half-closes":
            await self._say(peer, text)
            peer.end_sending()
            self.told += await peer.read_to_end()

    async def _say(self, peer, text):
        """Says it, and waits for the server to know, where it has a part in the phase."""
        await peer.send(text)
        if is_between_peers(self.phase, self.transport) or self.phase not in (GREETING, STARTTLS, HANDSHAKE):
            await self.reached_server.wait()

    async def _nothing_moves(self):
        """Until what the server sends stays where it is."""
        seen = []
        while len(seen) < 20 or len(set(seen[-20:])) > 1 or not seen[-1]:
            seen.append(self.sent)
            await asyncio.sleep(0.02)


class Server:
    """The server of all plays. `tls` is its ssl.SSLContext when it offers STARTTLS to Trabex."""

    def __init__(self, plays, tls=None):
        self._plays = {play.address: play for play in plays}
        self._tls = tls
        self._tasks = set()
        self.failures = []

    async def start(self):
        self._server = await asyncio.start_server(self._serve, LOOPBACK, 0, backlog=1000, limit=1 << 20)
        self.port = self._server.sockets[0].getsockname()[1]

    async def stop(self):
        self._server.close()
        for task in self._tasks:
            task.cancel()
        await asyncio.gather(*self._tasks, return_exceptions=True)

    async def _serve(self, reader, writer):
        self._tasks.add(asyncio.current_task())
        peer = Peer(reader, writer)
        play = None
        try:
            header = await peer.read_line()
            play = self._plays.get(header.split(" ")[2])
            if play:
                play.server_began = True
            await _ServerDialogue(peer, play, self._tls).run()
        except (asyncio.IncompleteReadError, asyncio.CancelledError, ConnectionError, AssertionError, ssl.SSLError):
            pass
        except Exception as error:  # of a task, which nobody else would see
            self.failures.append(f"server of {play and play.name}: {error!r}")
        finally:
            peer.close()
            if play:
                play.server_ended.set()


class _Over(ConnectionError):
    pass


class _ServerDialogue:
    def __init__(self, peer, play, tls):
        self._peer, self._play, self._tls = peer, play, tls

    async def run(self):
        peer = self._peer
        # What passes between Trabex and the server before the client hears anything.
        await self._answer(GREETING)
        await peer.read_line()
        await self._answer(PREFACE)
        if self._tls:
            await peer.read_line()
            await self._answer(STARTTLS)
            await self._answer(HANDSHAKE)
            slowly = self._play and (self._play.side, self._play.phase, self._play.fault) == ("server", HANDSHAKE, "byte by byte")
            await peer.start_tls(self._tls, True, slowly)
            await self._await_silence_behind(HANDSHAKE)
        play, ehlos = self._play, 0
        while True:
            line = await peer.read_line()
            verb = line.split(" ")[0].upper()
            if verb == "EHLO":
                ehlos += 1
                secured = ehlos == 2 and play is not None and play.transport == WITH_CLIENT
                await self._answer(AFTER_TLS if secured else EHLO)
                if play and (play.transport, play.side, play.phase) == (WITH_CLIENT, "server", HANDSHAKE):
                    await play.client_waits.wait()
                    await self._answer(HANDSHAKE)
            elif verb == "DATA":
                await self._answer(DATA)
                if play and (play.side, play.phase) == ("server", DATA) and play.fault in ("refuses", "speaks unasked"):
                    continue
                content = b""
                while not content.endswith(b"\r\n.\r\n"):
                    content += await peer.reader.readuntil(b"\r\n")
                    if content.endswith(b"another\r\n"):
                        await self._answer(CONTENT)
                await self._answer(DOT)
            elif verb == "BDAT":
                if not (play and play.side == "client" and play.fault == "vanishes inside"):
                    await peer.reader.readexactly(int(line.split(" ")[1]))
                await self._answer(BDAT)
            elif verb == "QUIT":
                await self._answer(QUIT)
                return
            else:
                await self._answer(verb)

    async def _answer(self, phase):
        play, peer = self._play, self._peer
        reply = REPLIES.get(phase, "250 ok").replace("\n", "\r\n")
        if play is None:
            return await peer.send(reply + "\r\n") if reply else None
        if phase == play.phase:
            play.reached_server.set()
        if play.side == "server" and phase == play.phase:
            await self._fault(phase, reply)
        elif phase == play.phase and play.fault == "never reads":
            await self._without_end(f"250-{_LONG}\r\n" * 1000)
        elif phase == play.phase and play.fault in ("vanishes", "half-closes"):
            await self._end()
        elif reply:
            await peer.send(reply + "\r\n")
        if phase != HANDSHAKE:
            await self._await_silence_behind(phase)

    async def _await_silence_behind(self, phase):
        """Where the client says nothing from now on, the server has enough of it."""
        play = self._play
        if play is None or (play.side, play.fault) != ("client", "is silent") or phase != self._last_before():
            return
        await play.client_waits.wait()
        if play.phase != HANDSHAKE:
            await self._peer.send("421 you say nothing\r\n")
            raise _Over
        await self._end()

    def _last_before(self):
        """The last phase before that of the fault in which this server has a part."""
        last = [each for each in prefix(self._play.phase, self._play.transport)
                if each not in (STARTTLS, HANDSHAKE, CONTENT)][-1]
        return last if last != GREETING else HANDSHAKE if self._tls else PREFACE

    async def _end(self):
        await self._peer.read_to_end()
        raise _Over

    async def _without_end(self, text):
        data = text.encode("ascii")
        # More than all systems' buffers between here and the client hold.
        while self._play.sent < 30 << 20:
            await self._peer.send(data)
            self._play.sent += len(data)
        await self._end()

    async def _fault(self, phase, reply):
        peer, fault = self._peer, self._play.fault
        code = (reply or "250")[:3]
        if phase == HANDSHAKE:
            self._play.server_acted.set()
        if fault == "refuses":
            await peer.send(REFUSED + "\r\n")
        elif fault == "hangs":
            await self._end()
        elif fault == "resets":
            peer.reset()
            raise _Over
        elif fault == "closes":
            raise _Over
        elif fault == "sends without end":
            await self._without_end(f"{code}-{_LONG}\r\n" * 1000)
        elif fault == "sends a line without end":
            await self._without_end(f"{code} " + "x" * 30000)
        elif fault == "speaks unasked":
            unasked, answer = UNASKED + "\r\n", reply and reply + "\r\n"
            if self._play.before_client():
                # Alone it would be the answer.
                return await peer.send(unasked + answer)
            await peer.send(unasked)
            await self._play.client_waits.wait()
            await peer.send(answer)
        elif fault == "offers unasked":
            offered = OFFERED.replace("\n", "\r\n") + "\r\n"
            await peer.send((reply and reply + "\r\n") + offered)
        elif fault == "byte by byte":
            if reply:
                await peer.send_slowly(reply + "\r\n")


def expected(play):
    """What the client is told (the whole, or the beginning of what has no end), and how the session ends."""
    unavailable = UNAVAILABLE + "\r\n", "server"
    reply = REPLIES[play.phase].replace("\n", "\r\n") + "\r\n"
    bye = "" if play.phase == QUIT else "221 bye\r\n"
    quits = "server" if play.phase == QUIT else "quit"
    if play.side == "client":
        if play.fault == "is silent":
            return ("", "timeout") if play.phase == HANDSHAKE else ("421 you say nothing\r\n", "server")
        if (play.fault, play.phase) == (SLOW, HANDSHAKE):
            return "", "timeout"
        if play.fault in ("byte by byte", SLOW):
            return ("" if play.phase in (STARTTLS, HANDSHAKE, CONTENT) else _offered(play, reply)) + bye, "quit"
        if (play.transport, play.fault, play.phase) == (WITH_CLIENT, "half-closes", STARTTLS):
            return "220 2.0.0 Ready to start TLS.\r\n", "client"
        # A reply as long as this is not waited for where Trabex has to see the whole.
        whole = play.fault == "never reads" and play.phase in (GREETING, EHLO, AFTER_TLS)
        return "", "server" if whole else "client"
    if play.before_client():
        if play.fault == "byte by byte":
            return REPLIES[GREETING] + "\r\n221 bye\r\n", "quit"
        if (play.fault, play.phase) == ("refuses", GREETING):
            return REFUSED + "\r\n221 2.0.0 proxy.example closing connection.\r\n", "quit"
        return unavailable if play.fault != "hangs" else (unavailable[0], "timeout")
    if play.fault == "refuses":
        return REFUSED + "\r\n" + ("" if play.phase == CONTENT else bye), "server" if play.phase == CONTENT else quits
    if play.fault == "hangs":
        return "" if play.phase == QUIT else unavailable[0], "timeout"
    if play.fault == "closes":
        return "", "server"
    if play.fault == "sends without end" and play.phase not in (EHLO, AFTER_TLS, HANDSHAKE):
        return f"{(REPLIES.get(play.phase) or '250')[:3]}-{_LONG}\r\n" * 100, "client"
    if play.fault == "speaks unasked":
        if play.phase == CONTENT:
            return f"{UNASKED}\r\n", "server"
        if (play.transport, play.phase) == (WITH_CLIENT, EHLO):
            # One of them is taken for the reply to EHLO, and neither offers more than that may.
            return f"250-nobody has asked\r\n250 STARTTLS\r\n{_offered(play, reply)}{bye}", quits
        return f"{UNASKED}\r\n{'' if play.phase == HANDSHAKE else reply}{bye}", quits
    if play.fault == "offers unasked":
        answer = "" if play.phase == HANDSHAKE else _offered(play, reply)
        in_clear = play.transport == WITH_CLIENT and play.phase == EHLO
        offered = "250-nobody has asked\r\n250 STARTTLS\r\n" if in_clear else "250 nobody has asked\r\n"
        return answer + offered + bye, "quit"
    if play.fault == "byte by byte":
        return _offered(play, reply) + ("250 taken\r\n" if play.phase == DATA else "") + bye, "quit"
    return unavailable


def _offered(play, reply):
    """The reply as it comes behind Trabex, which offers STARTTLS itself, and no AUTH before it."""
    if (play.transport, play.phase) != (WITH_CLIENT, EHLO):
        return reply
    return reply.replace("250-AUTH PLAIN\r\n250 CHUNKING", "250-CHUNKING\r\n250 STARTTLS")


async def talk_beside(proxy, ended, waits):
    """A plain session that has nothing to do with the others; appends to `waits` how long each reply took."""
    loop = asyncio.get_running_loop()
    peer = Peer(*await asyncio.open_connection(*proxy))
    if (reply := await peer.read_reply())[:3] != "220":
        raise AssertionError(f"beside: {reply}")
    commands = ["EHLO client.example", "MAIL FROM:<s@test.example>", "RCPT TO:<r@test.example>", "RSET", "NOOP"]
    at = 0
    while not ended.is_set():
        begun = loop.time()
        await peer.send(commands[at % len(commands)] + "\r\n")
        reply = await peer.read_reply()
        waits.append(loop.time() - begun)
        if reply[:3] != "250":
            raise AssertionError(f"beside: {reply}")
        at += 1
        await asyncio.sleep(0.01)
    await peer.send("QUIT\r\n")
    if await peer.read_to_end() != "221 bye\r\n":
        raise AssertionError("beside: no end")
    peer.close()
