#!/usr/bin/env python3
"""What --explain says of a client and its mail, against what the running program does with them.

Generated sessions come in by PROXY headers, so that clients may have any address; their names come from a name server
of the script's own, for which it runs in a network of its own.
"""

import ipaddress
import json
import os
import random
import socket
import struct
import subprocess
import sys
import tempfile
import threading
from concurrent.futures import ThreadPoolExecutor
from datetime import datetime, timedelta, timezone

from addresses import IPV6
from trabex_system import LOOPBACK, HungUp, Scenario, main, run_trabex

# Some of them always; all of them where the scenarios are played once more.
SESSIONS = 2000 if IPV6 else 320
SESSIONS_OF_A_FILE = 20

_VARIABLE = "TRABEX_TESTS_WITH_NAMES"

# Addresses with their names; None has none, "" is one for which the name server fails.
NAMES = {
    "10.0.0.5": "desk.office.test",
    "10.1.2.3": None,
    "192.0.2.1": "mail.good.test",
    "192.0.2.9": "dyn-9.pool.test",
    "192.0.2.77": "",
    "198.51.100.7": "mx.partner.test",
    "198.51.100.8": None,
    "203.0.113.20": "host.bad.test",
    "203.0.113.21": "odd name.test",
    "2001:db8:1::5": "six.office.test",
    "2001:db8::25": "mail.six.test",
    "2001:db8::66": None,
}
# Names with their addresses; the others are not known.
ADDRESSES = {
    "mail.good.test": ["192.0.2.1"],
    "desk.office.test": ["10.0.0.5"],
    "mx.partner.test": ["198.51.100.99"],
    "mail.six.test": ["2001:db8::25"],
    "elsewhere.test": ["203.0.113.200", "2001:db8::200"],
}


# --- a network of its own, with a name server

def enter_own_network():
    """Starts this script anew where it may have the name server; returns when it is there, or none is to be had."""
    if _VARIABLE in os.environ or IPV6:
        return
    own = ["unshare", "--net", "--mount"]
    if os.geteuid() != 0:
        own[1:1] = ["--user", "--map-root-user"]
    if subprocess.run([*own, "mount", "--bind", "/etc/hosts", "/etc/hosts"], capture_output=True,
                      check=False).returncode == 0:
        os.execvpe("unshare", [*own, sys.executable, *sys.argv], {**os.environ, _VARIABLE: "1"})


def set_up_network(folder):
    files = {"/etc/resolv.conf": "nameserver 127.0.0.1\n"}
    if not IPV6:
        # Otherwise the network is there, with a hosts file that has no more than this.
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        files["/etc/hosts"] = "127.0.0.1 localhost\n::1 localhost\n"
    for path, text in files.items():
        own = os.path.join(folder, os.path.basename(path))
        with open(own, "w", encoding="ascii") as file:
            file.write(text)
        os.chmod(own, 0o644)
        subprocess.run(["mount", "--bind", own, path], check=True)


class NameServer:
    """Answers from the tables above."""

    _A, _PTR, _AAAA = 1, 12, 28
    _NO_ERROR, _SERVER_FAILURE, _NO_SUCH_NAME = 0, 2, 3

    def __init__(self):
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.1", 53))
        self._reverse = {ipaddress.ip_address(address).reverse_pointer: name for address, name in NAMES.items()}
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            query, client = self._socket.recvfrom(512)
            self._socket.sendto(self._answer(query), client)

    def _answer(self, query):
        labels, at = [], 12
        while query[at]:
            labels.append(query[at + 1:at + 1 + query[at]])
            at += 1 + query[at]
        question = query[12:at + 5]
        kind = struct.unpack("!H", question[-4:-2])[0]
        code, records = self._look_up(b".".join(labels).decode("ascii", errors="replace").lower(), kind)
        head = query[:2] + struct.pack("!HHHHH", 0x8180 | code, 1, len(records), 0, 0)
        return head + question + b"".join(
            b"\xc0\x0c" + struct.pack("!HHIH", kind, 1, 60, len(data)) + data for data in records)

    def _look_up(self, name, kind):
        if kind == self._PTR:
            found = self._reverse.get(name)
            if found == "":
                return self._SERVER_FAILURE, []
            return (self._NO_ERROR, [self._encoded(found)]) if found else (self._NO_SUCH_NAME, [])
        if name not in ADDRESSES:
            return self._NO_SUCH_NAME, []
        version = {self._A: 4, self._AAAA: 6}.get(kind)
        return self._NO_ERROR, [ipaddress.ip_address(address).packed for address in ADDRESSES[name]
                                if ipaddress.ip_address(address).version == version]

    @staticmethod
    def _encoded(name):
        return b"".join(bytes([len(label)]) + label.encode() for label in name.split(".")) + b"\0"


