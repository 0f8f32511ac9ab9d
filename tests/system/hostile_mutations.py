"""Random changes of the hostile sessions, played by one way after the other in front of a scripted server and of real ones.

What comes out may be a session that nobody would refuse, so it is the address that a server has got that counts, and not the
mark that the files put into those that must not come: a recipient is one of local.test that is not black-listed, a sender is
none of black.test, a name does not begin with "black-". Whatever else must hold is that of transported_sessions.py.
"""

import asyncio
import contextlib
import io
import json
import random
import re
import unicodedata
import unittest
from pathlib import Path

from hostile_plays import SERVERS, HostileSession
from hostile_scenario import EXIM, LANES
from hostile_transports import FORGED, LOCAL, Transport, TransportPlay, can_go, transport_of
from recording_server import LINE_ENDS, RecordingServer, command_violations, markers
from trabex_system import LOOPBACK, exim_list
from transported_sessions import TransportedSessions

KINDS = ("starttls", "tls-port", "proxy", "xclient", "ipv6")
# How each server is spoken to where it is told who the client is.
_TOLD = {"scripted": "xclient", "postfix": "xclient", "exim": "proxy1 tls", "opensmtpd": "proxy2"}
_AT_A_TIME = {"scripted": 100, "postfix": 60, "exim": 60, "opensmtpd": 4}
_OWN_LANES = 6 * LANES
_SHARES = ("postfix", "postfix", "postfix", "exim", "exim", "exim", "opensmtpd")
_PATIENCE = 0.25
_MOST_WAITS = 4

_BYTES = [bytes([number]) for number in (0, 8, 9, 10, 11, 12, 13, 26, 27, 32, 46, 127, 128, 160, 255)]
_PIECES = [*_BYTES, *(b"\r\n", b"\r\n.\r\n", b"\n.\n", b"\n.\r\n", b"\r.\r", b"\r\n.\r", b"\r\n.\n", b"\r\n\0.\r\n", b"..",
                      b"\r\r\n", b"\xc2\x85", b"\xe2\x80\xa8", b"\xef\xbc\x8e", b"\xe2\x80\x8b", b"\xc2\xad", b"<", b">", b"@", b"%",
                      b"!", b'"', b"\\", b",", b";", b":", b"(", b")", b"[", b"]", b"=", b"+", b"-", b"0", b"9" * 20, b" LAST",
                      b" SMTPUTF8", b" SIZE=1", b" BODY=BINARYMIME", b" ORCPT=rfc822;evil-nnn@outside.test", b" AUTH=<>",
                      b"local.test", b"@local.test", b"x" * 600, b" " * 5000)]
_LINES = [b"EHLO client-nnn.test", b"HELO client-nnn.test", b"EHLO black-nnn.test", b"MAIL FROM:<good@local.test>",
          b"MAIL FROM:<>", b"MAIL FROM:<black-nnn@black.test>", b"RCPT TO:<good@local.test>", b"RCPT TO:<evil-nnn@outside.test>",
          b"RCPT TO:<black-nnn@local.test>", b"RCPT TO:<evil-nnn%outside.test@local.test>", b"DATA", b".", b"RSET", b"NOOP",
          b"Subject: x\r\n\r\nbody\r\n.", b"BDAT 10", b"BDAT 0", b"BDAT 0 LAST", b"BDAT 32 LAST", b"BDAT 4294967297",
          b"AUTH LOGIN", b"AUTH PLAIN AGEAYg==", b"Z29vZA==", b"*", b"STARTTLS", b"XCLIENT NAME=x ADDR=" + FORGED.encode(),
          b"XFORWARD ADDR=" + FORGED.encode(), b"PROXY TCP4 " + LOCAL.encode() + b" " + LOOPBACK.encode() + b" 1 25", b"TURN",
          b"XEXCH50 5 2", b"VRFY <evil-nnn@outside.test>", b"EXPN evil-nnn", b"ETRN outside.test", b"HELP", b"QUIT", b""]
_REPLIES = [b"250 ok\r\n", b"354 go on\r\n", b"220 ready\r\n", b"221 bye\r\n", b"334 \r\n", b"235 in\r\n", b"421 no\r\n",
            b"550 no\r\n", b"250-x\r\n354 y\r\n", b"354-x\r\n250 y\r\n", b"250 ok\n", b"250\r\n", b"2", b"\r\n", b"",
            b"250 ok\r\n250 ok\r\n",
            b"250-STARTTLS\r\n250-XCLIENT ADDR\r\n250 CHUNKING\r\n", b"999 what\r\n", b"250 " + b"x" * 5000 + b"\r\n"]
