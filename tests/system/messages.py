"""Messages for the scenarios: contents that are awkward on purpose, and the same ones every time."""

import random


def binary_lines(seed, size):
    """About `size` bytes that 8BITMIME allows after DATA: any byte but NUL, CR and LF, in lines of up to 998.

    Many lines begin with dots. It ends with a line end, as all content after DATA does.
    """
    source = random.Random(seed)
    allowed = bytes(byte for byte in range(1, 256) if byte not in b"\r\n")
    # Cutting one long random text is quick enough for many megabytes.
    table = bytes(allowed[byte % len(allowed)] for byte in range(256))
    text = source.randbytes(max(0, size - 2)).translate(table)
    lines = []
    at = 0
    while at < len(text):
        length = source.choice((0, 1, 2, 3, 60, 76, 500, 990))
        line = text[at:at + length] if length else b""
        at += length
        lines.append(source.choice((b"", b"", b"", b".", b"..", b". ", b".\t"))[:8] + line + b"\r\n")
    return b"".join(lines) or b"x\r\n"


def text_message(seed, size=0, sender="sender@test.example", recipient="recipient@test.example"):
    """A message with headers and plain text, about `size` bytes, lines ending in CR LF."""
    source = random.Random(seed)
    lines = [f"From: <{sender}>", f"To: <{recipient}>", f"Subject: message {seed}",
             f"Message-Id: <{seed}@client.example>", "Date: Sun, 15 Nov 2026 16:54:24 +0300", "", f"number {seed}"]
    length = sum(len(line) + 2 for line in lines)
    while length < size:
        line = source.choice(("", ".", "..", ". .", "From here", "x" * source.randrange(1, 200), ".x", "5 > 4"))
        lines.append(line)
        length += len(line) + 2
    return ("\r\n".join(lines) + "\r\n").encode("ascii")


def any_bytes(seed, size):
    """`size` bytes of any value, for chunks."""
    return random.Random(seed).randbytes(size)
