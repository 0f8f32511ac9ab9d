"""What the scenarios of hostile sessions share: the servers, what has reached them, and Trabex in front of them."""

import asyncio
import re

from hostile_plays import SERVERS, all_sessions, run_all
from recording_server import RecordingServer, command_violations, markers
from trabex_system import Options, Scenario, bracketed_networks, in_family

# More at a time than OpenSMTPD's backlog holds would wait for seconds.
LANES = 6
AT_A_TIME = {"scripted": 16, "postfix": 16, "exim": 16, "opensmtpd": 4}
SETTINGS = {"LocalIPs": in_family("127.0.0.9"), "LocalDomains": "local.test", "SendersBlackList": "*@black.test",
            "RecipientsBlackListRemote": "black-*@local.test", "ValidateHELO": 8, "HELOBlackList": "black-*",
            "MaxSize": 50000}

# What ordinary servers have switched off is switched on here: the more they understand, the better.
POSTFIX = {"mydestination": "local.test", "virtual_mailbox_domains": "", "local_transport": "discard:",
           "default_transport": "discard:", "smtpd_authorized_xclient_hosts": bracketed_networks("127.0.0.0/8"),
           "smtpd_authorized_xforward_hosts": bracketed_networks("127.0.0.0/8"), "smtpd_forbid_bare_newline": "no",
           "smtpd_error_sleep_time": "0", "smtpd_soft_error_limit": "1000", "smtpd_hard_error_limit": "1000",
           "smtpd_junk_command_limit": "1000", "smtpd_forbidden_commands": ""}
EXIM = {"queue_only": "true", "percent_hack_domains": "*", "strip_trailing_dot": "true", "allow_domain_literals": "true",
        "strip_excess_angle_brackets": "true", "pipelining_advertise_hosts": "*", "smtp_enforce_sync": "false",
        "helo_accept_junk_hosts": "*", "acl_smtp_vrfy": "accept", "acl_smtp_expn": "accept", "acl_smtp_etrn": "accept",
        "smtp_max_synprot_errors": 1000, "smtp_max_unknown_commands": 1000, "smtp_receive_timeout": "12s",
        "acl_smtp_auth": "accept",
        "authenticators": "login:\n  driver = plaintext\n  public_name = LOGIN\n  server_prompts = Name : Secret\n"
                          "  server_condition = false\n"}

# In logs: addresses and names that are remarks of the client and receive or send nothing, and a command that is complained of.
_HARMLESS = re.compile(r"(?:sasl_sender=|dsn-orcpt: |ignoring AUTH=|Received: from )\S*")
_QUOTED = re.compile(r'(?:command=| error in )"(.*?)"(?: H=| result=|$)')
_CLIENT = re.compile(rb"client-(\w{3})\.test")