# --- what is generated

HELOS = ["mail.good.test", "desk.office.test", "elsewhere.test", "localhost", "unknown.test", "[192.0.2.1]",
         "MAIL.good.test"]
SENDERS = ["", "ann@good.test", "bulk@spam.test", "Bob@Partner.test", "boss@office.test", "verify@check.test",
           '"ann"@good.test', "old@office.test"]
RECIPIENTS = ["box@local.test", "alias@local.test", "private@local.test", "gone@local.test", "BOX@sub.local.test",
              "any@outside.test", "user%outside.test@local.test", '"box"@local.test', "b\u00f6x@local.test",
              "postmaster"]


def some(chance, values, most=3):
    """Up to so many of the values."""
    return ", ".join(chance.sample(values, chance.randint(0, most)))


def settings_of(chance):
    """Sections of an initialization file."""
    senders = ["*@spam.test", "bulk@*", "ann@good.test", "*office* boss@*", "[]*@good.test", "old@office.test"]
    recipients = ["gone@local.test", "*@outside.test", "private@*", "box@*", "[a-g]*@local.test", "postmaster"]
    names = ["*.pool.test", "mail.*", "host.bad.test", "[]", "*.office.test", "dyn-#.*"]
    common = {
        "LocalDomains": ["local.test", "*.local.test, postmaster"],
        "LocalIPs": ["10.0.0.0/8", "2001:db8:1::/48"],
        "ProxyProtocolFrom": LOOPBACK,
        "IPWhiteList": some(chance, ["192.0.2.9", "2001:db8::66", "203.0.113.20/31"], 1),
        "IPAllowList": chance.choice(["0.0.0.0/0, ::/0", "0.0.0.0/0, ::/0", "10.0.0.0/8, 192.0.2.0/24, 2001:db8::/32"]),
        "IPBlackList": some(chance, ["203.0.113.0/24", "10.1.0.0-10.1.255.255", "2001:db8::66", "192.0.2.77"], 2),
        "ValidateRDNS": chance.choice([0, 0, 1, 2, 3]),
        "ConfirmHostNames": chance.choice([0, 0, 1]),
        "HostsWhiteList": some(chance, names, 2),
        "HostsAllowList": chance.choice(["*", "*", "*.test", "*.good.test, *.six.test, desk.*"]),
        "HostsBlackList": some(chance, names, 2),
        "ValidateHELO": chance.choice([0, 0, 4, 8, 12, 2, 15]),
        "HELOBlackList": some(chance, ["localhost", "unknown.*", "[[]*"], 2),
        "SendersWhiteList": some(chance, senders, 1),
        "SendersAllowList": chance.choice(["*", "*", "*.test"]),
        "SendersBlackList": some(chance, senders, 2),
        "RestrictedSenders": some(chance, ["*@office.test", "old*", "verify*@*", "*@good.test"], 3),
        "RecipientsWhiteListLocal": some(chance, recipients, 1),
        "RecipientsAllowListLocal": chance.choice(["*", "*", "*@local.test, *@outside.test"]),
        "RecipientsBlackListLocal": some(chance, recipients, 2),
        "RecipientsWhiteListRemote": some(chance, recipients, 1),
        "RecipientsAllowListRemote": chance.choice(["*", "*", "*@local.test"]),
        "RecipientsBlackListRemote": some(chance, recipients, 2),
        "PrivateRecipients": some(chance, recipients, 1),
        "MaxRecipientsLocal": chance.choice([0, 0, 0, 1, 2]),
        "MaxRecipientsRemote": chance.choice([0, 0, 0, 1, 2]),
        "MaxSize": chance.choice(["0", "0", "1000", "2K", "-1", "-2"]),
        "EnhancedStatusCodes": chance.choice([0, 1]),
        "RemoveSMTPExtensionsRemote": some(chance, ["SIZE", "SMTPUTF8", "8BITMIME"], 1),
        "AddSMTPExtensionsLocal": some(chance, ["XTEST", "8BITMIME"], 1),
        "LogLevelRemote": 0,
        "LogLevelServer": 0,
    }
    sections = {
        "SenderReplacements.Local": chance.choice([{}, {"*@office.test": "office@local.test",
                                                         "old@*": "new@local.test"}]),
        "SenderReplacements.Remote": chance.choice([{}, {"ann@good.test": "ann@better.test"}]),
        "RecipientReplacements.Local": chance.choice([{}, {"*@outside.test": "relay@outside.test"}]),
        "RecipientReplacements.Remote": chance.choice([{}, {"alias@local.test,box@sub.*": "box@local.test"}]),
        "ResponseChanges": chance.choice([
            {},
            {"RCPT.Private": "<mail>=<post>", "RCPT.Relaying": ["<550>=<450>", "<allowed>=<possible>"], "554": "<x>"},
            {"RCPT.BlackList.Remote.gone@local.test": "<550 {%rcpt%} has gone>", "RCPT.250": "<OK>=<Fine, {%from%}>",
             "BadSeq": "<a>==<b>", "NoPtr": "<Unable>=<Not able, {%remotehostname%},>"},
            {"MAIL.250": "<250>=<250 2.1.0>", "DATA.354": "<Go ahead>=<Now>", "HostsBlackList": "<554>=<454>"},
            {"MAIL.BlackList": "<550>=<250>", "EHLO.250": "<server>=<{%localhostname%}>"}]),
        "GreyListing": {
            "Enabled": chance.choice([0, 1, 1]),
            "Delay": chance.choice([0, 10]),
            "BlackListDelay": 60,
            "MinCount": chance.choice([1, 1, 2]),
            "IPWhiteList": some(chance, ["198.51.100.0/24", "2001:db8::25"], 1),
            "HostsWhiteList": some(chance, ["mail.*", "*.partner.test"], 1),
            "IPBlackList": some(chance, ["192.0.2.9"], 1),
            "HostsBlackList": chance.choice(["[]", "*.pool.test", "none"]),
            "CallbackSendersList": chance.choice(["", "verify*@check.test, *@good.test", "*@partner.test, ann*"]),
            "CallbackSenderAction": chance.choice([0, 1, 2, 3]),
        },
        "Service": {"DnsFailure": chance.choice([0, 1])},
    }
    return common, sections


