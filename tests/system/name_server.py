#!/usr/bin/env python3
"""Answers each question on 127.0.0.1:53 with "there is no such name", until its input ends."""

import select
import socket
import sys


def main():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as listener:
        listener.bind(("127.0.0.1", 53))
        print("there", flush=True)
        while True:
            ready, _, _ = select.select([listener, sys.stdin], [], [])
            if sys.stdin in ready:
                return
            question, client = listener.recvfrom(4096)
            # The question's own id and text, as an answer with the code NXDOMAIN and no records.
            listener.sendto(question[:2] + b"\x81\x83" + question[4:6] + bytes(6) + question[12:], client)


if __name__ == "__main__":
    main()
