"""Hostile sessions by all ways of hostile_transports.py, in front of a scripted server and of real ones, and what all of
them are held to: nothing gets through, the server's view is that of the log, and nobody is taken for somebody else."""

import re
import ssl

from hostile_plays import TLS_PORT
from hostile_scenario import EXIM, POSTFIX, SETTINGS, HostileThroughTrabex
from hostile_transports import BALANCER, CLIENT, FORGED, LOCAL, TransportPlay, expected_xclient
from trabex_system import LOOPBACK, Authority, bound, free_port

# Where each server's log tells of a message that it has taken: its id and, where there are, sender and recipients.
_TAKEN = {"postfix": re.compile(r"qmgr\[\d+\]: (?P<id>\w+): from=<(?P<sender>[^>]*)>, size=\d+, nrcpt=(?P<count>\d+)"),
          "exim": re.compile(r' (?P<id>\w{6}-\w{6}-\w\w) <= (?P<sender>(?:"[^"]*")?\S+) '),
          "opensmtpd": re.compile(r" smtp message msgid=(?P<id>\w+) ")}
# Where the server's reply, which is in the log in JSON, has the same id.
_REPLIED = {"postfix": re.compile(r"queued as (\w+)"), "exim": re.compile(r"OK id=(\S+)"),
            "opensmtpd": re.compile(r"250 2\.0\.0 (\w+) Message")}
# A client's address as servers log it, not as the client's own words.
_FORGED = re.compile(rf"(?:[\w)] ?\[{re.escape(FORGED)}\]|address={re.escape(FORGED)}\b)")
_PORT_OF_MESSAGE = re.compile(r"smtpd\[\d+\]: \w+: client=\S+\]:(\d+)")


