"""docs/tls-ipv6-addresses.md for the scenarios that hold it against the programs.

Its blocks are taken out of the page and run, the messages that it explains are brought about. Addresses, ports and
folders of the page become those of the scenario; everything else is as an administrator reads it.
"""

import re
import smtplib

import manual_pages
from messages import text_message
from trabex_system import (LOOPBACK, REPO, Authority, Scenario, bound, free_port, only_ipv4, received_header, trusting,
                           wait_until)

PAGE = REPO / "docs" / "tls-ipv6-addresses.md"
FILES = ("Trabex.ini", "openssl", "haproxy.cfg", "master.cf", "main.cf", "exim4.conf", "smtpd.conf", "log", "message")

# The house's clients, and one of the world's; the only IPv6 address of a machine's loopback is one of the house.
LOCAL, LOCAL6 = "127.0.0.9", "::1"
REMOTE = "127.0.0.2"
NAME = "mx.example.org"
RECIPIENT, SENDER, ELSEWHERE = "you@example.org", "me@example.net", "them@elsewhere.invalid"


def read_blocks():
    """The blocks of the page by heading and file: "Postfix: main.cf", and then "Postfix: main.cf 2"."""
    blocks = {}
    for block in manual_pages.read_blocks(PAGE):
        file = max(FILES, key=lambda name: block.said.rfind(f"`{name}`"))
        if f"`{file}`" not in block.said:
            raise AssertionError(f"which file is this in? {block.place()}")
        name, number = f"{block.heading}: {file}", 1
        while name in blocks:
            number += 1
            name = f"{block.heading}: {file} {number}"
        blocks[name] = block.text
    return blocks


def read_messages():
    """The messages that the page explains: what stands between backticks in its last tables.

    Of the explanations only the reasons of TLS are messages; they are of several words.
    """
    section = PAGE.read_text(encoding="utf-8").split("\n## What can go wrong\n", 1)[1]
    messages = set()
    for row in re.findall(r"^\| *(.*?) *\| *(.*?) *\|$", section, re.MULTILINE):
        messages.update(re.findall(r"`([^`]+)`", row[0]))
        if "TLS failed" in row[0]:
            messages.update(text for text in re.findall(r"`([^`]+)`", row[1]) if " " in text)
    return messages


def runs(*names):
    """Says which blocks of the page a case runs, and which of its messages it brings about; none may be left over."""
    def mark(case):
        case.from_page = names
        return case
    return mark


def read_ini(text):
    """The sections of an initialization file as dictionaries; a key on several lines has a list."""
    sections = {}
    for line in text.splitlines():
        if line.startswith("["):
            section = sections.setdefault(line.strip("[]"), {})
        else:
            key, value = re.fullmatch(r"(\w+) = (.*)", line).groups()
            section.setdefault(key, []).append(value)
    return sections


def read_options(text):
    """Lines "key = value" as a dictionary."""
    return dict(re.fullmatch(r"([\w ]+?) = (.*)", line).groups() for line in text.splitlines())


@only_ipv4("clients and servers of both families are in it")
class PageScenario(Scenario):
    def setUp(self):
        super().setUp()
        self.unused = set(getattr(getattr(self, self._testMethodName), "from_page", ()))
        self.files = self.place.new_folder("etc")
        self.tls_port = free_port()
        self.authority = Authority(self.place)

    def tearDown(self):
        self.assertEqual(self.unused, set(), "left over")

    def block(self, name, **more):
        """A block with the scenario's addresses, ports and folders."""
        self.assertIn(name, getattr(self, self._testMethodName).from_page)
        self.unused.discard(name)
        text = read_blocks()[name]
        for old, new in {**more, "[2001:db8:0:1::]/64": f"[{LOCAL6}]", "2001:db8:0:1::/64": LOCAL6, "10.0.0.0/8": LOCAL,
                         "192.0.2.25": LOOPBACK, "2001:db8::25": "::1", "192.0.2.10": LOOPBACK,
                         "2001:db8::10": "::1", "/etc/trabex": str(self.files)}.items():
            text = text.replace(old, new)
        return text

    def see(self, *messages, said=None):
        """One of these messages of the page comes to the log, or is in what is `said`; "…" is any text."""
        self.unused -= set(messages)
        pattern = "|".join(".*".join(map(re.escape, message.split("…"))) for message in messages)
        if said is None:
            wait_until(lambda: re.search(pattern, self.proxy.log()), f"{messages} in the log")
        else:
            self.assertRegex(said, pattern)

    def issue(self, file, *names, **more):
        """A certificate in the files of the page: <file>.pem and <file>.key."""
        certificate = self.authority.issue(list(names), **more)
        (self.files / f"{file}.pem").write_bytes(certificate.chain.read_bytes())
        (self.files / f"{file}.key").write_bytes(certificate.key.read_bytes())
        return certificate

    def start(self, server, *names, **changes):
        """Trabex with these blocks, each changing what those before have said; `changes` are keys of section Common."""
        common, sections = {}, {}
        for name in names:
            for section, keys in read_ini(self.block(name)).items():
                target = common if section == "Common" else sections.setdefault(section, {})
                target.update({key: values if len(values) > 1 else values[0] for key, values in keys.items()})
        self.assertEqual(common.pop("ServerPort"), "10025")
        if "BindPortTLS" in common:
            self.assertEqual(common["BindPortTLS"], "465")
            common["BindPortTLS"] = self.tls_port
        self.server = server
        self.proxy = self.trabex(server.port, {**common, **changes}, sections=sections)
        return self.proxy

    def smtp(self, source=REMOTE, port=None, **starttls):
        """A client that has said EHLO, under TLS if `starttls` has the context."""
        client = smtplib.SMTP("::1" if source == LOCAL6 else LOOPBACK, port or self.proxy.port,
                              local_hostname="client.example.net", timeout=bound(30), source_address=(source, 0))
        self.addCleanup(client.close)
        if starttls:
            client._host = NAME
            client.starttls(**starttls)
        client.ehlo()
        return client

    def smtps(self, source=REMOTE, port=None):
        client = smtplib.SMTP_SSL("::1" if source == LOCAL6 else LOOPBACK, port or self.tls_port, "client.example.net",
                                  timeout=bound(30), source_address=(source, 0), context=trusting(None))
        self.addCleanup(client.close)
        return client

    def trust(self):
        return trusting(self.authority.file)

    def send(self, client, recipient=RECIPIENT):
        content = text_message(1)
        client.sendmail(SENDER, [recipient], content)
        client.quit()
        return content

    def header_of_last(self, count):
        """What Trabex has put in front of the last of `count` messages that the sample server has."""
        return received_header(self.server.wait_for_messages(count)[-1].content)

    def relaying(self, source):
        """The code of the reply to a recipient elsewhere."""
        client = self.smtp(source)
        client.mail(SENDER)
        return client.rcpt(ELSEWHERE)[0]


def covered_by(*scenarios):
    """All that the cases of these classes run and bring about."""
    return {name for scenario in scenarios for case in dir(scenario)
            for name in getattr(getattr(scenario, case), "from_page", ())}