def session_of(chance, number=None):
    """A client and what it says. With a number no other session has the same sender, but for the empty one."""
    sender = chance.choice(SENDERS)
    if number is not None and "@" in sender:
        local, domain = sender.replace('"', "").split("@")
        sender = f"{local}+{number}@{domain}"
    return {"client": chance.choice(list(NAMES)), "helo": chance.choice(HELOS), "from": sender,
            "to": chance.sample(RECIPIENTS, chance.choice([1, 1, 2, 3])),
            "size": chance.choice([None, None, None, 500, 1500, 5000])}


def records_of(chance, sessions, now):
    """Lines for an import: what may be known of some of the triples."""
    lines = {}
    for session in sessions:
        address = ipaddress.ip_address(session["client"])
        network = (".".join(session["client"].split(".")[:3]) if address.version == 4
                   else str(ipaddress.ip_network((address, 64), strict=False)))
        sender = session["from"].replace('"', "").lower()
        for recipient in session["to"]:
            if chance.random() < 0.4 or not recipient.isascii():
                continue
            recipient = recipient.replace('"', "").lower()
            begun = now - timedelta(minutes=chance.choice([5, 15, 90]))
            lines[network, sender, recipient] = json.dumps({
                "network": network, "sender": sender, "recipient": recipient, "accepted": chance.random() < 0.3,
                "attempts": chance.choice([1, 2, 3]),
                "delayed_until": f"{begun + timedelta(minutes=10):%Y-%m-%dT%H:%M:%SZ}",
                "expires": f"{begun + timedelta(minutes=chance.choice([30, 600])):%Y-%m-%dT%H:%M:%SZ}"})
    return "".join(line + "\n" for line in lines.values())


# Replies that the generated sessions come to, by their keys.
REPLIES = {"IPBlackList", "NoPtr", "HostsBlackList", "HELO.BlackList", "MAIL.Size", "RCPT.TooManyRecipients",
           "RCPT.Relaying", "RCPT.Private", "RCPT.BlackList.Local", "RCPT.BlackList.Remote", "RCPT.AddressSyntax",
           "RCPT.Greylisted", "RCPT.250", "DATA.Greylisted", "DATA.354"}
