#!/usr/bin/env python3
"""docs/mail-servers.md works: both sides of each set-up are done as it says, with Debian's Postfix, Exim and OpenSMTPD.

Mail of the world arrives, the server knows the client, and neither Trabex nor the server relays for a stranger.
"""

import re
import subprocess
import unittest

from copied_root import Failed, can_be_made
from manual_pages import RUN, REPO, complete, read_blocks, read_sections
from page_machine import CLIENT, LOCAL, NAMELESS, SETTINGS, PageMachine
from trabex_system import main, only_ipv4
from unpacked_servers import unpacked_package

PAGE = REPO / "docs" / "mail-servers.md"
ELSEWHERE = "them@elsewhere.example"
TRABEX, SERVER, NEIGHBOUR = "10.0.0.25", "10.0.0.30", "10.0.0.40"
# What Debian's packages have made where "Internet Site" was chosen.
POSTFIX_MAIN = """compatibility_level=3.6
myhostname=server.example.org
mydestination=example.org, localhost
mynetworks=127.0.0.0/8 [::1]/128
relayhost=
inet_interfaces=all
inet_protocols=ipv4
alias_maps=
maillog_file=/var/log/mail.log
"""
EXIM_SETTINGS = """dc_eximconfig_configtype='internet'
dc_other_hostnames='example.org'
dc_local_interfaces=''
dc_readhost=''
dc_relay_domains=''
dc_minimaldns='false'
dc_relay_nets=''
dc_smarthost=''
CFILEMODE='644'
dc_use_split_config='false'
dc_hide_mailname=''
dc_mailname_in_oh='true'
dc_localdelivery='mail_spool'
"""
HIDDEN = {"STARTTLS", "PIPELINING", "XCLIENT", "XFORWARD", "TURN", "ATRN"}


class ServerMachine(PageMachine):
    """One with a mail server for `you`, in place of the sample one."""

    # The world's client is in this block list.
    known_names = ("7.100.51.198.bl.example",)

    def start_sample_server(self):
        """There is a real one."""

    def prepare(self):
        self.must("useradd --create-home you && install -d -m 755 /var/mail && echo example.org > /etc/mailname && chmod 1777 /var/mail")
        self.must(["cp", REPO / "tests/system/services.sh", "/usr/local/bin/systemctl"])

    def install(self, *packages):
        for package in packages:
            # Not /lib, which is a link on the machine and a folder in packages.
            for folder in ("etc", "usr"):
                if (files := unpacked_package(package) / folder).exists():
                    subprocess.run(["cp", "-a", files, self.root.path("/")], check=True)


