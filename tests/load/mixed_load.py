#!/usr/bin/env python3
"""Everything at a time, for as long as it is told: mail in every way that a client may bring it, clients that vanish, clients
that are silent, hostile sessions, and operators who reload, renew certificates, ask, close and look on.

    scripts/build asan Trabex print_scripts
    tests/load/mixed_load.py 60                        an hour, with the sanitizers
    tests/load/mixed_load.py 5 --build build/release   five minutes of another build

It checks as it goes: whoever is told that a message is taken finds it at the server, once and byte for byte; nothing
arrives that nobody has sent; every session is answered; a hostile session brings no server what it must not get; no program
says a word on standard error, as sanitizers do; and the memory is in the end what it was early on. The first thing that is
not so ends it with status 1.

It needs root, for a network of its own: a name server, addresses of IPv6, and clients from everywhere.
"""

import argparse
import asyncio
import contextlib
import json
import os
import random
import re
import signal
import ssl
import statistics
import subprocess
import sys
import time
import traceback
from collections import Counter
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPO / "tests" / "system"))
from dialogue import describe_difference, trusting, without_received  # noqa: E402
from hostile_plays import PLAIN, STARTTLS, TLS_PORT, Play, all_sessions  # noqa: E402
from json_lines import read_line  # noqa: E402
from messages import any_bytes, text_message  # noqa: E402
from recording_server import RecordingServer  # noqa: E402
from secured_stream import SecuredStream  # noqa: E402
from test_hostile import SETTINGS as HOSTILE_SETTINGS  # noqa: E402
from trabex_system import (DOMAIN, LOOPBACK, Authority, Options, Place, Process, Terminal, Trabex, bound,  # noqa: E402
                           connections_to, free_port, replace_file, run_trabex)

_OWN_NETWORK = "TRABEX_MIXED_LOAD_NETWORK"
LOCAL, BALANCER = "127.0.0.9", "127.0.0.20"
NETWORKS = 40           # of remote clients, for greylisting
IPV6_CLIENTS = [f"fd7f::{number:x}" for number in range(1, 21)]
RECIPIENTS = 4
SENDERS = 20            # sessions with mail at a time
HOSTILE = 3
VANISHING = 3
REPLY_SECONDS = 60
SILENCE_SECONDS = 20    # after which the server ends a session
HTTP_SECONDS = 4        # a request has five
MB = 1 << 20
# The second comes where a reload meets a renewal of which one file of two is there.
_KNOWN_ERROR = re.compile(r"^Trabex: .*(?:\bMaxRecipientsLocal\b|The key does not fit the certificate\.).*\n", re.MULTILINE)
_IDENTITY = re.compile(rb"Message-Id: <(\d+)@client\.example>")


class Wrong(Exception):
    """Something that must not be."""


class Tally:
    """What has been done so far, and the messages whose fate is open."""

    def __init__(self):
        self.count = Counter()
        self.sent = {}       # identity to content: sent, or about to be
        self.arrived = set()
        self._last = 0

    def new_identity(self):
        self._last += 1
        return self._last

    def arrive(self, content):
        """A server has a whole message."""
        content = without_received(content)
        found = _IDENTITY.search(content)
        if not found:
            raise Wrong(f"a message that nobody has sent: {content[:300]!r}")
        identity = int(found.group(1))
        if identity in self.arrived:
            raise Wrong(f"message {identity} has arrived twice")
        if identity not in self.sent:
            raise Wrong(f"message {identity} has arrived again, or was never sent")
        if difference := describe_difference(self.sent[identity], content):
            raise Wrong(f"message {identity}: {difference}")
        self.arrived.add(identity)

    def accepted(self, identity):
        """A client was told that its message is taken."""
        if identity not in self.arrived:
            raise Wrong(f"message {identity} was taken, and has not arrived")
        self.arrived.remove(identity)
        del self.sent[identity]
        self.count["messages"] += 1