_COMMANDS = ("greeting", "EHLO", "MAIL", "RCPT", "DATA", "content", "BDAT", "BDAT!", "AUTH", "secret", "RSET", "NOOP", "QUIT")


def _bytes(text):
    return text.encode("latin-1")


class MutatedSession(HostileSession):
    """A session that is plain data, so that it can be kept in a file."""

    def data(self):
        return {"name": self.name, "opening": self.opening, "direct": self.direct, "owes": self.owes, "settings": [],
                "replies": [[command, [[segment.decode("latin-1") for segment in segments] for segments in replies]]
                            for command, replies in self.replies.items()], "steps": self.steps}


def _changed(data, source, others):
    """The bytes with one change."""
    at = source.randrange(len(data) + 1)
    end = min(len(data), at + source.randrange(1, 12))
    choice = source.randrange(10)
    if choice <= 2:
        return data[:at] + source.choice(_PIECES) + data[at:]
    if choice == 3:
        return data[:at] + data[end:]
    if choice == 4:
        return data[:end] + data[at:]
    if choice == 5 and data:
        at = min(at, len(data) - 1)
        return data[:at] + bytes([data[at] ^ 1 << source.randrange(8)]) + data[at + 1:]
    if choice == 6:
        lines = data.split(b"\r\n")
        lines.insert(source.randrange(len(lines) + 1), source.choice(_LINES))
        return b"\r\n".join(lines)
    if choice == 7:
        ends = [found.start() for found in re.finditer(b"\r\n", data)]
        if ends:
            at = source.choice(ends)
            return data[:at] + source.choice([b"\n", b"\r", b"\r\r\n", b"\n\r", b"\0\r\n", b"", b" \r\n"]) + data[at + 2:]
    if choice == 8:
        numbers = list(re.finditer(rb"\d+", data))
        if numbers:
            found = source.choice(numbers)
            near = str(int(found.group()[:9]) + source.choice([-1, 1, 2])).encode()
            number = source.choice([b"0", b"1", b"00", b"-1", b"2147483648", near])
            return data[:found.start()] + number + data[found.end():]
    return data + source.choice(others)


def mutated(sessions, name, source):
    """A session made from one of these."""
    parent = source.choice(sessions)
    sent = [_bytes(step["bytes"]) for step in source.choice(sessions).steps if step["do"] == "send"] or [b""]
    steps, waits = [], 0
    for step in parent.steps:
        if step["do"] == "send":
            steps.append({"do": "send", "bytes": step["bytes"], "cuts": []})
        elif step["do"] == "reply" and waits < _MOST_WAITS:
            steps.append(step)
            waits += 1
        elif step["do"] == "reset":
            steps.append(step)
    sending = [step for step in steps if step["do"] == "send"]
    if not sending:
        sending = [{"do": "send", "bytes": "", "cuts": []}]
        steps = sending + steps
    for _ in range(source.choice([1, 1, 1, 2, 2, 3, 5])):
        step = source.choice(sending)
        step["bytes"] = _changed(_bytes(step["bytes"]), source, sent).decode("latin-1")
    if source.random() < 0.1 and len(sending) > 1:
        one, other = source.sample(sending, 2)
        one["bytes"], other["bytes"] = other["bytes"], one["bytes"]
    if steps[-1]["do"] == "send":
        steps.append({"do": "reply", "lines": []})
    replies = [[command, [[segment.decode("latin-1") for segment in segments] for segments in each]]
               for command, each in parent.replies.items()]
    if replies or source.random() < 0.05:
        taken = dict(replies)
        for _ in range(source.randrange(3)):
            segments = [source.choice(_REPLIES).decode("latin-1") for _ in range(source.choice([1, 1, 2]))]
            taken.setdefault(source.choice(_COMMANDS), []).append(segments)
        replies = [[command, each] for command, each in taken.items()]
    opening = source.choice(sessions).opening if source.random() < 0.1 else parent.opening
    return MutatedSession({"name": f"{name} from {parent.name}", "opening": opening, "direct": [], "owes": True, "settings": [],
                           "replies": replies, "steps": steps})


