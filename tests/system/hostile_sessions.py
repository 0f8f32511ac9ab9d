"""Hostile sessions: one file for each trick, in the folder hostile/.

    # What the trick is, for whoever reads it later.
    after: data
    direct: scripted, postfix

    C+ first line\\<\\n.\\n\\>MAIL FROM:<black-nnn@black.test>\\r\\n
    S: 554
    S: -

The head: what stands after "#" is comment;
    after: nothing, ehlo, mail, rcpt or data: how far an ordinary dialogue has come when the trick begins. The client is
                a remote one, its sender good@local.test, its recipient good@local.test
    direct:     the servers that the trick reaches when nothing stands in front, of scripted, postfix, exim and
                opensmtpd; or none
    owes:       what the scripted server never says; the client's end is heard behind it only, so that the session is
                left to that server's patience
    set:        a setting that it needs (Key=Value), beside the common ones; any number. "set X:" is one of section X
    on X:       what the scripted server says to the command X instead ("greeting": at the start, "content": after the
                content, "BDAT!": before it has read the octets); the first line counts for the first X and so on.
                A "|" cuts what it says into segments, and "(nothing)" is silence. Such a session is played against the
                scripted server only
The steps:
    C: text     the client sends the text and CR LF
    C+ text     the client sends exactly that
    O+ text     the same, as octets of a chunk; {#} in the "C:" before stands for the number of octets that follow
    S: 550      the client waits for a reply; that is what the scripted server's client gets through Trabex
    S: -        the client waits for the end of the connection
    reset       the client breaks off with a reset
    end         the client ends its side of the connection
A client that is still there at the end completes the transaction that it may have open (an empty line, RCPT, DATA, a dot),
since servers tell in their logs of what they have taken.
Sends that stand together leave together. Escapes: \\r \\n \\t \\0 \\\\ \\xHH, and {100*x} is a hundred x. Between \\< and \\>
the session is also played with a cut at each place, each part sent when the one before was read.

In whatever is sent, "nnn" becomes the number of the play, so that a log tells which one it was. Addresses that may never
reach a server begin with "evil-nnn" (a recipient elsewhere) or "black-nnn" (a sender, recipient or name that is
black-listed), in whatever letters.
"""

import re
from pathlib import Path

FOLDER = Path(__file__).resolve().parent / "hostile"
SERVERS = ("scripted", "postfix", "exim", "opensmtpd")
PLACEHOLDER = b"nnn"

_CUT = b"\xff|\xff"  # where a reply is cut into segments
_COUNT = b"{#}"
_STAGES = ("nothing", "ehlo", "mail", "rcpt", "data")
_DIALOGUE = {"ehlo": ("EHLO client-nnn.test", 250), "mail": ("MAIL FROM:<good@local.test>", 250),
             "rcpt": ("RCPT TO:<good@local.test>", 250), "data": ("DATA", 354)}
_ESCAPES = {"r": b"\r", "n": b"\n", "t": b"\t", "0": b"\0", "\\": b"\\", "{": b"{", "|": b"|"}
_TOKEN = re.compile(r"\\x([0-9a-fA-F]{2})|\\(.)|\{(\d+)\*([^}]*)\}|(\|)|([^\\{|]+|.)", re.DOTALL)


class Send:
    """Bytes that leave together. `cuts` are the places at which they may be cut."""

    def __init__(self):
        self.data = b""
        self.cuts = []
        self._octets = []  # for each {#} the number of octets behind it

    def add(self, data, marks, are_octets):
        if marks:
            self.cuts += range(len(self.data) + marks[0] + 1, len(self.data) + marks[1])
        self.data += data
        if are_octets:
            self._octets[-1] += len(data)
        else:
            self._octets += [0] * data.count(_COUNT)

    def set_counts(self):
        if self._octets and self.cuts:
            raise ValueError("{#} together with cuts")
        for count in self._octets:
            self.data = self.data.replace(_COUNT, b"%d" % count, 1)