class MailServer:
    """A server in the running event loop that takes everything, and hands each message to the tally."""

    def __init__(self, tally, fail, context=None):
        self._tally, self._fail, self._context = tally, fail, context
        self._server = None
        self.port = None

    async def start(self):
        self._server = await asyncio.start_server(self._serve, LOOPBACK, 0, backlog=500, limit=1 << 22, ssl=self._context)
        self.port = self._server.sockets[0].getsockname()[1]

    async def _serve(self, reader, writer):
        try:
            await self._dialogue(reader, writer)
        except (asyncio.IncompleteReadError, ConnectionError, ssl.SSLError):
            pass
        except Exception as error:
            self._fail(error)
        finally:
            writer.close()

    async def _dialogue(self, reader, writer):
        async def say(text):
            writer.write(f"{text}\r\n".encode("ascii"))
            await writer.drain()

        chunks = []
        await say("220 server.example ESMTP")
        while True:
            try:
                line = await asyncio.wait_for(reader.readuntil(b"\r\n"), bound(SILENCE_SECONDS))
            except asyncio.TimeoutError:
                await say("421 too long a silence")
                return
            verb = line.split()[0].upper() if line.split() else b""
            if verb == b"EHLO":
                await say("250-server.example\r\n250-8BITMIME\r\n250-CHUNKING\r\n250-PIPELINING\r\n250-SIZE 10000000\r\n"
                          "250 XCLIENT NAME ADDR PORT PROTO HELO DESTADDR DESTPORT")
            elif verb == b"XCLIENT":
                self._tally.count["XCLIENT"] += 1
                await say("220 server.example ESMTP")
            elif verb == b"DATA":
                await say("354 go on")
                self._tally.arrive(await self._content(reader))
                await say("250 taken")
            elif verb == b"BDAT":
                chunks.append(await reader.readexactly(int(line.split()[1])))
                if line.split()[2:] == [b"LAST"]:
                    self._tally.arrive(b"".join(chunks))
                    chunks.clear()
                await say("250 taken")
            else:
                if verb in (b"MAIL", b"RSET"):
                    chunks.clear()
                await say("221 bye" if verb == b"QUIT" else "250 ok")
            if verb == b"QUIT":
                return

    @staticmethod
    async def _content(reader):
        lines = []
        while (line := await reader.readuntil(b"\r\n")) != b".\r\n":
            lines.append(line[1:] if line.startswith(b".") else line)
        return b"".join(lines)


class NameServer(asyncio.DatagramProtocol):
    """Knows a name for each client and that name's address, and what clients call themselves. It takes its time, and now
    and then it does not hear a question."""

    def __init__(self, tally, chance):
        self._tally, self._chance = tally, chance
        self._transport = None

    def connection_made(self, transport):
        self._transport = transport

    def datagram_received(self, data, addr):
        self._tally.count["DNS questions"] += 1
        if self._chance.random() < 0.99:
            asyncio.get_running_loop().call_later(self._chance.choice((0, 0, 0, 0.1, 0.5)), self._transport.sendto,
                                                  self._answer(data), addr)

    def _answer(self, question):
        labels, at = [], 12
        while question[at]:
            labels.append(question[at + 1:at + 1 + question[at]].lower())
            at += 1 + question[at]
        kind = int.from_bytes(question[at + 1:at + 3], "big")
        data = self._record(kind, labels)
        code = b"\x81\x80" if data or labels[-2:] == [b"client", b"example"] else b"\x81\x83"
        record = (b"\xc0\x0c" + kind.to_bytes(2, "big") + b"\0\1" + (5).to_bytes(4, "big") + len(data).to_bytes(2, "big") + data
                  if data else b"")
        return question[:2] + code + question[4:6] + bytes((0, bool(data))) + bytes(4) + question[12:at + 5] + record

    @staticmethod
    def _record(kind, labels):
        """The data of the record, or nothing."""
        if kind == 12 and labels[-2:] in ([b"in-addr", b"arpa"], [b"ip6", b"arpa"]):
            separator = b"-" if labels[-2] == b"in-addr" else b""
            name = [b"a" + separator.join(reversed(labels[:-2])), b"client", b"example"]
            return b"".join(bytes((len(label),)) + label for label in name) + b"\0"
        if labels[-2:] != [b"client", b"example"]:
            return b""
        if len(labels) == 2:
            return bytes((127, 0, 0, 2)) if kind == 1 else b""
        if kind == 1 and b"-" in labels[0]:
            return bytes(map(int, labels[0][1:].split(b"-")))
        return bytes.fromhex(labels[0][1:].decode()) if kind == 28 and len(labels[0]) == 33 else b""