@only_ipv4("the page is about both families, and the servers are asked on IPv4")
class MailServers(unittest.TestCase):
    run_blocks = set()

    def setUp(self):
        if not can_be_made():
            self.skipTest("a copy of this machine takes root, and a machine that lets it mount file systems")
        self.machine = ServerMachine()
        self.machine.__enter__()
        self.addCleanup(self.machine.__exit__)
        self.machine.prepare()
        self.server_network = self.client_network = None

    def blocks(self, heading, language):
        found = [block for block in read_blocks(PAGE)
                 if (block.heading, block.language) == (heading, language) and "not run" not in block.marks]
        self.assertTrue(found, heading)
        self.run_blocks.update(block.place() for block in found)
        return [block.text for block in found]

    def on_the_same_machine(self):
        """The clients are elsewhere, since a server may take each address of its own machine for a client of the house."""
        for address in (CLIENT, NAMELESS, LOCAL):
            self.machine.must(f"ip address del {address}/32 dev lo")
        self.client_network = self.machine.root.add_network([f"{TRABEX}/24", "198.51.100.1/24", "203.0.113.1/24"],
                                                               [f"{LOCAL}/24", f"{CLIENT}/24", f"{NAMELESS}/24"])
        with self.machine.root.in_network(self.client_network):
            self.machine.must("ip route add 192.0.2.25 via 198.51.100.1")

    def on_another_machine(self):
        self.server_network = self.machine.root.add_network([f"{TRABEX}/24", f"{NEIGHBOUR}/24"], [f"{SERVER}/24"])

    def on_server(self, command):
        with self.machine.root.in_network(self.server_network):
            return self.machine.must(command)

    def from_client(self, command):
        with self.machine.root.in_network(self.client_network):
            return self.machine.must(command)

    def send(self, client, recipient):
        """The server's last reply to a mail from this address."""
        return self.from_client([REPO / "tests/package/send_mail.py", client, "192.0.2.25:25", "me@example.net", recipient])

    def follow(self, heading):
        """The commands of a set-up, and Trabex with its settings."""
        for commands in self.blocks(heading, "sh"):
            self.on_server(commands)
        (self.ini,) = self.blocks(heading, "ini")
        self.start_trabex(self.ini)

    def start_trabex(self, text):
        self.machine.write("/etc/trabex/25.ini", complete(text, SETTINGS))
        self.assertEqual(self.machine.run("trabex --check --offline --port 25 --inifile /etc/trabex/25.ini").stdout, "OK\n")
        self.machine.start_trabex()

    def wait_for_server(self):
        keys = {key: value for _, key, value in read_sections(self.ini)}
        self.machine.wait_for(["python3", "-c", "import socket, sys; socket.create_connection((sys.argv[1], int(sys.argv[2])))",
                               keys["ServerIP"], keys["ServerPort"]], "the server")

    def check(self, mails, logs):
        """What the page promises. `mails` are the files that mail is delivered to, `logs` where the server tells of the client."""
        self.wait_for_server()
        self.assertEqual(self.send(CLIENT, "you@example.org")[:4], "250 ")
        self.machine.wait_for(f"grep -rqs 'Subject: from {CLIENT}' {mails}", "the mail")
        self.machine.wait_for(f"grep -Fqs '{CLIENT}' {logs}", "the client in the server's log")
        # The two locks: Trabex's, and where its settings would let everybody pass, the server's.
        self.assertEqual(self.send(CLIENT, ELSEWHERE), "550 5.7.1 Relaying to elsewhere.example not allowed.\n")
        self.assertEqual(self.send(LOCAL, ELSEWHERE)[:4], "250 ")
        self.machine.write("/etc/trabex/25.ini", complete(self.ini.replace("LocalDomains = example.org", "LocalDomains = *"), SETTINGS))
        self.machine.start_trabex()
        said = self.send(CLIENT, ELSEWHERE)
        self.assertRegex(said, "^(454|55.) ")
        self.assertNotIn("Relaying to", said)
        self.assertEqual(self.send(LOCAL, ELSEWHERE)[:4], "250 ")
        self.start_trabex(self.ini)
        self.check_dialogue()
        self.check_hidden()

    def check_dialogue(self):
        (dialogue,) = self.blocks("Seeing that it works", "smtp")
        self.machine.write("/tmp/dialogue", dialogue)
        self.from_client([REPO / "tests/system/play_dialogue.py", "/tmp/dialogue", CLIENT, "192.0.2.25", 25])

    def offered(self, own, server, port):
        said = self.from_client(["python3", "-c", "import smtplib, sys\n"
                                  "with smtplib.SMTP(sys.argv[2], int(sys.argv[3]), source_address=(sys.argv[1], 0)) as client:\n"
                                  "    client.ehlo(); print(*client.esmtp_features)", own, server, port])
        return {word.upper() for word in said.split()}

    def check_hidden(self):
        self.assertEqual(self.offered(CLIENT, "192.0.2.25", 25) & HIDDEN, set())

    # ---- Postfix

    def install_postfix(self):
        self.machine.must("cp /usr/share/postfix/master.cf.dist /etc/postfix/master.cf && touch /etc/aliases")
        self.machine.write("/etc/postfix/main.cf", POSTFIX_MAIN)

    def test_postfix_on_the_same_machine(self):
        self.on_the_same_machine()
        self.install_postfix()
        self.follow("Postfix on the same machine")
        self.check("/var/mail/you", "/var/log/mail.log")
        # It has them, and Trabex hides them.
        self.client_network = None
        self.assertEqual(self.offered("127.0.0.1", "127.0.0.1", 10025) & HIDDEN, {"PIPELINING", "XCLIENT"})

    def ask_block_list(self):
        self.machine.must("postconf smtpd_recipient_restrictions='reject_rbl_client bl.example'")

    def test_what_postfix_does_with_the_address(self):
        """It asks block lists about the client, and knows its own clients."""
        self.on_the_same_machine()
        self.install_postfix()
        self.ask_block_list()
        self.follow("Postfix on the same machine")
        self.wait_for_server()
        self.assertIn("554 5.7.1 Service unavailable; Client host [198.51.100.7] blocked using bl.example", self.send(CLIENT, "you@example.org"))
        self.assertEqual(self.send(LOCAL, "you@example.org")[:4], "250 ")

    def test_what_postfix_does_without_the_address(self):
        """Everybody is 127.0.0.1: no block list knows it, and Trabex has the only lock."""
        self.on_the_same_machine()
        self.install_postfix()
        self.ask_block_list()
        self.follow("Postfix on the same machine")
        self.wait_for_server()
        self.ini = self.ini.replace("SendClientIP = 3", "SendClientIP = 0")
        self.start_trabex(self.ini)
        self.assertEqual(self.send(CLIENT, "you@example.org")[:4], "250 ")
        self.assertEqual(self.send(CLIENT, ELSEWHERE)[:4], "550 ")
        self.machine.wait_for("grep -Eqs 'client=[^ ]*.127.0.0.1.' /var/log/mail.log", "the client in Postfix's log")
        self.machine.write("/etc/trabex/25.ini", complete(self.ini.replace("LocalDomains = example.org", "LocalDomains = *"), SETTINGS))
        self.machine.start_trabex()
        self.assertEqual(self.send(CLIENT, ELSEWHERE)[:4], "250 ")

    def test_postscreen(self):
        """It knows the client by the PROXY header, and finds in it no early talker, since that is Trabex's word."""
        self.on_the_same_machine()
        self.install_postfix()
        self.follow("Postfix on the same machine")
        self.wait_for_server()
        self.machine.must("postconf -M 127.0.0.1:10025/inet='127.0.0.1:10025 inet n - y - 1 postscreen'"
                          " smtpd/pass='smtpd pass - - y - - smtpd' dnsblog/unix='dnsblog unix - - y - 0 dnsblog'"
                          " && postconf postscreen_upstream_proxy_protocol=haproxy postscreen_greet_wait=1s"
                          " postscreen_dnsbl_sites=bl.example postscreen_dnsbl_action=enforce && systemctl restart postfix")
        self.ini = self.ini.replace("SendClientIP = 3", "SendClientIP = 2")
        self.start_trabex(self.ini)
        self.assertIn("blocked using bl.example", self.send(CLIENT, "you@example.org"))
        self.assertEqual(self.send(NAMELESS, "you@example.org")[:4], "250 ")
        log = self.machine.read("/var/log/mail.log")
        self.assertIn(f"CONNECT from [{CLIENT}]", log)
        self.assertIn(f"PASS NEW [{NAMELESS}]", log)

    def test_postfix_on_another_machine(self):
        self.on_another_machine()
        self.install_postfix()
        self.on_server("systemctl restart postfix")
        self.follow("Postfix on another machine")
        self.check("/var/mail/you", "/var/log/mail.log")
        # Nobody but Trabex may claim.
        self.assertIn("XCLIENT", self.offered(TRABEX, SERVER, 25))
        self.assertNotIn("XCLIENT", self.offered(NEIGHBOUR, SERVER, 25))
        # Its limits are for each client.
        self.on_server("postconf smtpd_client_connection_count_limit=1 smtpd_client_event_limit_exceptions=127.0.0.1;"
                       " systemctl restart postfix")
        self.wait_for_server()
        self.assertEqual(sorted(self.greetings("192.0.2.77", "192.0.2.77")), ["220", "421"])
        self.assertEqual(self.greetings(CLIENT, NAMELESS), ["220", "220"])

    def greetings(self, *clients):
        """The codes that clients are greeted with who are there at a time."""
        return self.from_client(["python3", "-c", "import socket, sys\n"
                                 "clients = [socket.create_connection((sys.argv[1], 25), 60, (own, 0)) for own in sys.argv[2:]]\n"
                                 "print(*(client.recv(3).decode() for client in clients))", "192.0.2.25", *clients]).split()

    # ---- Exim

    def install_exim(self):
        self.machine.install("exim4-base", "exim4-config", "exim4-daemon-heavy")
        self.machine.write("/etc/exim4/update-exim4.conf.conf", EXIM_SETTINGS)
        self.machine.must("useradd --system --user-group Debian-exim; touch /etc/aliases;"
                          " install -d -o Debian-exim -g Debian-exim /var/spool/exim4 /var/log/exim4 /run/exim4; mkdir -p /var/lib/exim4;"
                          " ln -sf exim4 /usr/sbin/exim; chown root: /usr/sbin/exim4; chmod 4755 /usr/sbin/exim4")

    def test_exim_on_the_same_machine(self):
        self.on_the_same_machine()
        self.install_exim()
        self.follow("Exim on the same machine")
        self.check("/var/mail/you", "/var/log/exim4/mainlog")
        # Whoever comes without the header is refused, from this machine too.
        said = self.machine.run([REPO / "tests/package/send_mail.py", "127.0.0.1", "127.0.0.1:10025", "me@example.net",
                                 "you@example.org"])
        self.assertIn("503 ", said.stdout)
        self.machine.must("printf 'Subject: from here\\n\\nHello.\\n' | exim4 you@example.org")
        self.machine.wait_for("grep -q 'Subject: from here' /var/mail/you", "the mail of this machine")

    def test_exim_with_a_configuration_in_many_files(self):
        self.on_the_same_machine()
        self.install_exim()
        self.machine.must("sed -i \"s/^dc_use_split_config=.*/dc_use_split_config='true'/\" /etc/exim4/update-exim4.conf.conf")
        heading, one, many = "Exim on the same machine", "/etc/exim4/exim4.conf.localmacros", "/etc/exim4/conf.d/main/00_trabex"
        self.assertIn(f"`{many}`", PAGE.read_text(encoding="utf-8"))
        (commands,) = self.blocks(heading, "sh")
        self.assertIn(one, commands)
        self.on_server(commands.replace(one, many))
        (self.ini,) = self.blocks(heading, "ini")
        self.start_trabex(self.ini)
        self.check("/var/mail/you", "/var/log/exim4/mainlog")

    def test_exim_on_another_machine(self):
        self.on_another_machine()
        self.install_exim()
        self.follow("Exim on another machine")
        self.check("/var/mail/you", "/var/log/exim4/mainlog")

    # ---- OpenSMTPD

    def install_opensmtpd(self, *listening):
        self.machine.install("opensmtpd")
        (text,) = self.blocks("OpenSMTPD on the same machine", "text")
        for line in listening:
            text, count = re.subn(r"(?m)^listen on .*\n", line, text)
            self.assertEqual(count, 1)
        self.machine.write("/etc/smtpd.conf", text)
        self.machine.must("useradd --system --user-group opensmtpd; useradd --system --user-group opensmtpq; touch /etc/aliases;"
                          " mkdir -p /var/lib/opensmtpd/empty; install -d -m 711 /var/spool/smtpd; chgrp opensmtpq /usr/sbin/smtpctl")

    def test_opensmtpd_on_the_same_machine(self):
        self.on_the_same_machine()
        self.install_opensmtpd()
        self.follow("OpenSMTPD on the same machine")
        self.check("/home/you/Maildir", "/home/you/Maildir/new/*")

    def test_opensmtpd_on_another_machine(self):
        self.on_another_machine()
        self.install_opensmtpd(*self.blocks("OpenSMTPD on another machine", "text"))
        self.on_server("smtpd -n && systemctl restart opensmtpd")
        self.machine.wait_for(self.connect_from(NEIGHBOUR), "the server, to which everybody comes now")
        self.follow("OpenSMTPD on another machine")
        # The firewall keeps others out.
        self.machine.must(self.connect_from(TRABEX))
        with self.assertRaisesRegex(Failed, "ConnectionRefusedError"):
            self.machine.must(self.connect_from(NEIGHBOUR))
        self.check("/home/you/Maildir", "/home/you/Maildir/new/*")


    @staticmethod
    def connect_from(client):
        """The command that connects to the server from this address."""
        return ["python3", "-c", "import socket, sys\nsocket.create_connection((sys.argv[1], 25), 60, (sys.argv[2], 0))",
                SERVER, client]


class Whole(unittest.TestCase):
    """Behind the others, by its name."""

    def test_every_block_is_run(self):
        if not MailServers.run_blocks:
            self.skipTest("the others were")
        self.assertEqual(MailServers.run_blocks,
                         {block.place() for block in read_blocks(PAGE)
                          if (block.language in RUN or block.language == "text") and "not run" not in block.marks})


if __name__ == "__main__":
    main()
