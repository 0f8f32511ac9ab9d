"""A name server with faults, and a network of its own in which it is the only one.

It says what is true, as `truth` says, but for the names that `faults` lists: there it also, or only, says what somebody
wants the asker to believe (`Fault`).
"""

import asyncio
import contextlib
import os
import random
import socket
import struct
import subprocess
import sys
import tempfile

from addresses import LOOPBACK

_VARIABLE = "TRABEX_TESTS_WITH_OWN_DNS"
PORT = 53
# Nobody was asked there.
STRANGER, OTHER_PORT = "127.0.0.66", 5353
# Behind the bound of a look-up.
LATE = 6
PTR, A, CNAME = 12, 1, 5
NAME_ERROR, SERVER_FAILURE, REFUSED = 3, 2, 5


def enter_own_network():
    """Starts this program anew with a network and a resolver of its own; returns only when there are none to be had."""
    own = ["unshare", "--net", "--mount"]
    if os.geteuid() == 0 and subprocess.run([*own, "true"], capture_output=True, check=False).returncode == 0:
        os.execvpe("unshare", [*own, sys.executable, *sys.argv], {**os.environ, _VARIABLE: "1"})


def is_in_own_network():
    return _VARIABLE in os.environ


def set_up_network():
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    for path, text in (("/etc/hosts", "127.0.0.1 localhost client.example\n"), ("/etc/resolv.conf", f"nameserver {LOOPBACK}\n")):
        with tempfile.NamedTemporaryFile("w", prefix="trabex-resolver-") as file:
            file.write(text)
            file.flush()
            os.chmod(file.name, 0o644)
            subprocess.run(["mount", "--bind", file.name, os.path.realpath(path)], check=True)


class Question:
    def __init__(self, packet):
        self.packet = packet
        labels, at = [], 12
        while packet[at]:
            labels.append(packet[at + 1:at + 1 + packet[at]].decode("latin-1").lower())
            at += 1 + packet[at]
        self.name = ".".join(labels)
        self.type = int.from_bytes(packet[at + 1:at + 3], "big")
        self.text = packet[12:at + 5]


def encoded(name):
    return b"".join(bytes([len(label)]) + label for label in name.encode("latin-1").split(b".")) + b"\0"


def record(kind, data, owner=b"\xc0\x0c"):
    return owner + struct.pack(">HHIH", kind, 1, 60, len(data)) + data


def value(question, text):
    """A record with this name or address, as was asked for."""
    return record(question.type, encoded(text) if question.type == PTR else socket.inet_aton(text))


def message(question, records=(), code=0, number=None, text=None, flags=0x8180, others=()):
    """An answer. `others` are records of the authority section; `number` and `text` are those of another question."""
    head = question.packet[:2] if number is None else struct.pack(">H", number)
    counts = struct.pack(">HHHHH", flags | code, 1, len(records), len(others), 0)
    return head + counts + (question.text if text is None else text) + b"".join(records) + b"".join(others)


def _other_question(question):
    text = bytearray(question.text)
    text[1] ^= 1
    return bytes(text)


def _other_type(question):
    return question.text[:-4] + struct.pack(">HH", 16, 1)


def _looped(question):
    """An alias of the question's own name, by reference to the record itself."""
    return message(question, [record(CNAME, struct.pack(">H", 0xC000 | (12 + len(question.text) + 12)))])


class Fault:
    """What is said to a question whose true answer is `true`, and whose asker shall believe `forged`.

    `says(question, true, forged)` gives what is sent by UDP in this order: a message, or (from whom, message).
    `over_tcp` is how the answer to a truncated one comes. `outcome` is what the asker must make of it: "true", "none" or
    "failed".
    """

    def __init__(self, outcome, says, over_tcp=None, after=0.0):
        self.outcome, self.says, self.over_tcp, self.after = outcome, says, over_tcp, after


def _plain(question, text):
    return message(question, [value(question, text)])


def _flood(question, true, forged):
    own = int.from_bytes(question.packet[:2], "big")
    # Neighbours, and some at random; never the right one.
    numbers = [(own + step) % 65536 for step in range(-50, 51) if step] + [random.randrange(65536) for _ in range(300)]
    return [message(question, [value(question, forged)], number=number) for number in numbers if number != own] + [
        _plain(question, true)]


def _truncated(question, *_):
    return [message(question, flags=0x8380)]


def _before_truth(forge):
    return lambda question, true, forged: [*forge(question, forged), _plain(question, true)]


def _alone(forge):
    return lambda question, _, forged: forge(question, forged)


def _wrong_number(question, forged):
    return [message(question, [value(question, forged)], number=int.from_bytes(question.packet[:2], "big") ^ 0x55)]


def _wrong_question(question, forged):
    return [message(question, [value(question, forged)], text=text(question)) for text in (_other_question, _other_type)]


def _noise(question, _):
    return [bytes([255]) * 512, b"\0", question.packet[:11], question.packet[:2] + bytes(10), b""]