class Wait:
    """For a reply, or for the end of the connection (`expected` None)."""

    def __init__(self, expected):
        self.expected = expected


class Reset:
    """The client's end, by a reset."""


class End:
    """The client's end in order."""


class HostileSession:
    """One file."""

    def __init__(self, path):
        self.path = path
        self.name = path.relative_to(FOLDER).with_suffix("").as_posix()
        self.comment = ""
        self.after = None
        self.direct = None
        self.owes = None
        self.settings = {}  # (section, key) to value
        self.replies = {}  # command to the list of what the scripted server says, each a list of segments
        self.steps = []
        for number, line in enumerate(path.read_text(encoding="ascii").splitlines(), 1):
            try:
                self._take(line)
            except (ValueError, KeyError) as error:
                raise ValueError(f"{path}:{number}: {line!r}: {error}") from None
        if not self.comment or not self.steps or self.after is None or self.direct is None:
            raise ValueError(f"{path}: lacks its comment, its steps, after: or direct:")
        for step in self.steps:
            if isinstance(step, Send):
                step.set_counts()

    def _take(self, line):
        if not line:
            return
        if line.startswith("#"):
            self.comment += line[1:].strip() + " "
        elif line in ("reset", "end"):
            self.steps.append(Reset() if line == "reset" else End())
        elif line[:2] in ("C:", "C+", "O+"):
            self._take_send(line[:2], line[3:])
        elif line.startswith("S: "):
            self.steps.append(Wait(None if line[3:] == "-" else int(line[3:])))
        else:
            self._take_head(*line.split(": ", 1))

    def _take_head(self, key, value):
        if self.steps:
            raise ValueError("a line of the head among the steps")
        if key == "after":
            self.after = _STAGES[_STAGES.index(value)]
        elif key == "direct":
            self.direct = set() if value == "none" else set(value.split(", "))
            if not self.direct <= set(SERVERS):
                raise ValueError("no such server")
        elif key == "owes":
            self.owes = value
        elif key == "set" or key.startswith("set "):
            name, setting = value.split("=", 1)
            self.settings[key[4:] or "Common", name] = setting
        elif key.startswith("on "):
            segments = [] if value == "(nothing)" else unescape(value)[0].split(_CUT)
            self.replies.setdefault(key[3:], []).append(segments)
        else:
            raise ValueError("no such key")

    def _take_send(self, kind, text):
        data, marks = unescape(text)
        data = data.replace(_CUT, b"|")
        if kind == "C:":
            data += b"\r\n"
        if not self.steps or not isinstance(self.steps[-1], Send):
            self.steps.append(Send())
        self.steps[-1].add(data, marks, kind == "O+")

    def opening(self):
        """The lines of the ordinary dialogue before the trick, with the codes that answer them."""
        stages = _STAGES[1:_STAGES.index(self.after) + 1]
        return [_DIALOGUE[stage] for stage in stages]

    def cuts(self):
        """Every way to send it with one cut: (number of the step, place)."""
        return [(number, cut) for number, step in enumerate(self.steps) if isinstance(step, Send)
                for cut in step.cuts]


def unescape(text):
    """The bytes of a text with escapes, and the places of \\< and \\> in it (or None)."""
    data = b""
    marks = []
    for code, escape, times, repeated, cut, plain in _TOKEN.findall(text):
        if code:
            data += bytes.fromhex(code)
        elif escape in ("<", ">") and escape:
            marks.append(len(data))
        elif escape:
            data += _ESCAPES[escape]
        elif times:
            data += unescape(repeated)[0] * int(times)
        elif cut:
            data += _CUT
        else:
            data += plain.encode("ascii")
    if len(marks) not in (0, 2):
        raise ValueError("\\< needs its \\>")
    return data, marks or None


def all_sessions():
    return [HostileSession(path) for path in sorted(FOLDER.rglob("*.session"))]
