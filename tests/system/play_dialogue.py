#!/usr/bin/env python3
"""Plays a dialogue of a page: play_dialogue.py FILE OWN-ADDRESS SERVER-ADDRESS PORT

Lines "C: …" are sent, in which "\\n" is a line feed without a carriage return; lines "S: …" are expected, in which "…" is
any text. "S: …" alone is the rest of a reply. What differs is printed, and the exit status is 1.
"""

import re
import socket
import sys
from pathlib import Path

from manual_pages import as_pattern


def main():
    file, own, server, port = sys.argv[1:]
    with socket.create_connection((server, int(port)), timeout=60, source_address=(own, 0)) as connection:
        replies = connection.makefile("r", encoding="utf-8", newline="\r\n")
        for line in Path(file).read_text(encoding="utf-8").splitlines():
            side, text = line[:2], line[3:]
            if side == "C:":
                connection.sendall(text.replace("\\n", "\n").encode() + b"\r\n")
            elif side == "S:":
                said = replies.readline().removesuffix("\r\n")
                while text == "…" and said[3:4] == "-":
                    said = replies.readline().removesuffix("\r\n")
                if not re.fullmatch(as_pattern(text), said):
                    sys.exit(f"the page: {line}\nTrabex:   S: {said}")
            else:
                sys.exit(f"whose line is this? {line}")


if __name__ == "__main__":
    main()
