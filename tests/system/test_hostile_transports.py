#!/usr/bin/env python3
"""Hostile sessions by other ways than in the clear: each file by one way to a scripted server, and by one to a real one.

The ways are those of hostile_transports.py. tests/hostile/run plays random changes of the files by each of them to each server.
With --ipv6 it goes over IPv6.
"""

import asyncio

from hostile_plays import SERVERS
from hostile_transports import bad_headers, can_go, play_bad_header, seed_of, transport_of, version1
from recording_server import RecordingServer
from trabex_system import IPV6, Scenario, bound, main
from transported_sessions import BALANCER, LOCAL, SETTINGS, TransportedSessions

KINDS = ("starttls", "proxy", "xclient", "tls-port")


class EachFileOnce(TransportedSessions):
    what = "hostile sessions by other ways"

    def setUp(self):
        super().setUp()
        # Over IPv6 they are played as a few more; ./test --full plays all of them there.
        if IPV6:
            self.sessions = self.sessions[::4]

    def transports_of(self, session, server):
        number = self.sessions.index(session)
        real = SERVERS[1 + number % 3]
        if server not in ("scripted", real):
            return []
        kind = KINDS[(number // 3 + (server != "scripted")) % len(KINDS)]
        if not can_go(kind, session):
            kind = "proxy"
        transport = transport_of(kind, session, seed_of(session.name, server))
        if kind == "xclient" and server != "scripted":
            # The one knows neither, the other no XCLIENT.
            transport.to_server = {"postfix": "xclient", "exim": "tls", "opensmtpd": "plain"}[server]
        return [("once", transport)]

    def test_nothing_gets_through(self):
        self.check_that_nothing_gets_through()


class BadHeaders(Scenario):
    """From a balancer whose header is none nothing is taken, and the server does not even hear of it."""

    def test_nobody_is_let_in(self):
        async def play():
            recorder = RecordingServer()
            await recorder.start()
            trabex = self.trabex(recorder.port, {**SETTINGS, "LocalIPs": f"{LOCAL}, {BALANCER}", "ProxyProtocolFrom": BALANCER,
                                                 "ProxyProtocolTimeout": round(bound(5))})
            said = {what: await play_bad_header(trabex.address, header) for what, header in bad_headers()}
            # And a good one is let in by the same rules.
            good = await play_bad_header(trabex.address, version1() + b"QUIT\r\n")
            await recorder.stop()
            return said, good, recorder.records, trabex

        said, good, records, trabex = asyncio.run(play())
        self.assertGreater(len(said), 60)
        for what, answer in said.items():
            with self.subTest(header=what):
                self.assertEqual(answer, b"")
        self.assertIn(b"220 ", good)
        self.assertEqual(len(records), 1)
        trabex.wait_for_log("Invalid PROXY header. Closing connection.", len(said))
        print(f"PROXY headers that are none: {len(said)} tried, {len(records) - 1} let in")


if __name__ == "__main__":
    main()
