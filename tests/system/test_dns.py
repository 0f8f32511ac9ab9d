#!/usr/bin/env python3
"""DNS that is dead, slow or forged, for each name that a session asks for.

The client's own name, the way back from it (ConfirmHostNames), the name of HELO (ValidateHELO) and the server's. All at
once: what waits for time waits once.
"""

import asyncio
import contextlib

from bad_name_server import A, FAULTS, BadNameServer, Fault, enter_own_network, is_in_own_network, set_up_network
from fault_plays import Peer, talk_beside
from trabex_system import LOOPBACK, Scenario, bound, main, only_ipv4, received_header

# Nobody looks up anything for longer.
LIMIT = 5
UNAVAILABLE = "421 proxy.example is temporarily unavailable."
GOOD, FORGED = "good.example", "forged.example"
OTHER_ADDRESS, FORGED_SERVER = "192.0.2.1", "127.0.0.99"
# Those that ask for the server's name have one of their own where the answer is waited for.
SLOW = ("silence", "too late", "a stranger", "over TCP without end", "over TCP nothing")


def reverse(address):
    return ".".join(reversed(address.split("."))) + ".in-addr.arpa"


class Play:
    """One client at one Trabex, in the place where one fault shows."""

    def __init__(self, name, fault, front, address, helo="client.example"):
        self.name, self.fault, self.front, self.address, self.helo = name, fault, front, address, helo
        self.replies = []
        self.seconds = 0.0
        self.rest = None

    async def run(self, late):
        loop = asyncio.get_running_loop()
        begun = loop.time()
        reader, writer = await asyncio.open_connection(*self.front.address, local_addr=(self.address, 0))
        peer = Peer(reader, writer)
        self.replies = [await peer.read_reply()]
        commands = [f"EHLO {self.helo}", f"MAIL FROM:<{self.address}@test.example>", "RCPT TO:<r@test.example>", "DATA",
                    "a: b\r\n\r\ntext\r\n."]
        for command in commands:
            if self.replies[-1][0] not in "23":
                break
            await peer.send(command + "\r\n")
            self.replies.append(await peer.read_reply())
        self.seconds = loop.time() - begun
        if self.fault.after:
            # What comes then changes nothing.
            await late.wait()
        if not self.replies[-1].startswith("421"):
            await peer.send("NOOP\r\nQUIT\r\n")
            self.replies += [await peer.read_reply(), await peer.read_reply()]
        self.rest = await peer.read_to_end()
        peer.close()


class Server:
    """Takes every mail, and keeps its Received line by who has sent it."""

    def __init__(self):
        self.received = {}
        self.connections = 0

    async def start(self, address=LOOPBACK, port=0):
        self._server = await asyncio.start_server(self._serve, address, port, backlog=500)
        self.port = self._server.sockets[0].getsockname()[1]

    def stop(self):
        self._server.close()

    async def _serve(self, reader, writer):
        self.connections += 1
        sender = None
        with contextlib.suppress(asyncio.IncompleteReadError, ConnectionError):
            peer = Peer(reader, writer)
            await peer.send("220 server.example ESMTP\r\n")
            while True:
                line = await peer.read_line()
                verb = line.split(" ")[0].split(":")[0].upper()
                if verb == "MAIL":
                    sender = line.split("<")[1].split("@")[0]
                if verb == "DATA":
                    await peer.send("354 go on\r\n")
                    self.received[sender] = received_header(await reader.readuntil(b"\r\n.\r\n"))
                if verb == "QUIT":
                    await peer.send("221 bye\r\n")
                    break
                await peer.send("250 ok\r\n")
        writer.close()


