"""Plays what fault_plays.py has: each way of speaking TLS with a Trabex of its own, and what must come of it."""

import asyncio
import contextlib
import os
import ssl

from fault_plays import PLAIN, TRANSPORTS, WITH_CLIENT, WITH_SERVER, Play, Server, expected, talk_beside
from trabex_system import Authority, Scenario, bound, connections_to, keeps_freed_memory, trusting, wait_until

# Plays at a time: how fast this process is must not matter.
AT_A_TIME = 50
# A server that takes a byte a second takes as long as there are bytes.
SECONDS_TO_END = 60


class Run:
    """One Trabex, the plays in it and their server."""

    def __init__(self, case, transport, plays, patience):
        self.plays = plays
        self.server = Server(plays, case.context if transport == WITH_SERVER else None)
        tls = {PLAIN: {}, WITH_CLIENT: {"Certificate": case.certificate.both}, WITH_SERVER: {"Server": 2}}[transport]
        self._start = lambda: case.trabex(self.server.port, {"SendClientIP": 1}, sections={
            "TLS": {**tls, "HandshakeTimeout": patience},
            "Service": {"ServerTimeout": patience, "JsonEvents": "session"}})

    async def start(self):
        await self.server.start()
        self.proxy = self._start()

    def tcp_sockets(self):
        """How many the program holds, in whatever state."""
        with open("/proc/net/tcp", encoding="ascii") as table:
            of_tcp = {f"socket:[{row.split()[9]}]" for row in table.readlines()[1:]}
        folder = f"/proc/{self.proxy.process.pid}/fd"
        held = 0
        for name in os.listdir(folder):
            with contextlib.suppress(OSError):
                held += os.readlink(f"{folder}/{name}") in of_tcp
        return held

    def nothing_stays(self):
        wait_until(lambda: connections_to(self.proxy.port) == 0, "the clients' connections to end", SECONDS_TO_END)
        wait_until(lambda: connections_to(self.server.port) == 0, "the server's connections to end", SECONDS_TO_END)
        wait_until(lambda: self.tcp_sockets() == 1, "all sockets but the listener to be closed", SECONDS_TO_END)


class FaultScenario(Scenario):
    """Each play has an address of its own, which takes IPv4."""

    def setUp(self):
        super().setUp()
        self.certificate = Authority(self.place).issue(["localhost"])
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(self.certificate.chain, self.certificate.key)

    def play(self, rows, patience):
        """One session for each (side, fault, phase) of `rows`, which is given the transport; returns what was wrong, and how
        many there were."""
        runs = []
        for number, transport in enumerate(TRANSPORTS):
            plays = [Play(transport, *row, f"127.1.{number}.{at + 1}") for at, row in enumerate(rows(transport))]
            runs.append(Run(self, transport, plays, patience))
        failures = asyncio.run(self._play(runs))
        for run in runs:
            failures += self._what_is_wrong(run)
        return failures, sum(len(run.plays) for run in runs)

    async def _play(self, runs):
        failures, waits, ended = [], [], asyncio.Event()
        gate = asyncio.Semaphore(AT_A_TIME)

        async def run_play(play, proxy, gate):
            try:
                async with gate:
                    await asyncio.wait_for(play.run(proxy.address, trusting(None)), bound(40))
                # A server that talks on is heard for some seconds, though nobody takes it.
                if play.server_began:
                    await asyncio.wait_for(play.server_ended.wait(), bound(40))
            except (Exception, asyncio.CancelledError) as error:
                failures.append(f"{play.name}: {error!r}")

        beside, plays = [], []
        for run in runs:
            await run.start()
            beside.append(asyncio.create_task(talk_beside(run.proxy.address, ended, waits)))
            plays += [run_play(play, run.proxy, gate) for play in run.plays]
        await asyncio.gather(*plays)
        ended.set()
        await asyncio.wait_for(asyncio.gather(*beside), bound(20))
        for run in runs:
            run.nothing_stays()
            await run.server.stop()
            failures += run.server.failures
        # However busy the machine is.
        self.assertLess(max(waits), bound(10), "the longest wait of a session beside")
        return failures

    def _what_is_wrong(self, run):
        found = []
        ends = {}
        for event in run.proxy.json_events():
            ends.setdefault(event["client"], []).append(event["how"])
        for play in run.plays:
            told, how = expected(play)
            heard = play.told[:len(told)] if play.fault == "sends without end" else play.told
            if heard != told:
                found.append(f"{play.name}: the client was told {play.told[:300]!r}, not {told[:300]!r}")
            if ends.get(play.address) != [how]:
                found.append(f"{play.name}: ends in the log {ends.get(play.address)}, not {how}")
        lines = run.proxy.log_lines()
        for fault, side, text in (("hangs", "S", "Server time-out. Closing connection."),
                                  ("vanishes", "R", "Error 10054. Connection reset by peer.")):
            count = sum(line.startswith(side) and line.endswith(text) for line in lines)
            if count < sum(play.fault == fault for play in run.plays):
                found.append(f"{fault}: {count} lines with {text!r}")
        if not keeps_freed_memory() and (peak := run.proxy.process.peak_bytes()) > 64 << 20:
            found.append(f"{peak} bytes of memory")
        return found