class Hostile(Scenario):
    """Plays the sessions against all four servers at a time, and looks at what has reached them."""

    def setUp(self):
        super().setUp()
        self.sessions = all_sessions()
        self.real = {}
        self.played = {}

    def fronts(self, port, some_plays):
        """A function that gives the address that each of the plays goes to, for the server on the port."""
        raise NotImplementedError

    def plays_of(self, session, server):
        raise NotImplementedError

    def real_server(self, name):
        if name == "postfix":
            return self.postfix(POSTFIX)
        if name == "exim":
            return self.exim(EXIM)
        return self.opensmtpd(arguments=["-P", "mda", "-P", "mta"])

    def play_all(self):
        """Plays everything; returns for each server its plays, and those that reached it with what shows it."""
        self.real = {name: self.real_server(name) for name in SERVERS if name != "scripted"}
        all_plays = {name: [play for session in self.sessions if name == "scripted" or not session.replies
                            for play in self.plays_of(session, name)] for name in SERVERS}
        return all_plays, self.play(all_plays)

    def play(self, all_plays):
        """Plays these; returns for each server those that have reached it so far, with what shows it."""
        for name, some_plays in all_plays.items():
            self.played.setdefault(name, []).extend(some_plays)
        recorders = asyncio.run(self.play_against(self.real, all_plays))
        reached = {name: self.marked(server, self.played[name]) for name, server in self.real.items()}
        reached["scripted"] = self.recorded(recorders, all_plays["scripted"])
        return reached

    async def play_against(self, real, all_plays):
        """Plays against the real servers and against scripted ones; returns these."""
        lanes = self.lanes(all_plays["scripted"])
        recorders = [recorder for recorder, _, _ in lanes]
        for recorder in recorders:
            await recorder.start()
        # Whatever is to be started is started before the first play, whose server may not be patient.
        runs = [self.play_in_front_of(all_plays[name], server.port, AT_A_TIME[name]) for name, server in real.items()]
        runs += [self.play_in_front_of(some_plays, recorder.port, at_a_time, recorder)
                 for recorder, some_plays, at_a_time in lanes]
        await asyncio.gather(*runs)
        await asyncio.gather(*(recorder.stop() for recorder in recorders))
        return recorders

    def lanes(self, some_plays, context=None):
        """Scripted servers, each with its plays and how many of them it has at a time."""
        own_replies = [play for play in some_plays if play.session.replies]
        others = [play for play in some_plays if not play.session.replies]
        # Where the server's replies are the play's affair it is the only one, so several servers share these plays.
        return [(RecordingServer(context), others, AT_A_TIME["scripted"]),
                *((RecordingServer(context), own_replies[first::LANES], 1) for first in range(LANES))]

    def play_in_front_of(self, some_plays, port, at_a_time, recorder=None):
        """Starts what stands in front of the port; returns what is to be awaited for the plays themselves."""
        def before(play):
            if recorder:
                recorder.script = play.session.replies

        return run_all(some_plays, self.fronts(port, some_plays), at_a_time, before)

    @staticmethod
    def marked(server, all_plays):
        """The plays that have left their mark in a real server's log or queue, with a line that shows it."""
        server.settle()
        by_number = {play.number: play for play in all_plays}
        reached = {}
        for line in (server.log() + "\n" + server.queued()).splitlines():
            for number in markers(_HARMLESS.sub("", line).encode("utf-8", errors="surrogateescape")):
                # A command that the server complains of is what it took for one, with all that stood in its line.
                quoted = _QUOTED.search(line)
                if not quoted or command_violations(quoted.group(1).encode("utf-8", errors="surrogateescape")):
                    reached.setdefault(by_number[number.decode("ascii").lower()], line)
        return reached

    @staticmethod
    def recorded(recorders, all_plays):
        """The plays of which a scripted server got what must not come, with what that is."""
        by_number = {play.number: play for play in all_plays}
        reached = {}
        for record in (record for recorder in recorders for record in recorder.records):
            everything = b"\n".join(data for _, data in record.pieces)
            numbers = _CLIENT.findall(everything) + markers(everything)
            play = by_number[numbers[0].decode("ascii").lower()] if numbers else None
            for violation in record.violations():
                reached[play] = f"{violation}\n{record.text()}"
            if not record.ended and play and not play.session.owes:
                play.complaints.append("the connection to the server stays when the client is gone")
        return reached


class HostileThroughTrabex(Hostile):
    """With Trabex in between, which has the settings of each session."""

    what = "hostile sessions"

    def setUp(self):
        super().setUp()
        if Options.through != "trabex":
            self.skipTest("needs Trabex itself")

    def fronts(self, port, some_plays):
        """Trabex with the settings of each session."""
        by_settings = {}
        for play in some_plays:
            own = tuple(sorted(play.session.settings.items()))
            if own not in by_settings:
                sections = {"Common": dict(SETTINGS)}
                for (section, key), value in own:
                    sections.setdefault(section, {})[key] = value
                by_settings[own] = self.started(port, sections.pop("Common"), sections)
        return lambda play: self.address(by_settings[tuple(sorted(play.session.settings.items()))], play)

    def started(self, port, settings, sections):
        return self.trabex(port, settings, sections=sections)

    def address(self, trabex, _play):
        return trabex.address

    def check_that_nothing_gets_through(self):
        all_plays, reached = self.play_all()
        tried = sum(map(len, all_plays.values()))
        through = sum(map(len, reached.values()))
        print(f"{self.what}: {tried} tried, {through} got through ({len(self.sessions)} files)")
        for server in SERVERS:
            self.assertNotIn(None, reached[server], "somebody's session")
            for play in all_plays[server]:
                with self.subTest(server=server, play=str(play)):
                    self.assertNotIn(play, reached[server], reached[server].get(play))
                    self.assertEqual(play.complaints, [])