# And with all of the sessions.
MORE_REPLIES = {"HELO.Invalid", "HELO.DNSError", "MAIL.BlackList", "RCPT.Restricted"}


# --- the tests

class Server:
    """Says what the server of an explanation says, and keeps the commands of the latest connection."""

    def __init__(self, extensions):
        self._extensions = extensions
        self.commands = []

    def __call__(self, connection):
        self.commands = commands = []
        connection.send_line("220 server ESMTP")
        while True:
            line = connection.read_line()
            commands.append(line)
            if line.startswith("EHLO"):
                lines = ["server", *self._extensions]
                for i, text in enumerate(lines):
                    connection.send_line(("250-" if i + 1 < len(lines) else "250 ") + text)
            else:
                connection.send_line("354 Go ahead" if line == "DATA" else "250 OK")


class Explained(Scenario):
    def setUp(self):
        super().setUp()
        if _VARIABLE not in os.environ and not IPV6:
            self.skipTest("no network of its own")
        self.keys = set()

    def check_replies(self):
        wanted = REPLIES | (MORE_REPLIES if SESSIONS >= 2000 else set())
        self.assertEqual(wanted - self.keys, set())

    def arguments(self, session, extensions):
        arguments = [f"client={session['client']}", f"helo={session['helo']}", f"from={session['from'] or '<>'}",
                     *(f"to={recipient}" for recipient in session["to"]), *(f"ext={line}" for line in extensions)]
        return arguments + ([f"size={session['size']}"] if session["size"] is not None else [])

    def explained_by(self, ini, session, extensions, *more):
        arguments = ["--explain", "/I", ini, *self.arguments(session, extensions), *more]
        status, said, errors = run_trabex(*arguments, "--json")
        self.assertEqual(errors, "", arguments)
        explained = json.loads(said)
        self.assertEqual(explained["status"], status)
        return explained

    def play(self, proxy, session, explained):
        """Has the session come about as it was explained, and compares each reply, and what the server gets."""
        address = session["client"]
        client = self.connect(proxy.address)
        self.keys.update(step["reply"]["key"] for step in explained["steps"] if "reply" in step)
        try:
            client.send_line(f"PROXY {'TCP6' if ':' in address else 'TCP4'} {address} {address} 1000 25")
            steps = explained["steps"]
            admission = [step["reply"] for step in steps[:2] if "reply" in step]
            self.compare(client, admission[0] if admission else {"sent": True, "text": "220 server ESMTP"})
            for step in steps[2:]:
                if "reply" in step:
                    client.send_line(self.line_of(step, session, steps))
                    self.compare(client, step["reply"])
        finally:
            client.close()
        sent_on = [step.get("rewritten", step["value"].removeprefix("<>")) for step in steps[3:]
                   if step["result"] == "taken" and step["value"]]
        got = [line[line.index("<") + 1:line.rindex(">")] for line in self.server.commands
               if line[:5] in ("MAIL ", "RCPT ")]
        if not admission:
            self.assertEqual(got, sent_on)

    @staticmethod
    def line_of(step, session, steps):
        if step["step"] == "EHLO":
            return f"EHLO {step['value']}"
        if step["step"] == "RCPT":
            return f"RCPT TO:<{step['value']}>"
        if step["step"] == "DATA":
            return "DATA"
        line = f"MAIL FROM:<{session['from']}>"
        if session["size"] is not None:
            line += f" SIZE={session['size']}"
        offers = next(one["reply"]["text"] for one in steps if one["step"] == "EHLO")
        beyond_ascii = any(not recipient.isascii() for recipient in session["to"])
        return line + (" SMTPUTF8" if beyond_ascii and "SMTPUTF8" in offers else "")

    def compare(self, client, reply):
        if reply["sent"]:
            self.assertEqual(client.read_reply(), reply["text"].replace("\r\n", "\n"))
        else:
            with self.assertRaises(HungUp):
                client.read_reply()

    def start(self, chance):
        """Trabex with settings by chance, not running yet, and its server; returns it with the server's extensions."""
        extensions = chance.choice([[], ["SIZE 2000", "8BITMIME"], ["SMTPUTF8", "SIZE"],
                                    ["SIZE 1200", "SMTPUTF8", "PIPELINING"]])
        self.server = Server(extensions)
        common, sections = settings_of(chance)
        sections["GreyListing"]["Database"] = self.place.folder / f"grey-{chance.getrandbits(64)}.gldb"
        proxy = self.trabex(self.scripted_server(self.server).port, common, sections=sections, start=False)
        return proxy, extensions

    def give_records(self, proxy, chance, sessions):
        """To whoever has the records: a running instance, or the file."""
        path = self.place.folder / "records.jsonl"
        path.write_text(records_of(chance, sessions, datetime.now(timezone.utc)), encoding="utf-8")
        status, said, errors = run_trabex("/GREYLIST", "import", path, "/I", proxy.ini)
        self.assertEqual((status, errors), (0, ""), said)

    def test_generated_sessions_with_the_records_of_the_file(self):
        """All are explained before any is played, each with a sender of its own."""
        for seed in range(SESSIONS // 2 // SESSIONS_OF_A_FILE):
            chance = random.Random(seed)
            proxy, extensions = self.start(chance)
            sessions = [session_of(chance, number) for number in range(SESSIONS_OF_A_FILE)]
            # The empty sender once: an attempt counts for the next one.
            for session in [session for session in sessions if not session["from"]][1:]:
                session["from"] = f"ann+{sessions.index(session)}@spam.test"
            self.give_records(proxy, chance, sessions)
            with ThreadPoolExecutor(os.cpu_count()) as pool:
                all_explained = list(pool.map(
                    lambda session, ini=proxy.ini, extensions=extensions: self.explained_by(ini, session, extensions),
                    sessions))
            proxy.start()
            for session, explained in zip(sessions, all_explained):
                with self.subTest(seed=seed, session=session):
                    self.play(proxy, session, explained)
            self.assertEqual(proxy.end(), 0)
        self.check_replies()

    def test_generated_sessions_with_the_records_of_the_instance(self):
        """Each is explained just before it is played, so that what the earlier ones did counts."""
        for seed in range(1000, 1000 + SESSIONS // 2 // SESSIONS_OF_A_FILE):
            chance = random.Random(seed)
            proxy, extensions = self.start(chance)
            proxy.sections["GreyListing"]["Enabled"] = 1
            proxy.write_ini()
            proxy.start()
            sessions = [session_of(chance) for _ in range(SESSIONS_OF_A_FILE)]
            self.give_records(proxy, chance, sessions)
            for session in sessions:
                with self.subTest(seed=seed, session=session):
                    explained = self.explained_by(proxy.ini, session, extensions, "--live")
                    self.play(proxy, session, explained)
            self.assertEqual(proxy.end(), 0)
        self.check_replies()

    def test_without_an_instance(self):
        proxy, _ = self.start(random.Random(7))
        proxy.sections["GreyListing"] = {"Enabled": 1}
        proxy.write_ini(IPBlackList="", ValidateRDNS=0, RecipientsBlackListRemote="", MaxRecipientsRemote=0)
        arguments = ("--explain", "/I", proxy.ini, "client=192.0.2.1", "name=none", "from=a@b.test", "--live")
        self.assertEqual(run_trabex(*arguments, "to=box@local.test")[0], 3)
        self.assertEqual(run_trabex(*arguments)[0], 0, "nobody asks for a record")

    def test_the_lines_say_the_same_as_the_object(self):
        chance = random.Random(5)
        proxy, extensions = self.start(chance)
        for number in range(10):
            session = session_of(chance, number)
            explained = self.explained_by(proxy.ini, session, extensions)
            status, said, _ = run_trabex("--explain", "/I", proxy.ini, *self.arguments(session, extensions))
            self.assertEqual(status, explained["status"])
            lines = said.splitlines()
            self.assertEqual([line.split(":")[0].split(" ")[0] for line in lines[:-1]],
                             [step["step"] for step in explained["steps"]])
            reply = explained["reply"]
            self.assertIn(f"({reply['key']}", lines[-1])
            if "\r" not in reply["text"] and reply["sent"]:
                self.assertTrue(lines[-1].startswith(reply["text"] + " ("), lines[-1])


if __name__ == "__main__":
    enter_own_network()
    with tempfile.TemporaryDirectory(prefix="trabex-names-") as names:
        if _VARIABLE in os.environ or IPV6:
            set_up_network(names)
            NameServer()
        main()