class MutatedPlay(TransportPlay):
    """Nothing is known of the replies, so each is waited for a short time; a cut is one in time."""

    # However busy the machine: much of what is made never ends by itself.
    _ending_seconds = 1

    def __init__(self, session, delivery, transport):
        super().__init__(session, delivery, _PATIENCE, False, transport)

    async def _send(self, number, data):
        if isinstance(self.delivery, str) or self.delivery[0] != number:
            return await super()._send(number, data)
        self._writer.write(data[:self.delivery[1]])
        await asyncio.sleep(0.002)
        self._writer.write(data[self.delivery[1]:])
        return await self._writer.drain()

    def data(self, kind, server):
        return {"kind": kind, "server": server, "delivery": self.delivery, "transport": vars(self.transport),
                "session": self.session.data()}


def play_of(data):
    """The play that data() has written."""
    delivery = data["delivery"]
    return MutatedPlay(MutatedSession(data["session"]), delivery if isinstance(delivery, str) else tuple(delivery),
                       Transport(**data["transport"]))


def make_plays(sessions, kind, numbers, seed):
    """For each number a session that the seed and the number choose, as a play for the scripted server and one for a real one."""
    made = []
    for number in numbers:
        source = random.Random(f"{seed} {kind} {number}")
        session = mutated(sessions, f"{kind} {number} of seed {seed}", source)
        if not can_go(kind, session):
            session.replies = {}
        sends = [at for at, step in enumerate(session.steps) if step["do"] == "send"]
        at = source.choice(sends)
        delivery = source.choice(["once", "once", "bytes",
                                  (at, source.randrange(len(session.steps[at]["bytes"]) + 1))])
        transport = transport_of(kind, session, source.randrange(1 << 32))
        servers = ["scripted"] if session.replies else ["scripted", source.choice(_SHARES)]
        for server in servers:
            own = Transport(**vars(transport))
            own.to_server = _TOLD[server] if kind == "xclient" else "plain"
            made.append((server, MutatedPlay(session, delivery, own)))
    return made


# --- What servers have got

_PATH = re.compile(r'<("[^"]*"[^>]*|.*?)>|(\S+)')
_SIMPLE = r'(?:[^\s"@%!\\<>()\[\]:;,]+|"[^"\\@%!]*")'
_LOCAL_RECIPIENT = re.compile(rf"(?!\"?black-){_SIMPLE}(?:@local\.test)?")
_VERB = re.compile(r"(?i)(HELO|EHLO|MAIL FROM|RCPT TO|SEND FROM|SOML FROM|SAML FROM)[ \t]*:?[ \t]*(.*)")
_HARMLESS = re.compile(r"(?:sasl_sender=|dsn-orcpt: |ignoring AUTH=|Received: from |message-id=|ORCPT=|ENVID=)\S*", re.IGNORECASE)
_QUOTED = re.compile(r'(?:command=| error in )"(.*?)"(?: H=| result=|$)|non-SMTP command from \S+: (.*)')
_TOKEN = re.compile(r"[^\s<>,;(){}']*(?:evil|black)-\w{3}[^\s<>,;(){}']*", re.IGNORECASE)


def _folded(text):
    text = unicodedata.normalize("NFKC", text.casefold()).casefold()
    return "".join(letter for letter in text if unicodedata.category(letter) != "Cf")


def is_forbidden(role, address):
    """Whether a server must not get it as a recipient, a sender or a name of a client."""
    address = _folded(address).strip()
    if role == "recipient":
        return not _LOCAL_RECIPIENT.fullmatch(address)
    if role == "name":
        return address.startswith("black-")
    return bool(re.search(r"[@%!]black\.test[\s\0.>\"]*\Z", address)) or (address.startswith("black.test!") and "@" not in address)


def forbidden_command(line):
    """What is wrong with a line that a server takes for a command, or nothing."""
    text = line.decode("utf-8", errors="surrogateescape").strip(" \t\x08\x1b\x7f\xa0")
    found = _VERB.match(text)
    if not found:
        return ""
    verb, rest = found.group(1).upper(), found.group(2)
    path = _PATH.match(rest)
    address = (path.group(1) if path.group(1) is not None else path.group(2)) if path else ""
    role = "recipient" if verb.startswith("RCPT") else "name" if verb in ("HELO", "EHLO") else "sender"
    return f"a {role} that is to be refused: {text!r}" if is_forbidden(role, address) else ""


