"""The log in JSON, read strictly: whatever a reader of it may stumble over is an error here."""

import atexit
import json
import os
import re
import subprocess
import tempfile

_TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z")
_SESSION_ID = re.compile(r"[0-9a-f]{16}")
_EVERY_LINE = ("time", "event", "port")
_EVERY_SESSION = ("session", "client", "origin", "client_handle")

# For each event the fields that every line of it has, and those that some have. Lines of a session have more.
FIELDS = {
    "start": ("version errors", ""),
    "stop": ("version", ""),
    "reload": ("result errors", ""),
    "refusal": ("stage key sent", "code text name helo from to list entry"),
    "greylisting": ("outcome blacklisted from to", "attempts delayed_until expires name"),
    "message": ("from recipients refused recipients_count refused_count bytes seconds code reply", ""),
    "session": ("commands messages client_bytes_in client_bytes_out server_bytes_in server_bytes_out duration how",
                "name helo"),
    "error": ("number text", "side"),
}
_OF_SESSIONS = ("refusal", "greylisting", "message", "session")
_WORDS = {
    "origin": "local remote", "result": "ok error", "side": "client server",
    "stage": "connect helo mail rcpt data content starttls auth command end",
    "outcome": "whitelisted accepted new delayed blacklisted_new blacklisted_delayed callback",
    "how": "quit client server timeout refused badseq closed shutdown",
}
_LISTS = ("errors", "recipients", "refused")
_TRUTHS = ("sent", "blacklisted")
_DECIMALS = ("seconds", "duration")
_TIMES = ("time", "delayed_until", "expires")
_TEXTS = ("event session client version key text name helo from to list entry reply").split()


class BadLine(Exception):
    """What is wrong with a line."""


def _once(pairs):
    members = dict(pairs)
    if len(members) != len(pairs):
        raise BadLine(f"a name comes twice: {[name for name, _ in pairs]}")
    return members


def _has_kind(name, value):
    if name in _LISTS:
        return isinstance(value, list) and all(isinstance(text, str) for text in value)
    if name in _TRUTHS:
        return isinstance(value, bool)
    if name in _DECIMALS:
        return isinstance(value, float)
    if name in _TIMES:
        return isinstance(value, str) and _TIME.fullmatch(value)
    if name in _WORDS:
        return value in _WORDS[name].split()
    return isinstance(value, str if name in _TEXTS else int) and not isinstance(value, bool)


def _is_hex_of(value, text):
    """Whether `value` are the bytes that `text` could not show all of."""
    if isinstance(text, list):
        return isinstance(value, list) and len(value) == len(text) and all(map(_is_hex_of, value, text))
    try:
        return bytes.fromhex(value).decode("utf-8", "replace").count("\ufffd") <= text.count("\ufffd")
    except (TypeError, ValueError):
        return False


def read_line(line):
    """The object of one line, given as bytes without its end."""
    text = line.decode("utf-8")
    if not text.startswith("{") or not text.endswith("}"):
        raise BadLine(text)
    members = json.loads(text, object_pairs_hook=_once)
    if tuple(members)[:3] != _EVERY_LINE or members["event"] not in FIELDS:
        raise BadLine(text)
    event = members["event"]
    always, sometimes = (names.split() for names in FIELDS[event])
    always = [*_EVERY_LINE, *always]
    if event in _OF_SESSIONS or set(_EVERY_SESSION) & set(members):
        always += _EVERY_SESSION
        sometimes = [*sometimes, "server_handle"]
    for name, value in members.items():
        plain = name.removesuffix("_hex")
        if plain != name:
            if plain not in members or not _is_hex_of(value, members[plain]):
                raise BadLine(f"{name}: {text}")
        elif name not in always and name not in sometimes or not _has_kind(name, value):
            raise BadLine(f"{name}: {text}")
    missing = set(always) - set(members)
    if missing:
        raise BadLine(f"without {missing}: {text}")
    if "session" in members and not _SESSION_ID.fullmatch(members["session"]):
        raise BadLine(text)
    if event == "refusal" and members["sent"] != ("code" in members and "text" in members):
        raise BadLine(text)
    return members


class Collection:
    """The lines of all runs of a script, for another reader of JSON than Python's."""

    def __init__(self):
        self._file = tempfile.NamedTemporaryFile(prefix="trabex-json-lines-", delete=False)
        self._owner = os.getpid()
        self._count = 0
        atexit.register(self._remove)

    def add(self, lines):
        for line in lines:
            self._file.write(line + b"\n")
        self._count += len(lines)

    def why_not_read_by_jq(self):
        """What jq has against the lines; "" when it reads as many objects as there are lines."""
        self._file.flush()
        done = subprocess.run(["jq", "-n", 'reduce inputs as $line (0; if $line | type == "object" then . + 1 else . end)',
                               self._file.name], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        if done.returncode == 0 and done.stdout == f"{self._count}\n":
            return ""
        return f"jq read {done.stdout.strip()} objects in {self._count} lines: {done.stderr}"

    def _remove(self):
        if os.getpid() == self._owner:
            os.unlink(self._file.name)