@only_ipv4("each play has an address of its own")
class Names(Scenario):
    def setUp(self):
        super().setUp()
        if not is_in_own_network():
            self.skipTest("no network of its own")
        self.truth, self.faults, self.plays = {}, {}, []
        self.fronts, self.failures = {}, []

    def front(self, name, server_port, settings=None, service=None):
        front = self.trabex(server_port, {"IPWhiteList": LOOPBACK, "LocalDomains": "*", **(settings or {})},
                            sections={"Service": {"JsonEvents": "session,refusal,error", **(service or {})}})
        self.fronts[name] = front
        return front

    # ---- the places

    def ask_client_name(self, port, failure):
        lists = {"ValidateRDNS": 3, "HostsAllowList": GOOD, "HostsWhiteList": FORGED}
        front = self.front(f"client's name, DnsFailure {failure}", port, lists, {"DnsFailure": failure})
        odd = Fault("none", lambda question, true, forged: FAULTS["none at all"].says(question, "od d\r\n\x1b.test", forged))
        for number, (name, fault) in enumerate([*FAULTS.items(), ("odd bytes", odd)]):
            address = f"127.{10 + failure}.0.{number + 1}"
            self.faults[reverse(address)] = fault, GOOD, FORGED
            self.plays.append(Play(name, fault, front, address))

    def ask_way_back(self, port):
        front = self.front("way back", port, {"ValidateRDNS": 3, "ConfirmHostNames": 1, "HostsWhiteList": "*.back.example"},
                           {"DnsFailure": 1})
        for number, (name, fault) in enumerate(FAULTS.items()):
            address = f"127.20.0.{number + 1}"
            self.truth[reverse(address)] = f"c{number}.back.example"
            self.faults[f"c{number}.back.example"] = fault, OTHER_ADDRESS, address
            self.plays.append(Play(name, fault, front, address))
        self.truth[reverse("127.20.1.1")], self.truth["own.back.example"] = "own.back.example", "127.20.1.1"
        self.plays.append(Play("the client's own", Fault("own", None), front, "127.20.1.1"))

    def ask_helo(self, port):
        front = self.front("HELO", port, {"ValidateHELO": 3})
        for number, (name, fault) in enumerate(FAULTS.items()):
            address = f"127.30.0.{number + 1}"
            self.faults[f"h{number}.helo.example"] = fault, OTHER_ADDRESS, address
            self.plays.append(Play(name, fault, front, address, f"h{number}.helo.example"))
        self.truth["own.helo.example"] = "127.30.1.1"
        self.plays.append(Play("the client's own", Fault("own", None), front, "127.30.1.1", "own.helo.example"))

    def ask_server_name(self, port):
        for number, name in enumerate(SLOW):
            front = self.front(f"server's name, {name}", port, {"ServerIP": f"s{number}.server.example"})
            self.faults[f"s{number}.server.example"] = FAULTS[name], LOOPBACK, FORGED_SERVER
            self.plays.append(Play(name, FAULTS[name], front, f"127.40.0.{number + 1}"))

    # ---- what must come of them

    def expected(self, front, outcome):
        """The codes of the replies before the last words, and whether the log says that the look-up failed."""
        taken = ["220", "250", "250", "250", "354", "250"]
        if front.startswith("server"):
            return taken if outcome == "true" else ["421"], False
        if front == "HELO":
            refusal = "550" if outcome == "true" else "450"
            return taken if outcome == "own" else ["220", refusal], False
        if front == "way back":
            return taken if outcome == "own" else ["454"], outcome == "failed"
        return taken if outcome == "true" else ["454"], outcome == "failed" and front.endswith("1")

    def judge(self, play, server):
        name = next(name for name, front in self.fronts.items() if front is play.front)
        codes, failed = self.expected(name, play.fault.outcome)
        what = f"{name}, {play.name}"
        told = [reply[:3] for reply in play.replies]
        if codes != ["421"]:
            codes = codes + (["503"] if codes == ["454"] else ["250"]) + ["221"]
        if told != codes:
            self.failures.append(f"{what}: the client was told {play.replies}, not {codes}")
        if play.rest:
            self.failures.append(f"{what}: at the end came {play.rest!r}")
        if play.seconds > LIMIT + bound(15):
            self.failures.append(f"{what}: it took {play.seconds:.1f} s")
        header = server.received.get(play.address)
        shown = GOOD if name.startswith("client") else "own.back.example" if name == "way back" else "Unknown"
        if (header and header["name"]) != (shown if told[:2] == ["220", "250"] else None):
            self.failures.append(f"{what}: Received is {header}")
        said = any("Name look-up failed." in line and f" {play.address}]" in line for line in play.front.log_lines())
        if said != failed:
            self.failures.append(f"{what}: the log {'says' if said else 'does not say'} that the look-up failed")

    def test_every_fault_of_every_name(self):
        set_up_network()
        asyncio.run(self.play_all())
        for name, front in self.fronts.items():
            # The forged name is in no log; only the settings have it.
            lines = [line for line in front.log_lines() if FORGED in line and not line.startswith("Hosts")]
            self.assertEqual(lines, [], name)
            self.assertNotIn(FORGED, str(front.json_events()), name)
        if self.failures:
            self.fail("\n".join(self.failures))
        print(f"{len(self.plays)} sessions with a fault of DNS")

    async def play_all(self):
        server, forged_server = Server(), Server()
        await server.start()
        await forged_server.start(FORGED_SERVER, server.port)
        for failure in 0, 1:
            self.ask_client_name(server.port, failure)
        self.ask_way_back(server.port)
        self.ask_helo(server.port)
        self.ask_server_name(server.port)
        names = BadNameServer(self.truth, self.faults)
        await names.start()
        ended, waits = asyncio.Event(), []
        beside = [asyncio.create_task(talk_beside(front.address, ended, waits)) for name, front in self.fronts.items()
                  if not name.startswith("server")]
        await self.play_at_once(names)
        # One after the other, at one Trabex.
        front = self.front("server's name", server.port, {"ServerIP": "s.server.example"})
        quick = [name for name, fault in FAULTS.items() if name == "over TCP cut off" or fault.outcome != "failed"]
        for number, name in enumerate([*quick, "it failed", "it refuses"]):
            self.faults["s.server.example"] = FAULTS[name], LOOPBACK, FORGED_SERVER
            await self.play_one(Play(name, FAULTS[name], front, f"127.41.0.{number + 1}"), names)
        # Nobody is there any more.
        await names.stop()
        for number, (name, front) in enumerate(list(self.fronts.items())):
            helo = "somebody.helo.example" if name == "HELO" else "client.example"
            await self.play_one(Play("nobody there", Fault("failed", None), front, f"127.50.0.{number + 1}", helo), names)
        ended.set()
        await asyncio.wait_for(asyncio.gather(*beside), bound(20))
        self.assertLess(max(waits), bound(10), "the longest wait of a session beside")
        self.assertEqual(forged_server.connections, 0)
        server.stop()
        forged_server.stop()
        for play in self.plays:
            self.judge(play, server)
        self.assertLessEqual(set(self.faults), names.asked)

    async def play_at_once(self, names):
        """All of them, but what hangs over TCP begins behind what is answered there (bad_name_server.py)."""
        hanging = [play for play in self.plays if play.fault.over_tcp and play.fault.outcome == "failed"]
        answered = [play for play in self.plays if play.fault.over_tcp and play not in hanging]
        others = [asyncio.create_task(self.watch(play, names)) for play in self.plays if not play.fault.over_tcp]
        for plays in answered, hanging:
            await asyncio.gather(*(self.watch(play, names) for play in plays))
        await asyncio.gather(*others)

    async def play_one(self, play, names):
        self.plays.append(play)
        await self.watch(play, names)

    async def watch(self, play, names):
        try:
            await asyncio.wait_for(play.run(names.said_late), bound(40))
        except (Exception, asyncio.CancelledError) as error:
            self.failures.append(f"{play.name}: {error!r} behind {play.replies}")


if __name__ == "__main__":
    if not is_in_own_network():
        enter_own_network()
    main()