def record_findings(record):
    found = [violation for violation in record.violations() if not violation.startswith("an address")]
    for kind, data in record.pieces[:record.read]:
        if kind == "command":
            found += filter(None, map(forbidden_command, LINE_ENDS.split(data)))
    return found


# Addresses in a server's log with what they are there.
_FIELDS = {
    "postfix": re.compile(r"(?P<what>\bfrom|\bto|\borig_to|\bhelo)=<(?P<value>[^>]*)>"),
    "exim": re.compile(r"<= (?P<sender>\S+) .*? for (?P<recipients>.*)$"),
    "opensmtpd": re.compile(r"(?P<what>\bfrom|\bto)=<(?P<value>[^>]*)>"),
}
# Exim's own words for ETRN, whose argument is the name of a queue.
_NO_ADDRESS = re.compile(r"\] ETRN |\] (?:Start|End) queue run: pid=|/exim4 -R | in VRFY command: ")
_CALLS_ITSELF = re.compile(r" SMTP connection from \((.*)\) \[")
_OF_SENDER = re.compile(r" sender rejected: | in MAIL command: ")
_ROLES = {"from": "sender", "to": "recipient", "orig_to": "recipient", "helo": "name"}


def line_findings(name, line):
    """What is wrong with a line of this server's log, in words."""
    if "from=<settled" in line or "<settled@" in line:
        return []
    if quoted := _QUOTED.search(line):
        command = (quoted.group(1) or quoted.group(2) or "").encode("utf-8", errors="surrogateescape")
        wrong = forbidden_command(command) or [each for each in command_violations(command) if not each.startswith("an address")]
        return [str(wrong)] if wrong else []
    found = []
    if name == "exim" and (named := _CALLS_ITSELF.search(line)):
        # Whatever stands in the name, it is one.
        found.append(("name", named.group(1)))
    line = _HARMLESS.sub("", line)
    if name == "exim":
        if message := _FIELDS[name].search(line):
            found += [("sender", message["sender"])] if message["sender"] != "<>" else []
            found += [("recipient", each) for each in message["recipients"].split()]
    else:
        fields = {each["what"]: each["value"] for each in _FIELDS[name].finditer(line)}
        if "orig_to" in fields:
            fields["to"] = fields["orig_to"]
        found += [(_ROLES[what], value) for what, value in fields.items()
                  if not (what == "to" and (not value or "NOQUEUE" in line or not value.strip('"')))]
        line = _FIELDS[name].sub("", line)
    if name == "exim" and found:
        line = ""
    if _NO_ADDRESS.search(line):
        return found_in(found)
    if _OF_SENDER.search(line):
        found += [("sender", token.rstrip(":.")) for token in _TOKEN.findall(line)]
        line = ""
    # Where the server says something else of an address, the mark tells which one it is.
    for token in _TOKEN.findall(line):
        if _folded(token).startswith("black-") and not token.lower().endswith(("@black.test", "@local.test")) and "@" in token:
            continue
        found.append(("recipient", token.rstrip(":.")))
    return found_in(found)


def found_in(addresses):
    """What is wrong with these pairs of role and address, in words."""
    return [f"a {role} that is to be refused: {value!r}" for role, value in addresses if is_forbidden(role, value)]