class TransportedSessions(HostileThroughTrabex):
    """The servers also speak TLS where they can, and Postfix and the scripted one XCLIENT."""

    def setUp(self):
        super().setUp()
        certificate = self.certificate = Authority(self.place).issue([LOOPBACK, "localhost"])
        self.tls = {"Certificate": f"{certificate.chain} {certificate.key}"}
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(certificate.chain, certificate.key)
        self.recorders = {}

    def real_server(self, name):
        if name == "postfix":
            return self.postfix({**POSTFIX, "smtpd_client_port_logging": "yes"}, certificate=self.certificate)
        if name == "exim":
            return self.exim(EXIM, certificate=self.certificate)
        return super().real_server(name)

    def lanes(self, some_plays, context=None):
        """Who is to be told of the client hears nothing from others."""
        told = [play for play in some_plays if play.transport.to_server == "xclient"]
        others = [play for play in some_plays if play.transport.to_server != "xclient"]
        lanes = [*super().lanes(others), *super().lanes(told, self.context)]
        self.recorders.update({recorder: [play.client_port for play in plays] for recorder, plays, _ in lanes})
        return [lane for lane in lanes if lane[1]]

    def fronts(self, port, some_plays):
        found = {}
        for play in some_plays:
            key = self.key(play)
            if key not in found:
                found[key] = self.started_for(port, *key)
        return lambda play: self.address(found[self.key(play)], play)

    @staticmethod
    def key(play):
        return (tuple(sorted(play.session.settings.items())), play.transport.to_server, play.transport.needs_certificate())

    def started_for(self, port, own, to_server, with_certificate):
        common = {**SETTINGS, "LocalIPs": f"{LOCAL}, {BALANCER}", "ProxyProtocolFrom": BALANCER,
                  # Byte by byte a header may take its time on a busy machine.
                  "ProxyProtocolTimeout": 300}
        sections = {"TLS": {"HandshakeTimeout": 300}}
        if with_certificate:
            common["BindPortTLS"] = free_port()
            sections["TLS"].update(self.tls, RequireForAUTH=0)
        if to_server != "plain":
            sections["TLS"]["Server"] = 2
        if to_server == "xclient":
            common["SendClientIP"] = 3
        for (section, key), value in own:
            (common if section == "Common" else sections.setdefault(section, {}))[key] = value
        return self.trabex(port, common, sections=sections)

    def address(self, trabex, play):
        return (LOOPBACK, trabex.settings["BindPortTLS"]) if play.security == TLS_PORT else trabex.address

    def transports_of(self, session, server):
        """The ways that this session takes to this server."""
        raise NotImplementedError

    def plays_of(self, session, server):
        exactly = server == "scripted"
        return [TransportPlay(session, delivery, bound(10 if exactly and transport.place is None else 0.5), exactly, transport)
                for delivery, transport in self.transports_of(session, server)]

    def check_that_nothing_gets_through(self):
        super().check_that_nothing_gets_through()
        self.check_what_the_server_is_told()
        self.check_clients()
        self.check_messages()

    def check_what_the_server_is_told(self):
        """One XCLIENT for each session, of the proxy's own words alone."""
        told = 0
        ports = {play.client_port for plays in self.played.values() for play in plays}
        for recorder in self.recorders:
            for record in recorder.records:
                if not record.preface:
                    continue
                lines = [line for line in record.preface if line.startswith(b"XCLIENT ")]
                self.assertTrue(lines or not record.pieces, record.text())
                for line in lines:
                    self.assertRegex(line, expected_xclient(None))
                    self.assertIn(int(re.search(rb" PORT=(\d+)", line).group(1)), ports)
                    told += 1
        self.assertTrue(told or not any(play.transport.to_server == "xclient" for play in self.played["scripted"]))
        postfix = self.real.get("postfix")
        if postfix and all(play.transport.to_server == "xclient" for play in self.played["postfix"]):
            own = {play.client_port for play in self.played["postfix"]}
            named = [int(port) for port in _PORT_OF_MESSAGE.findall(_without_settling(postfix.log()))]
            self.assertTrue(named)
            self.assertEqual([port for port in named if port not in own], [])

    def check_clients(self):
        """Nobody is taken for whom he says he is, neither by Trabex nor by a server."""
        for trabex in self._fronts:
            for event in trabex.json_events():
                if "client" in event:
                    self.assertIn(event["client"], (CLIENT, BALANCER))
                    # The balancer itself counts as a local client, but has nothing to say.
                    if event["client"] == CLIENT or event.get("commands"):
                        self.assertEqual(event["origin"], "remote", event)
        for server in self.real.values():
            self.assertEqual([line for line in server.log().splitlines() if _FORGED.search(line)], [])

    def check_messages(self):
        """The log has the messages that the server has taken, and no others."""
        for name, server in self.real.items():
            events = [event for trabex in self._fronts if trabex.server_port == server.port
                      for event in trabex.json_events() if event["event"] == "message" and event["code"] < 300]
            self.assertEqual([event["reply"] for event in events if not _REPLIED[name].search(event["reply"])], [])
            told = {_REPLIED[name].search(event["reply"]).group(1): event for event in events}
            log = _without_settling(server.log())
            taken = {found["id"]: found.groupdict() for found in _TAKEN[name].finditer(log)}
            if name == "postfix":
                # What it has made itself, such as a report of its own, came by no connection.
                taken = {key: found for key, found in taken.items() if f": {key}: client=" in log}
            self.assertEqual(len(told), len(events), name)
            self.assertEqual(sorted(told.keys() - taken.keys()), [], f"told of, but not taken by {name}")
            # Who does not wait for the reply has nobody told of it.
            impatient = sum(not play.heard_all for play in self.played[name])
            untold = sorted(taken.keys() - told.keys())
            self.assertLessEqual(len(untold), impatient, f"taken by {name}, but not told of: {untold}")
            for key, found in ((key, found) for key, found in taken.items() if key in told):
                if "sender" in found:
                    # To a name alone the server adds its own domain, and not each server shows quotes.
                    sender = told[key]["from"].lower().replace('"', "")
                    self.assertIn(found["sender"].lower().replace('"', ""), (sender or _nobody(name), f"{sender}@server.example"), key)
                if "count" in found:
                    self.assertLessEqual(int(found["count"]), told[key]["recipients_count"], key)


def _without_settling(log):
    """The log without what settle() sends itself, by another way."""
    own = set(re.findall(r"qmgr\[\d+\]: (\w+): from=<settled", log))
    return "\n".join(line for line in log.splitlines()
                     if not (found := re.search(r"\]: (\w+): ", line)) or found.group(1) not in own)


def _nobody(name):
    return "<>" if name == "exim" else ""
