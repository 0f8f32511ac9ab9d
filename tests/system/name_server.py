#!/usr/bin/env python3
"""Answers each question on 127.0.0.1:53 with "there is no such name", until its input ends.

Names that are given as arguments are there: they have the address 127.0.0.2, as a block list answers.
"""

import select
import socket
import sys


def answer(question, known):
    name, at = [], 12
    while question[at]:
        name.append(question[at + 1:at + 1 + question[at]].decode("latin-1").lower())
        at += 1 + question[at]
    kind = int.from_bytes(question[at + 1:at + 3], "big")
    # The question's own id and text, alone or with one record for it.
    if ".".join(name) not in known or kind != 1:
        code = b"\x81\x80" if ".".join(name) in known else b"\x81\x83"
        return question[:2] + code + question[4:6] + bytes(6) + question[12:at + 5]
    record = b"\xc0\x0c\x00\x01\x00\x01" + (60).to_bytes(4, "big") + b"\x00\x04\x7f\x00\x00\x02"
    return question[:2] + b"\x81\x80" + question[4:6] + b"\x00\x01" + bytes(4) + question[12:at + 5] + record


def main():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as listener:
        listener.bind(("127.0.0.1", 53))
        print("there", flush=True)
        while True:
            ready, _, _ = select.select([listener, sys.stdin], [], [])
            if sys.stdin in ready:
                return
            question, client = listener.recvfrom(4096)
            listener.sendto(answer(question, set(sys.argv[1:])), client)


if __name__ == "__main__":
    main()