class Round(TransportedSessions):
    """Some plays against all servers. `findings` are pairs: the plays that it may be, and what is wrong."""

    def __init__(self, kind, plays, *arguments):
        super().__init__(*arguments)
        self._testMethodName = "round"
        self.kind = kind
        self.by_server = {name: [play for server, play in plays if server == name] for name in SERVERS}
        self.findings = []
        self.sessions_had = 0

    def runTest(self):
        raise NotImplementedError

    def round(self):
        self.real = {name: self.real_server(name) for name in SERVERS[1:] if self.by_server[name]}
        for name, plays in self.by_server.items():
            self.played[name] = plays
        recorders = asyncio.run(self.play_against(self.real, self.by_server))
        self._look_at_records(recorders)
        for name, server in self.real.items():
            self._look_at_log(name, server)
        for name, plays in self.by_server.items():
            for play in plays:
                self.findings += [([(name, play)], complaint) for complaint in play.complaints]
        for check in (self.check_what_the_server_is_told, self.check_clients, self.check_messages):
            try:
                check()
            except AssertionError as error:
                self.findings.append((self._all(), str(error)))
        self.sessions_had = sum(event["event"] == "session" for trabex in self._fronts for event in trabex.json_events())

    def _all(self):
        return [(name, play) for name, plays in self.by_server.items() for play in plays]

    def _owners(self, name, text):
        numbers = {number.decode("ascii").lower() for number in markers(text.encode("utf-8", errors="surrogateescape"))}
        numbers |= set(re.findall(r"client-(\w{3})\.test", text))
        plays = self.by_server[name]
        return [(name, play) for play in plays if play.number in numbers] or [(name, play) for play in plays]

    def _look_at_records(self, recorders):
        for record in (record for recorder in recorders for record in recorder.records):
            text = b"\n".join(data for _, data in record.pieces).decode("utf-8", errors="surrogateescape")
            for finding in record_findings(record):
                self.findings.append((self._owners("scripted", text), f"{finding}\n{record.text()}"))

    def _look_at_log(self, name, server):
        server.settle()
        lines = server.log().splitlines()
        if name == "opensmtpd":
            lines += [f'to=<{line.split(": ", 1)[1]}>' for line in server.queued().splitlines() if line.startswith("rcpt: ")]
        for line in lines:
            for finding in line_findings(name, line):
                self.findings.append((self._owners(name, line), f"{finding}\n    {line}"))

    # The servers and what stands in front of them

    def real_server(self, name):
        if self.kind != "xclient" or name == "postfix":
            return super().real_server(name)
        if name == "exim":
            return self.exim({**EXIM, "hosts_proxy": exim_list(LOOPBACK)}, certificate=self.certificate)
        return self.opensmtpd(arguments=["-P", "mda", "-P", "mta"], listening="proxy-v2")

    def started_for(self, port, own, to_server, with_certificate):
        if not to_server.startswith("proxy"):
            return super().started_for(port, own, to_server, with_certificate)
        self.server_settings = {"SendClientIP": 1 if to_server.startswith("proxy1") else 2}
        return super().started_for(port, own, "tls" if to_server.endswith("tls") else "plain", with_certificate)

    def trabex(self, server_port, settings=None, **more):
        own, self.server_settings = getattr(self, "server_settings", {}), {}
        return super().trabex(server_port, {**settings, **own}, **more)

    def lanes(self, some_plays, context=None):
        told = [play for play in some_plays if play.transport.to_server == "xclient"]
        lanes = []
        for plays, own_context in ((told, self.context), ([play for play in some_plays if play not in told], None)):
            own = [play for play in plays if play.session.replies]
            lanes.append((RecordingServer(own_context), [play for play in plays if not play.session.replies],
                          _AT_A_TIME["scripted"]))
            lanes += [(RecordingServer(own_context), own[first::_OWN_LANES], 1) for first in range(_OWN_LANES)]
        lanes = [lane for lane in lanes if lane[1]]
        self.recorders.update({recorder: plays for recorder, plays, _ in lanes})
        return lanes

    def play_in_front_of(self, some_plays, port, at_a_time, recorder=None):
        if recorder is None:
            at_a_time = next(_AT_A_TIME[name] for name, server in self.real.items() if server.port == port)
        return super().play_in_front_of(some_plays, port, at_a_time, recorder)


def play_round(kind, plays):
    """Plays these; returns the findings, and how many sessions Trabex had."""
    a_round = Round(kind, plays, "runTest")
    result = unittest.TestResult()
    said = io.StringIO()
    with contextlib.redirect_stdout(said):
        a_round.run(result)
    for _, error in result.errors + result.failures:
        a_round.findings.append((a_round._all(), error))
    for _, reason in result.skipped:
        raise AssertionError(reason)
    return a_round.findings, a_round.sessions_had


def write_finding(folder, kind, owners, what):
    """The file of a finding: what was seen, and the plays that it may be."""
    folder.mkdir(parents=True, exist_ok=True)
    for number in range(100000):
        path = folder / f"{kind}-{number:03d}.json"
        with contextlib.suppress(FileExistsError):
            with open(path, "x", encoding="ascii") as file:
                json.dump({"what": what, "plays": [play.data(kind, name) for name, play in owners]}, file, indent=1)
            return path
    raise AssertionError(f"too many findings in {folder}")


def replay(path):
    """Plays what a file holds; returns the findings of now."""
    kept = json.loads(Path(path).read_text(encoding="ascii"))
    kind = kept["plays"][0]["kind"]
    findings, _ = play_round(kind, [(data["server"], play_of(data)) for data in kept["plays"]])
    return findings
