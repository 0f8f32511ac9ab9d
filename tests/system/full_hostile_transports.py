#!/usr/bin/env python3
"""Hostile sessions by other ways than in the clear: all files by each way, to a scripted server and to real ones.

test_hostile_transports.py plays each file by one of these ways. Here the files take turns in what is left to choose of a way:
which place, what stands behind, how records and headers are cut, and which of the real servers it is.
"""

import random

from hostile_plays import PLAIN, SERVERS, STARTTLS, TLS_PORT
from hostile_transports import BEHIND, DOUBLED_HEADERS, GOOD_HEADERS, HEADER_DELIVERIES, Transport, can_go, seed_of
from secured_stream import Wire
from trabex_system import main
from transported_sessions import TransportedSessions


def in_turn(number, *choices):
    """One of each of the choices; each combination of them comes, one number after the other."""
    chosen = []
    for some in choices:
        number, at = divmod(number, len(some))
        chosen.append(some[at])
    return chosen


class EachFile:
    """Beside TransportedSessions; `ways` gives what a session takes to the scripted server and to the real one."""

    def transports_of(self, session, server):
        # The turn of the choices begins anew for each of the real servers, so that each gets all of them.
        turn, at = divmod(self.sessions.index(session), len(SERVERS) - 1)
        if server not in ("scripted", SERVERS[1 + at]):
            return []
        turn = self.sessions.index(session) if server == "scripted" else turn
        return [("once", transport) for transport in self.ways(session, turn, seed_of(session.name, server))]

    def ways(self, session, turn, seed):
        raise NotImplementedError

    def test_nothing_gets_through(self):
        self.check_that_nothing_gets_through()


class StartTls(EachFile, TransportedSessions):
    """STARTTLS before one of a session's steps, and in front of all of it where it can stand there."""

    what = "hostile sessions with STARTTLS"

    def ways(self, session, turn, seed):
        behind, style = in_turn(turn, BEHIND, Wire.STYLES)
        yield Transport("starttls", place=random.Random(seed).randrange(len(session.steps)), behind=behind.decode("latin-1"),
                        wire=style, seed=seed)
        if session.can_follow_starttls():
            yield Transport("starttls", STARTTLS, wire=style, seed=seed)


class TlsPort(EachFile, TransportedSessions):
    """On the port of TLS, with the records cut in two of the ways."""

    what = "hostile sessions on the port of TLS"

    def ways(self, session, turn, seed):
        for further in (0, 2):
            yield Transport("tls-port", TLS_PORT, wire=Wire.STYLES[(turn + further) % len(Wire.STYLES)], seed=seed)


class ProxyHeader(EachFile, TransportedSessions):
    """Behind a balancer's header, and behind one with another that no balancer has sent."""

    what = "hostile sessions behind a header of PROXY"

    def ways(self, session, turn, seed):
        securities = [PLAIN, TLS_PORT] + [STARTTLS] * session.can_follow_starttls()
        header, delivery, security, style = in_turn(turn, GOOD_HEADERS, HEADER_DELIVERIES, securities, Wire.STYLES)
        yield Transport("proxy", security, wire=style, seed=seed, header=header, header_delivery=delivery)
        doubled, delivery = in_turn(turn, DOUBLED_HEADERS, HEADER_DELIVERIES)
        yield Transport("proxy", header=doubled, header_delivery=delivery, seed=seed)


class TlsAndXclientToTheServer(TransportedSessions):
    """Trabex tells the scripted server and Postfix by XCLIENT who the client is, and goes to Exim under TLS."""

    what = "hostile sessions to servers under TLS or told by XCLIENT"
    TO_SERVER = {"scripted": "xclient", "postfix": "xclient", "exim": "tls"}

    def transports_of(self, session, server):
        if server not in self.TO_SERVER or not can_go("xclient", session):
            return []
        return [("once", Transport("xclient", to_server=self.TO_SERVER[server]))]

    def test_nothing_gets_through(self):
        self.check_that_nothing_gets_through()


if __name__ == "__main__":
    main()