class Client:
    """A client's connection, from anywhere and secured in any way."""

    def __init__(self, tally, chance, proxy):
        self._tally, self._chance, self._proxy = tally, chance, proxy
        self._reader = self.writer = None
        self.source = ""
        self.is_remote = True
        self.security = chance.choice((PLAIN, PLAIN, STARTTLS, TLS_PORT))
        self.header = b""

    async def connect(self, *ways):
        way = self._chance.choice(ways or ("local", "remote", "remote", "balancer", "balancer", "IPv6"))
        self._tally.count[f"{way}, {self.security}"] += 1
        network = f"127.1.{self._chance.randrange(NETWORKS)}.{self._chance.randrange(1, 250)}"
        self.source = {"local": LOCAL, "remote": network, "balancer": BALANCER,
                       "IPv6": self._chance.choice(IPV6_CLIENTS)}[way]
        self.is_remote = way != "local"
        host = "::1" if way == "IPv6" else LOOPBACK
        port = self._proxy.settings["BindPortTLS"] if self.security == TLS_PORT else self._proxy.port
        self._reader, self.writer = await asyncio.open_connection(host, port, local_addr=(self.source, 0))
        if way == "balancer":
            self.header = self._announced(network)
            self.writer.write(self.header)

    def _announced(self, client):
        """A header of the PROXY protocol, of either version."""
        if self._chance.random() < 0.5:
            return f"PROXY TCP4 {client} 192.0.2.1 {self._chance.randrange(1024, 60000)} 25\r\n".encode("ascii")
        addresses = bytes(map(int, client.split("."))) + bytes((192, 0, 2, 1)) + b"\x30\x39\x00\x19"
        return b"\r\n\r\n\0\r\nQUIT\n\x21\x11" + len(addresses).to_bytes(2, "big") + addresses

    async def secure(self):
        stream = SecuredStream(self._reader, self.writer, _ALL)
        await asyncio.wait_for(stream.handshake(), bound(REPLY_SECONDS))
        self._reader = self.writer = stream

    async def greet(self):
        """Returns whether it is let in: on a busy machine the name server may be too late for it."""
        if self.security == TLS_PORT:
            await self.secure()
        if not await self.is_known("220") or not await self.is_known("250", b"EHLO client.example\r\n"):
            return False
        if self.security != STARTTLS:
            return True
        await self.command("STARTTLS", "220")
        await self.secure()
        return await self.is_known("250", b"EHLO client.example\r\n")

    async def is_known(self, code, line=b""):
        """Whether the reply to the line has the code, and not that of somebody whose name could not be found."""
        self.send(line)
        reply = await self.reply()
        if "Unable to verify" in reply:
            self._tally.count["without an answer of DNS"] += 1
            return False
        if not reply.startswith(code):
            raise Wrong(f"{self}: waited for {code}, got {reply!r}")
        return True

    async def reply(self):
        lines = [b""]
        try:
            while not lines[-1] or lines[-1][3:4] == b"-":
                lines.append(await asyncio.wait_for(self._reader.readuntil(b"\r\n"), bound(REPLY_SECONDS)))
        except asyncio.IncompleteReadError as cut_off:
            raise Wrong(f"{self}: the connection has ended, behind {b''.join(lines) + cut_off.partial!r}") from None
        except asyncio.TimeoutError:
            raise Wrong(f"{self}: no reply, behind {b''.join(lines)!r}") from None
        return b"".join(lines).decode("latin-1")

    def __str__(self):
        return f"the client {self.source}, {self.security}, {self.header!r}"

    async def expect(self, code):
        reply = await self.reply()
        if not reply.startswith(code):
            raise Wrong(f"{self}: waited for {code}, got {reply!r}")

    async def command(self, line, code):
        self.send(line.encode("ascii") + b"\r\n")
        await self.expect(code)

    def send(self, data):
        self.writer.write(data)

    def close(self):
        self.writer.close()

    def reset(self):
        self.writer.transport.abort()