FAULTS = {
    "none at all": Fault("true", lambda question, true, _: [_plain(question, true)]),
    "silence": Fault("failed", lambda *_: []),
    "too late": Fault("failed", lambda question, _, forged: [_plain(question, forged)], after=LATE),
    "wrong number": Fault("failed", _alone(_wrong_number)),
    "wrong number before the truth": Fault("true", _before_truth(_wrong_number)),
    "many numbers before the truth": Fault("true", _flood),
    "another question": Fault("failed", _alone(_wrong_question)),
    "another question before the truth": Fault("true", _before_truth(_wrong_question)),
    "a stranger": Fault("failed", _alone(lambda question, forged: [("stranger", _plain(question, forged))])),
    "a stranger before the truth": Fault("true", _before_truth(
        lambda question, forged: [("stranger", _plain(question, forged))])),
    "another port": Fault("failed", _alone(lambda question, forged: [("port", _plain(question, forged))])),
    "another port before the truth": Fault("true", _before_truth(
        lambda question, forged: [("port", _plain(question, forged))])),
    "noise": Fault("failed", _alone(_noise)),
    "noise before the truth": Fault("true", _before_truth(_noise)),
    "further records": Fault("true", lambda question, true, forged: [
        message(question, [value(question, true)], others=[value(question, forged)] * 3)]),
    "a loop of aliases": Fault("none", lambda question, *_: [_looped(question)]),
    "cut off": Fault("none", lambda question, _, forged: [_plain(question, forged)[:-2]]),
    "no such name": Fault("none", lambda question, *_: [message(question, code=NAME_ERROR)]),
    "no record": Fault("none", lambda question, *_: [message(question)]),
    "it failed": Fault("failed", lambda question, *_: [message(question, code=SERVER_FAILURE)]),
    "it refuses": Fault("failed", lambda question, *_: [message(question, code=REFUSED)]),
    "over TCP": Fault("true", _truncated, over_tcp="whole"),
    "over TCP byte by byte": Fault("true", _truncated, over_tcp="byte by byte"),
    "over TCP as much as there can be": Fault("true", _truncated, over_tcp="giant"),
    # c-ares has one connection to a server: what is asked there behind one of these waits for an answer that never comes, so
    # nothing that is answered may be.
    "over TCP without end": Fault("failed", _truncated, over_tcp="without end"),
    "over TCP nothing": Fault("failed", _truncated, over_tcp="nothing"),
    "over TCP cut off": Fault("failed", _truncated, over_tcp="cut off"),
}


class BadNameServer:
    """On port 53 of this machine. `faults` are (fault, true, forged) by name, `truth` is a text by name."""

    def __init__(self, truth, faults):
        self.truth, self.faults = truth, faults
        self.asked = set()
        self.said_late = asyncio.Event()
        self._tasks = set()

    async def start(self):
        loop = asyncio.get_running_loop()
        server = self

        class Listener(asyncio.DatagramProtocol):
            def datagram_received(self, data, addr):
                server.answer(data, addr)

        self._own, _ = await loop.create_datagram_endpoint(Listener, local_addr=(LOOPBACK, PORT))
        self._others = {}
        for name, address in (("stranger", (STRANGER, PORT)), ("port", (LOOPBACK, OTHER_PORT))):
            self._others[name], _ = await loop.create_datagram_endpoint(asyncio.DatagramProtocol, local_addr=address)
        self._listener = await asyncio.start_server(self._serve, LOOPBACK, PORT, backlog=500)

    async def stop(self):
        self._listener.close()
        for transport in (self._own, *self._others.values()):
            transport.close()
        for task in self._tasks:
            task.cancel()
        await asyncio.gather(*self._tasks, return_exceptions=True)

    def answer(self, packet, address):
        question = Question(packet)
        self.asked.add(question.name)
        fault, true, forged = self.faults.get(question.name, (None, None, None))
        if fault is None or question.type not in (PTR, A):
            return self._own.sendto(self._true(question), address)
        for said in fault.says(question, true, forged):
            sender, data = said if isinstance(said, tuple) else (None, said)
            transport = self._others.get(sender, self._own)
            if fault.after:
                asyncio.get_running_loop().call_later(fault.after, self._say_late, transport, data, address)
            else:
                transport.sendto(data, address)

    def _say_late(self, transport, data, address):
        if not transport.is_closing():
            transport.sendto(data, address)
        self.said_late.set()

    def _true(self, question):
        text = self.truth.get(question.name)
        if text is None:
            return message(question, code=NAME_ERROR)
        return _plain(question, text) if question.type in (PTR, A) else message(question)

    async def _serve(self, reader, writer):
        self._tasks.add(asyncio.current_task())
        with contextlib.suppress(OSError, asyncio.IncompleteReadError, asyncio.CancelledError):
            while True:
                length = int.from_bytes(await reader.readexactly(2), "big")
                question = Question(await reader.readexactly(length))
                fault, true, _ = self.faults.get(question.name, (None, None, None))
                if fault is None or question.type not in (PTR, A):
                    data = self._true(question)
                    writer.write(struct.pack(">H", len(data)) + data)
                elif not await self._say_over_tcp(writer, question, fault.over_tcp, true):
                    await reader.read()
                    break
        writer.close()

    @staticmethod
    async def _say_over_tcp(writer, question, how, true):
        """Returns whether more may follow on the connection."""
        data = _plain(question, true)
        if how == "giant":
            records = [value(question, true)]
            data = message(question, records * ((65000 - len(data)) // len(records[0])))
        whole = struct.pack(">H", len(data)) + data
        if how in ("whole", "giant"):
            writer.write(whole)
            return True
        if how == "nothing":
            return False
        # The rest never comes.
        pieces = whole if how == "byte by byte" else whole[:-1]
        for byte in pieces:
            writer.write(bytes([byte]))
            await writer.drain()
            await asyncio.sleep(0)
        if how == "cut off":
            writer.write_eof()
        return how == "byte by byte"
