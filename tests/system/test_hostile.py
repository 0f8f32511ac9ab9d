#!/usr/bin/env python3
"""Hostile sessions: whatever a remote client sends, no server behind Trabex gets to see an address that is to be refused.

The sessions are the files of the folder hostile/ (tests/script/README.md tells how they read). Each is played as it is, byte
by byte, and with a cut at each place that it names; against a scripted server that keeps what it gets, and against
Postfix, Exim and OpenSMTPD, which trust the proxy and take mail for everybody. And each is played without Trabex, to see
that it does reach the servers that it says it reaches.
"""

import asyncio

from hostile_plays import SERVERS, STARTTLS, TLS_PORT, Play, plays, unguarded_play
from hostile_scenario import SETTINGS, Hostile, HostileThroughTrabex
from recording_server import RecordingServer
from starttls_places import REPLIES, all_places
from trabex_system import LOOPBACK, Authority, HaProxy, Options, Scenario, bound, free_port, main

LEAST_SESSIONS = 150


class ThroughTrabex(HostileThroughTrabex):
    def plays_of(self, session, server):
        exactly = server == "scripted"
        return plays(session, bound(10 if exactly else 1), exactly)

    def test_nothing_gets_through(self):
        self.check_that_nothing_gets_through()


class UnderTls(ThroughTrabex):
    """The same with the client under TLS: on the port of TLS, and by STARTTLS."""

    what = "hostile sessions under TLS"

    def setUp(self):
        super().setUp()
        certificate = Authority(self.place).issue([LOOPBACK])
        self.tls = {"Certificate": f"{certificate.chain} {certificate.key}"}

    def started(self, port, settings, sections):
        return self.trabex(port, {**settings, "BindPortTLS": free_port()}, sections={**sections, "TLS": self.tls})

    def address(self, trabex, play):
        return (LOOPBACK, trabex.settings["BindPortTLS"]) if play.security == TLS_PORT else trabex.address

    def plays_of(self, session, server):
        # Real servers learn nothing of how it came under TLS.
        if server != "scripted":
            by_starttls = session.can_follow_starttls()
            return [Play(session, "once", bound(1), False, security=STARTTLS if by_starttls else TLS_PORT)]
        ways = plays(session, bound(10), True, TLS_PORT)
        if session.can_follow_starttls():
            ways += [Play(session, delivery, bound(10), True, security=STARTTLS) for delivery in ("once", "bytes")]
        return ways


class StartTlsAnywhere(Scenario):
    """Wherever the client says STARTTLS: nothing that was said in the clear counts under TLS, and nothing gets through."""

    def setUp(self):
        super().setUp()
        certificate = Authority(self.place).issue([LOOPBACK])
        self.tls = {"Certificate": f"{certificate.chain} {certificate.key}", "RequireForAUTH": 0}

    async def play(self, places):
        recorder = RecordingServer()
        recorder.script = REPLIES
        await recorder.start()
        trabex = self.trabex(recorder.port, {**SETTINGS, "MaxBadSeq": 1000}, sections={"TLS": self.tls})
        for place in places:
            await place.run(trabex.address, lambda: recorder.records[-1])
        await recorder.stop()
        return recorder.records

    def test_nothing_said_before_counts(self):
        places = all_places()
        records = asyncio.run(self.play(places))
        self.assertEqual(len(records), len(places))
        for place, record in zip(places, records):
            with self.subTest(place=str(place)):
                self.assertEqual(place.complaints, [])
                self.assertEqual(record.violations(), [])
                self.assertEqual(place.secured, place.begins_tls() and not place.behind)
        print(f"STARTTLS anywhere: {len(places)} places tried, {sum(place.secured for place in places)} of them under TLS")


class WithoutTrabex(Hostile):
    """The sessions are hostile indeed, and the check sees it: each reaches the servers that it names."""

    def fronts(self, port, _plays):
        # HAProxy in between makes no difference; it is no filter.
        address = HaProxy(self.place, port).address if Options.through == "haproxy" else (LOOPBACK, port)
        return lambda play: address

    def plays_of(self, session, server):
        return [unguarded_play(session)]

    def test_each_reaches_the_servers_it_names(self):
        all_plays, reached = self.play_all()
        # On a busy machine a server may take longer than most of them wait.
        again = {server: [unguarded_play(play.session, 5) for play in all_plays[server]
                          if server in play.session.direct and play not in reached[server]] for server in SERVERS}
        reached_again = self.play(again) if any(again.values()) else again
        for server in SERVERS:
            for play in all_plays[server] + again[server]:
                with self.subTest(server=server, session=play.session.name):
                    self.assertEqual(play.complaints, [])
            for play in again[server]:
                with self.subTest(server=server, session=play.session.name):
                    self.assertIn(play, reached_again[server])


class Corpus(Hostile):
    def test_it_is_large_enough(self):
        self.assertGreaterEqual(len(self.sessions), LEAST_SESSIONS)

    def test_every_server_is_reached_by_many(self):
        for server in SERVERS:
            self.assertGreater(sum(server in session.direct for session in self.sessions), LEAST_SESSIONS, server)


if __name__ == "__main__":
    main()