_ALL = trusting(None)


class MixedLoad:
    def __init__(self, place, minutes, seed):
        self.place = place
        self.seconds = minutes * 60
        self.seed = seed
        self.tally = Tally()
        self.proxies, self.mail_proxies = [], []
        self.hostile_proxy = None
        self.recorder = RecordingServer()
        self.certificate_files = ()
        self.certificates = []
        self.resident = {}
        self._failure = asyncio.Event()
        self._why = ""
        self._ending = False
        self._begun = 0.0

    # ---- what is wrong

    def fail(self, error):
        if not self._failure.is_set():
            self._why = "".join(traceback.format_exception(error))
            self._failure.set()

    async def guarded(self, work, *arguments):
        """Does the work again and again until all ends; each has chances of its own."""
        chance = random.Random(f"{self.seed} {work.__name__} {arguments}")
        try:
            while not self._ending:
                await work(chance)
        except Exception as error:
            self.fail(error)

    # ---- what it takes

    def start_proxies(self, ports):
        authority = Authority(self.place)
        self.certificates = [authority.issue(["localhost", LOOPBACK]) for _ in range(2)]
        folder = self.place.new_folder("certificate")
        self.certificate_files = folder / "chain.pem", folder / "key.pem"
        for file, content in zip(self.certificate_files, (self.certificates[0].chain, self.certificates[0].key)):
            file.write_bytes(content.read_bytes())
        tls = {"Certificate": " ".join(map(str, self.certificate_files)), "MaxHandshakes": 100}
        common = {"BindIP": f"{LOOPBACK}, ::1", "ProxyProtocolFrom": BALANCER, "LocalIPs": LOCAL, "LocalDomains": DOMAIN,
                  "MaxBadSeq": 100}
        grey = {"Enabled": 1, "Log": 1, "Delay": 0, "BlackListDelay": 0, "BlackListMinCount": 1, "MaxPending": 100_000,
                "HostsBlackList": "[]", "Database": self.place.folder / "grey.gldb"}
        plain, secured = ports
        for port, settings, sections in (
                (plain, {"ConfirmHostNames": 1, "ValidateRDNS": 2, "ValidateHELO": 2}, {"GreyListing": grey, "TLS": tls}),
                (secured, {"SendClientIP": 3}, {"TLS": {**tls, "Server": 3}})):
            sections["Service"] = {"StatusHTTP": f"{LOOPBACK}:{free_port()}", "ServerTimeout": 120}
            self.mail_proxies.append(Trabex(self.place, port, {**common, **settings, "BindPortTLS": free_port()}, sections,
                                            json_log=True))
        self.hostile_proxy = Trabex(self.place, self.recorder.port, {**HOSTILE_SETTINGS, "BindPortTLS": free_port()},
                                    {"TLS": tls}, json_log=True)
        self.proxies = [*self.mail_proxies, self.hostile_proxy]

    # ---- clients

    async def mail(self, chance):
        """One session with some messages."""
        proxy = chance.choice(self.mail_proxies)
        client = Client(self.tally, chance, proxy)
        await client.connect()
        try:
            if not await client.greet():
                return
            for _ in range(chance.randrange(1, 6)):
                await self.deliver(client, chance)
            if chance.random() < 0.8:
                await client.command("QUIT", "221")
        finally:
            client.close()
        self.tally.count["sessions"] += 1

    def new_message(self, chance):
        """(identity, content, whether it has to go by BDAT)"""
        identity = self.tally.new_identity()
        content = text_message(identity, chance.choice((0, 100, 2000, 2000, 20_000, 300_000)))
        octets = chance.random() < 0.3
        if octets:
            content += any_bytes(identity, chance.randrange(20_000))
        self.tally.sent[identity] = content
        return identity, content, octets

    async def deliver(self, client, chance):
        recipients = [f"r{chance.randrange(RECIPIENTS)}@{DOMAIN}" for _ in range(chance.randrange(1, 3))]
        lines = ["MAIL FROM:<sender@elsewhere.example>", *(f"RCPT TO:<{recipient}>" for recipient in recipients)]
        codes = await self.envelope(client, lines, chance)
        if "451" in codes:
            # Greylisted: the second time it passes, since there is no delay.
            self.tally.count["greylisted"] += 1
            if not client.is_remote:
                raise Wrong(f"{client}: a local client has been greylisted")
            await client.command("RSET", "250")
            codes = await self.envelope(client, lines, chance)
        if codes != ["250"] * len(lines):
            raise Wrong(f"{client}: {lines} were answered {codes}")
        identity, content, octets = self.new_message(chance)
        if octets:
            await self.send_chunks(client, content, chance)
        else:
            await client.command("DATA", "354")
            client.send(dotted(content) + b".\r\n")
            await client.expect("250")
        self.tally.accepted(identity)

    @staticmethod
    async def envelope(client, lines, chance):
        """The codes of the replies; sometimes all is sent at once."""
        codes = []
        if chance.random() < 0.5:
            client.send("".join(f"{line}\r\n" for line in lines).encode("ascii"))
            lines, waiting = [], len(lines)
        else:
            waiting = 0
        for line in lines:
            client.send(f"{line}\r\n".encode("ascii"))
            codes.append((await client.reply())[:3])
        for _ in range(waiting):
            codes.append((await client.reply())[:3])
        return codes

    async def send_chunks(self, client, content, chance):
        self.tally.count["by BDAT"] += 1
        cuts = sorted(chance.randrange(len(content)) for _ in range(chance.randrange(3)))
        parts = [content[begin:end] for begin, end in zip([0, *cuts], [*cuts, len(content)])]
        for number, part in enumerate(parts):
            last = " LAST" if number + 1 == len(parts) else ""
            client.send(f"BDAT {len(part)}{last}\r\n".encode("ascii") + part)
            await client.expect("250")

    async def vanish(self, chance):
        """A client that goes wherever it may be; a message that it has sent to its end may have arrived, once."""
        client = Client(self.tally, chance, chance.choice(self.mail_proxies))
        await client.connect()
        identity, content, _ = self.new_message(chance)
        end = dotted(content) + b".\r\n"
        stage = chance.randrange(6)
        try:
            if stage == 1:
                client.send(chance.randbytes(chance.randrange(1, 100)))
            elif stage >= 2:
                if not await client.greet():
                    stage = 0
                    return
                client.send(b"MAIL FROM:<sender@elsewhere.example>\r\nRCPT TO:<r0@%b>\r\n" % DOMAIN.encode())
                if stage >= 4:
                    client.send(b"DATA\r\n")
                    replies = [await client.reply() for _ in range(3)]
                    if replies[2].startswith("354"):
                        client.send(end if stage == 5 else end[:chance.randrange(len(end))])
        finally:
            if chance.random() < 0.5:
                client.reset()
            else:
                client.close()
            if stage < 5:
                # The server may still be reading, but it has no end to find.
                del self.tally.sent[identity]
        self.tally.count["vanished"] += 1
        await asyncio.sleep(chance.random() * 0.2)

    async def be_silent(self, chance):
        """A client that says nothing, or half of something, until the server has enough."""
        client = Client(self.tally, chance, chance.choice(self.mail_proxies))
        client.security = PLAIN
        await client.connect()
        try:
            if not (await client.reply()).startswith("220"):
                return
            if chance.random() < 0.5:
                client.send(b"EHLO clie")
            await client.expect("421")
        finally:
            client.close()
        self.tally.count["silent"] += 1

    async def be_hostile(self, chance):
        session = chance.choice(self.sessions)
        delivery = chance.choice(["once", "bytes", *session.cuts()])
        ways = [PLAIN, TLS_PORT, *([STARTTLS] if session.can_follow_starttls() else [])]
        play = Play(session, delivery, bound(1), False, security=chance.choice(ways))
        port = self.hostile_proxy.settings["BindPortTLS"] if play.security == TLS_PORT else self.hostile_proxy.port
        await play.run((LOOPBACK, port))
        if play.complaints:
            raise Wrong(f"{play}: {play.complaints}")
        self.tally.count[f"hostile, {play.security}"] += 1

    async def judge_hostile(self, _chance):
        await asyncio.sleep(1)
        for record in self.recorder.records:
            for violation in record.violations():
                raise Wrong(f"a hostile session got through: {violation}\n{record.text()}")
        self.recorder.records[:] = [record for record in self.recorder.records if not record.ended]

    # ---- operators

    async def ask(self, proxy, *arguments):
        status, out, err = await asyncio.to_thread(run_trabex, *arguments, "/I", proxy.ini, seconds=REPLY_SECONDS)
        if status != 0 or err:
            raise Wrong(f"{arguments}: {status}, {err}")
        return out

    async def reload(self, chance):
        """Another file now and then, also one with errors; what matters to the clients stays."""
        proxy = chance.choice(self.mail_proxies)
        proxy.write_ini(SendersBlackList=[f"nobody{chance.random()}@*" for _ in range(chance.randrange(1, 500))],
                        LogLevelServer=chance.randrange(16), EnhancedStatusCodes=chance.randrange(2),
                        BindIP=f"{LOOPBACK}, ::1" + chance.choice(("", ", 127.0.0.2")),
                        MaxRecipientsLocal=chance.choice(("0", "50", "no number")))
        self.tally.count["reloads"] += 1
        if chance.random() < 0.5:
            with contextlib.suppress(Wrong):  # it says what is wrong with the file
                await self.ask(proxy, "/RELOAD")
        await asyncio.sleep(chance.random() * 6)

    async def renew(self, _chance):
        await asyncio.sleep(75)
        self.certificates.reverse()
        for file, content in zip(self.certificate_files, (self.certificates[0].chain, self.certificates[0].key)):
            replace_file(file, content.read_bytes())
        self.tally.count["renewals"] += 1

    async def control(self, chance):
        """Requests on the command line; the session that is closed is one that came for it."""
        proxy = chance.choice(self.mail_proxies)
        request = chance.choice((["/STATUS"], ["/SESSIONS"], ["/SESSIONS", "--json"], ["/CLOSE"], ["/REOPENLOG"]))
        if request == ["/CLOSE"]:
            await self.close_one(proxy, chance)
        elif request == ["/REOPENLOG"]:
            await self.rotate(proxy)
        else:
            await self.ask(proxy, *request)
        self.tally.count[" ".join(request)] += 1
        await asyncio.sleep(chance.random() * 4)

    async def close_one(self, proxy, chance):
        client = Client(self.tally, chance, proxy)
        client.security = PLAIN
        await client.connect("local")
        try:
            await client.expect("220")
            name = f"closed{chance.randrange(1 << 40)}.example"
            await client.command(f"EHLO {name}", "250")
            for line in (await self.ask(proxy, "/SESSIONS", "--json")).splitlines():
                session = json.loads(line)
                if session.get("helo") == name:
                    await self.ask(proxy, "/CLOSE", session["session"])
                    await client.expect("421")
                    self.tally.count["closed"] += 1
                    return
            raise Wrong(f"{name} is not among the sessions")
        finally:
            client.close()

    async def rotate(self, proxy):
        """Both logs begin anew; what the old one in JSON has is JSON."""
        old = proxy.json_log.with_suffix(".old")
        if not proxy.json_log.exists():
            return
        proxy.json_log.rename(old)
        for file in proxy.log_folder.glob("*.log"):
            file.unlink()
        await self.ask(proxy, "/REOPENLOG")
        for line in old.read_bytes().split(b"\n")[:-1]:
            read_line(line)
            self.tally.count["lines in JSON"] += 1
        old.unlink()

    async def ask_by_http(self, chance):
        proxy = chance.choice(self.mail_proxies)
        host, port = proxy.sections["Service"]["StatusHTTP"].split(":")
        reader, writer = await asyncio.open_connection(host, int(port))
        begun = time.monotonic()
        writer.write(b"GET /metrics HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
        said = await asyncio.wait_for(reader.read(), bound(REPLY_SECONDS))
        writer.close()
        if not said and time.monotonic() - begun > HTTP_SECONDS:
            # On a busy machine neither side may have had its turn in the time that a request has.
            self.tally.count["metrics too late"] += 1
            return
        if not said.startswith(b"HTTP/1.1 200 ") or b"trabex_sessions" not in said:
            raise Wrong(f"/metrics: {said[:300]!r}")
        self.tally.count["metrics"] += 1
        await asyncio.sleep(chance.random() * 4)

    async def look_on(self, chance):
        """A view, for a minute or so, with keys; it ends by its own key."""
        proxy = chance.choice(self.mail_proxies)
        terminal = await asyncio.to_thread(Terminal, self.place, [Options.build / "Trabex", "/VIEW", "/I", proxy.ini],
                                           chance.randrange(20, 200), chance.randrange(5, 50))
        end = time.monotonic() + 60
        while time.monotonic() < end and not self._ending:
            await asyncio.to_thread(terminal.keys, chance.choice(("Down", "Up", "NPage", "PPage", "Home", "End", "?", "?")))
            if chance.random() < 0.1:
                await asyncio.to_thread(terminal.resize, chance.randrange(20, 200), chance.randrange(5, 50))
            await asyncio.sleep(0.5)
        await asyncio.to_thread(terminal.keys, "Escape", "Escape", "q")
        status = await asyncio.to_thread(terminal.wait, 60)
        if status != 0:
            raise Wrong(f"the view ended with {status}:\n" + "\n".join(await asyncio.to_thread(terminal.screen)))
        self.tally.count["views"] += 1

    async def watch(self, _chance):
        """The programs live and are silent; what memory they have."""
        for number, proxy in enumerate(self.proxies):
            if proxy.process.status() is not None or words_of(proxy):
                raise Wrong(f"Trabex {number}: status {proxy.process.status()}, standard error:\n{words_of(proxy)}")
            self.resident.setdefault(number, []).append(proxy.process.resident_bytes())
        await asyncio.sleep(2)

    async def report(self, _chance):
        await asyncio.sleep(60)
        self.say()

    def say(self):
        count = self.tally.count
        memory = ", ".join(f"{figures[-1] / MB:.0f}" for figures in self.resident.values())
        print(f"{time.monotonic() - self._begun:6.0f} s  {count['messages']} messages in {count['sessions']} sessions, "
              f"{count['vanished']} vanished, {sum(of for what, of in count.items() if what.startswith('hostile'))} hostile, "
              f"{count['reloads']} reloads; MB: {memory}", flush=True)

    # ---- all of it

    async def run(self):
        server_context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        authority = Authority(self.place, "server")
        server_context.load_cert_chain(authority.issue([LOOPBACK]).both)
        servers = [MailServer(self.tally, self.fail), MailServer(self.tally, self.fail, server_context)]
        for server in (*servers, self.recorder):
            await server.start()
        self.sessions = [session for session in all_sessions() if not session.replies and not session.settings
                         and not session.owes]
        self.start_proxies([server.port for server in servers])
        await asyncio.get_running_loop().create_datagram_endpoint(
            lambda: NameServer(self.tally, random.Random(self.seed)), (LOOPBACK, 53))
        self._begun = time.monotonic()
        works = [*[self.mail] * SENDERS, *[self.vanish] * VANISHING, *[self.be_hostile] * HOSTILE, self.be_silent,
                 self.be_silent, self.judge_hostile, self.reload, self.renew, self.control, self.ask_by_http, self.look_on,
                 self.watch, self.report]
        tasks = [asyncio.create_task(self.guarded(work, number)) for number, work in enumerate(works)]
        with contextlib.suppress(asyncio.TimeoutError):
            await asyncio.wait_for(self._failure.wait(), self.seconds)
        self._ending = True
        # Those that only wait need not be waited for.
        passive = {self.judge_hostile, self.renew, self.watch, self.report}
        for task, work in zip(tasks, works):
            if work in passive or self._failure.is_set():
                task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
        if not self._failure.is_set():
            await self.check_end()

    async def check_end(self):
        try:
            await self.judge_hostile(None)
            if self.tally.count["without an answer of DNS"] > self.tally.count["sessions"] / 10:
                raise Wrong("too many sessions without an answer of DNS")
            for proxy in self.proxies:
                end = time.monotonic() + bound(REPLY_SECONDS)
                while connections_to(proxy.server_port) and time.monotonic() < end:
                    await asyncio.sleep(0.1)
                if connections_to(proxy.server_port):
                    raise Wrong("connections to a server stay when all clients are gone")
            for number, figures in self.resident.items():
                self.check_memory(number, figures)
            for proxy in self.proxies:
                status = await asyncio.to_thread(proxy.end)
                if status != 0 or words_of(proxy):
                    raise Wrong(f"Trabex ended with {status}:\n{words_of(proxy)}")
        except Exception as error:
            self.fail(error)

    @staticmethod
    def check_memory(number, figures):
        """Behind a third, in which everything comes that stays, it is flat."""
        rest = figures[len(figures) // 3:]
        quarter = max(1, len(rest) // 4)
        early, late = (statistics.median(part) / MB for part in (rest[:quarter], rest[-quarter:]))
        print(f"memory of Trabex {number} in MB: {figures[0] / MB:.0f} at first, {early:.0f} after a third, {late:.0f} in the end")
        if late > early * 1.1 + 16:
            raise Wrong(f"the memory of Trabex {number} has grown")

    def why(self):
        return self._why


def words_of(proxy):
    """What it says on standard error beside the errors that the load puts there."""
    return _KNOWN_ERROR.sub("", proxy.process.stderr())


def dotted(content):
    """As it goes after DATA."""
    return re.sub(rb"^\.", b"..", content, flags=re.MULTILINE) if b"\n." in content or content.startswith(b".") else content


def enter_own_network():
    """Starts this program anew in a network of its own, and with its own resolver's file."""
    if _OWN_NETWORK in os.environ:
        return
    own = ["unshare", "--net", "--mount"]
    if os.geteuid() != 0 or subprocess.run([*own, "true"], capture_output=True, check=False).returncode != 0:
        sys.exit("mixed_load: makes a network of its own, so it has to be run as root")
    os.execvpe("unshare", [*own, sys.executable, *sys.argv], {**os.environ, _OWN_NETWORK: "1"})


def set_up_network(place):
    resolver = place.folder / "resolv.conf"
    resolver.write_text(f"nameserver {LOOPBACK}\n")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    for address in IPV6_CLIENTS:
        subprocess.run(["ip", "address", "add", f"{address}/128", "dev", "lo", "nodad"], check=True)
    subprocess.run(["mount", "--bind", resolver, "/etc/resolv.conf"], check=True)


def copy_programs(place, build):
    """The programs as they are now, so that a build meanwhile changes nothing."""
    Options.build = build
    own = place.new_folder("build")
    (own / "tests").mkdir()
    for name in ("Trabex", "tests/print_scripts"):
        source = build / name
        if not source.exists():
            sys.exit(f"mixed_load: {source} has not been built")
        (own / name).write_bytes(source.read_bytes())
        (own / name).chmod(0o755)
    Options.build = own


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("minutes", type=float)
    parser.add_argument("--build", type=Path, default=REPO / "build" / "asan")
    parser.add_argument("--patience", type=float, default=2, help="factor for all bounds")
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    arguments = parser.parse_args()
    enter_own_network()
    Options.patience = arguments.patience
    # What the sanitizers hold back of freed memory is bounded, so that the rest can be seen.
    os.environ["ASAN_OPTIONS"] = ":".join(filter(None, (os.environ.get("ASAN_OPTIONS"), "quarantine_size_mb=16")))
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    place = Place("mixed-load")
    load = MixedLoad(place, arguments.minutes, arguments.seed)
    try:
        copy_programs(place, arguments.build.resolve())
        set_up_network(place)
        print(f"seed {arguments.seed}", flush=True)
        asyncio.run(load.run())
    except Exception as error:
        load.fail(error)
    finally:
        try:
            place.end_all()
        except Exception as error:
            load.fail(error)
        place.remove()
    if load._begun:
        load.say()
    print(", ".join(f"{what} {count}" for what, count in sorted(load.tally.count.items())))
    if load.why():
        print(load.why())
        sys.exit(1)
    print("Everything was as it must be.")


if __name__ == "__main__":
    main()
