#!/usr/bin/env python3
"""tools/trabex-convert: what it makes of other software's lists decides in Trabex as the original does there."""

import html
import importlib.machinery
import importlib.util
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import textwrap
from pathlib import Path

from processes import Process
from trabex_system import LOOPBACK, REPO, Scenario, bound, free_port, main, only_ipv4
from unpacked_servers import postgrey_perl_folders, unpacked_package

CONVERT = REPO / "tools" / "trabex-convert"
VALUES = 1000  # that are asked of both


def convert(*arguments):
    """The list, the reasons of what became a comment, and what was said."""
    done = subprocess.run([sys.executable, CONVERT, *map(str, arguments)], capture_output=True, text=True,
                          timeout=bound(60), check=False)
    lines = done.stdout.splitlines()
    comments = [line for line in lines if line.startswith("# ")]
    assert done.returncode == (1 if comments else 0), done.stderr
    return [line for line in lines if not line.startswith("# ")], comments, done.stderr


def converter_module():
    loader = importlib.machinery.SourceFileLoader("trabex_convert", str(CONVERT))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    sys.dont_write_bytecode, before = True, sys.dont_write_bytecode
    loader.exec_module(module)
    sys.dont_write_bytecode = before
    return module


class Text(Scenario):
    """What becomes of single lines."""

    def check(self, method, target, rows):
        module = converter_module()
        for line, entries in rows:
            with self.subTest(method=method, line=line):
                converter = module.Converter(target, None)
                if isinstance(entries, str):
                    with self.assertRaises(module.NoEqual) as caught:
                        getattr(converter, method)(line)
                    self.assertEqual(str(caught.exception), entries)
                else:
                    self.assertEqual(getattr(converter, method)(line), entries)

    def test_expressions(self):
        self.check("postfix_expression", "names", [
            ("/^mail\\.example\\.org$/ OK", ["mail.example.org"]),
            ("/example/ OK", ["*example*"]),
            ("/\\.example\\.(org|net)$/ OK", ["*.example.org", "*.example.net"]),
            ("/^a[b-d]?x*$/ OK", ["a* []a*[!x]*", "a[b-d]* []a[b-d]*[!x]*"]),
            ("/^mx\\d+\\.x$/ OK", ["mx#*.x []mx*[!0-9]*.x"]),
            ("/^[^a]\\d{2}$/ OK", ["[!a]##"]),
            ("/^.+\\.x$/ OK", ["?*.x"]),
            ("!/^a$/ OK", ["[]a"]),
            ("!/^(a|b)$/ OK", ["[][ab]"]),
            ("/^a(?=b)/ OK", "look-around"),
            ("/^a(?!b)/ OK", "look-around"),
            ("/^(a)\\1$/ OK", "a reference to a part"),
            ("/^\\d+-\\d+$/ OK",
             "characters of a class, any number of them, where the rest of the text is not fixed"),
            ("/a/i OK", "the flags i"),
            ("/a/ DUNNO", "the action DUNNO"),
            ("/a/ 450 later", "the action 450 later"),
            ("if /a/", "a condition"),
            ("/^a+b/ OK", "characters of a class, any number of them, where the rest of the text is not fixed"),
            ("/^(ab)+$/ OK", "something longer than a character, repeated any number of times")])

    def test_access_tables(self):
        self.check("postfix_hash", "names", [
            ("Example.org OK", ["example.org", "*.example.org"]),
            ("example.org REJECT go away", ["example.org", "*.example.org"]),
            ("example.org 550 go away", ["example.org", "*.example.org"]),
            ("example.org DISCARD", "the action DISCARD"),
            (".example.org OK",
             "a name with a dot in front, which counts only with another parent_domain_matches_subdomains")])
        self.check("postfix_hash", "mail", [
            ("user@example.org REJECT", ["user@example.org"]),
            ("user@ REJECT", ["user@*"]),
            ("example.org REJECT", ["*@example.org", "*@*.example.org"]),
            ("<> REJECT", ["[]"])])
        self.check("postfix_hash", "addresses", [
            ("192.0.2.1 OK", ["192.0.2.1"]),
            ("192.168 OK", ["192.168.0.0/16"]),
            ("10 OK", ["10.0.0.0/8"]),
            ("2001:db8 OK", ["2001:db8::/32"]),
            ("2001:db8::1 OK", ["2001:db8::1"])])
        self.check("postfix_cidr", "addresses", [
            ("192.0.2.0/24 OK", ["192.0.2.0/24"]),
            ("2001:db8::/32 OK", ["2001:db8::/32"]),
            ("[::1] OK", ["::1"]),
            ("!192.0.2.1 OK", "an address that must not match"),
            ("if 192.0.2.1", "a condition")])

    def test_conditions(self):
        """What stands between "if" and "endif" does not count by itself."""
        folder = self.place.new_folder("conditions")
        table = folder / "table"
        table.write_text("/^a$/ OK\nif !/^owner-/\n/^b$/ OK\nIF /x/\n/^c$/ OK\nendif\n/^d$/ OK\nendif\n/^e$/ OK\n",
                         encoding="utf-8")
        entries, comments, _ = convert("postfix-regexp", table)
        self.assertEqual(entries, ["a", "e"])
        self.assertEqual([re.search(r":(\d+): (.*?):", comment).groups() for comment in comments], [
            ("2", "a condition"), ("3", "a line that counts only under a condition"), ("4", "a condition"),
            ("5", "a line that counts only under a condition"), ("6", "a condition"),
            ("7", "a line that counts only under a condition"), ("8", "a condition")])
        table.write_text("192.0.2.1 OK\nif 192.0.2.0/24\n192.0.2.2 OK\nendif\n192.0.2.3 OK\nif 0.0.0.0/0\n", encoding="utf-8")
        other = folder / "other"
        other.write_text("192.0.2.4 OK\n", encoding="utf-8")
        entries, comments, _ = convert("postfix-cidr", table, other)
        self.assertEqual((entries, len(comments)), (["192.0.2.1", "192.0.2.3", "192.0.2.4"], 4))

    def test_other_lists(self):
        self.check("spamdyke_ip", "addresses", [
            ("192.0.2.1", ["192.0.2.1"]),
            ("192.0.2.", ["192.0.2.0/24"]),
            ("192.0.2.0/255.255.255.0", ["192.0.2.0/24"]),
            ("192.0.2.8-11", ["192.0.2.8-192.0.2.11"]),
            ("10.1-2", ["10.1.0.0-10.2.255.255"]),
            ("10.1-2.3", "several ranges in one address")])
        self.check("spamdyke_rdns", "names", [("mail.example.org", ["mail.example.org"]), (".example.org", ["*.example.org"])])

    def test_actions_of_both_kinds(self):
        path = self.place.new_folder("both") / "list"
        path.write_text("a.example OK\nb.example REJECT\n", encoding="utf-8")
        self.assertEqual(convert("postfix-hash", path)[:2],
                         (["a.example", "*.a.example"],
                          [f"# {path}:2: the action REJECT in a list of ok: b.example REJECT"]))
        self.assertEqual(convert("--action", "reject", "postfix-hash", path)[0], ["b.example", "*.b.example"])


class Told(Scenario):
    """What the manual page and the completion say of the program."""

    def test_kinds_and_options(self):
        shown = subprocess.run([sys.executable, CONVERT, "--help"], capture_output=True, text=True, timeout=bound(60),
                               check=True).stdout
        options = set(re.findall(r"^  .*?(--\w+)", shown, re.MULTILINE))
        kinds = set(converter_module().KINDS)
        self.assertEqual(options, {"--help", "--for", "--action"})

        page = (REPO / "docs/man/trabex-convert.1").read_text(encoding="utf-8")
        self.assertEqual(set(re.findall(r"^\.It Cm (\S+)$", page, re.MULTILINE)), kinds)
        described = " ".join(re.findall(r"^\.It Fl (.*)$", page, re.MULTILINE))
        self.assertEqual({f"-{option}" for option in re.findall(r"-\w{2,}", described)}, options)

        completion = (REPO / "packaging/bash-completion/trabex-convert").read_text(encoding="utf-8")
        wanted = re.search(r'kinds="([^"]*)"', completion).group(1).split()
        self.assertEqual(set(wanted), kinds)
        offered = re.search(r'wanted="([^"]*) \$kinds"', completion).group(1).split()
        self.assertEqual(set(offered), options)


class Asked(Scenario):
    """Trabex with a converted list, and the original, are asked for the same values."""

    def in_list(self, setting, entries, values):
        """The values that Trabex finds in a list of patterns: refused as names in HELO, or as senders."""
        path = self.place.new_folder("list") / "list"
        path.write_text("\n".join(entries) + "\n", encoding="utf-8")
        server = self.sample_server()
        proxy = self.trabex(server.port, {"ValidateHELO": 12, "LogLevelServer": 0, "LogLevelRemote": 0},
                            sections={"ListFiles": {f"Common.{setting}": path}})
        client = self.connect(proxy.address)
        client.read_reply()
        found = set()
        if setting == "SendersBlackList":
            client.command("HELO client.example")
        for value in values:
            reply = client.command(f"HELO {value}" if setting == "HELOBlackList" else f"MAIL FROM:<{value}>")
            self.assertIn(reply[:3], ("250", "550"), value)
            if reply.startswith("550"):
                found.add(value)
            elif setting == "SendersBlackList":
                client.command("RSET")
        return found

    def in_ranges(self, entries, values):
        """The addresses that Trabex finds in a list of ranges: refused as those of clients behind a balancer."""
        path = self.place.new_folder("ranges") / "list"
        path.write_text("\n".join(entries) + "\n", encoding="utf-8")
        server = self.sample_server()
        proxy = self.trabex(server.port, {"ProxyProtocolFrom": LOOPBACK, "LogLevelServer": 0, "LogLevelRemote": 0},
                            sections={"ListFiles": {"Common.IPBlackList": path}})
        found = set()
        for value in values:
            with socket.create_connection((LOOPBACK, proxy.port), timeout=bound(20)) as client:
                family = "TCP6" if ":" in value else "TCP4"
                client.sendall(f"PROXY {family} {value} {value} 1 2\r\n".encode())
                with client.makefile("rb") as replies:
                    reply = replies.readline().decode()
            self.assertIn(reply[:3], ("220", "554"), value)
            if reply.startswith("554"):
                found.add(value)
        return found

    def assertAgree(self, ours, theirs, comments=()):
        """`comments`: expressions that have no equal; what only they match may be missing."""
        self.assertEqual(ours - theirs, set())
        missing = {value for value in theirs - ours
                   if not any(re.search(expression, value, re.IGNORECASE) for expression in comments)}
        self.assertEqual(missing, set())
        self.assertTrue(theirs & ours)


@only_ipv4("the original is asked, not the client")
class Postfix(Asked):
    def map_of(self, kind, text):
        path = self.place.new_folder("map") / "table"
        path.write_text(text, encoding="utf-8")
        (path.parent / "main.cf").write_text("compatibility_level = 3.6\n", encoding="utf-8")
        if kind == "hash":
            subprocess.run(["postmap", "-c", path.parent, f"hash:{path}"], check=True, timeout=bound(60))
        return path

    def query(self, kind, path, keys):
        """Which of the keys the table has."""
        return set(self.answers(kind, path, keys))

    def answers(self, kind, path, keys):
        """What the table has for each of the keys."""
        done = subprocess.run(["postmap", "-c", path.parent, "-q", "-", f"{kind}:{path}"], input="\n".join(keys) + "\n",
                              capture_output=True, text=True, timeout=bound(120), check=False)
        self.assertEqual(done.stderr, "")
        return {key: value for key, _, value in (line.partition("\t") for line in done.stdout.splitlines())}

    def test_names_of_a_hash_table(self):
        path = self.map_of("hash", "# names\nexample.org\tOK\nmail.partner.example OK\nNET\n  OK\n192.0.2 OK\n")
        names = []
        for number in range(VALUES // 8):
            names += [f"example.org{number}", f"h{number}.example.org", f"h{number}example.org",
                      f"a.h{number}.mail.partner.example", f"h{number}.partner.example", f"h{number}.net",
                      f"h{number}.nets", f"net{number}.test"]
        names += ["example.org", "net", "partner.example", "mail.partner.example"]
        # smtpd asks for a name and for each domain that it is in.
        parents = {name: [name.split(".", count)[-1] for count in range(name.count(".") + 1)] for name in names}
        known = self.query("hash", path, sorted({parent for all_of in parents.values() for parent in all_of}))
        theirs = {name for name, all_of in parents.items() if known & set(all_of)}
        entries, comments, said = convert("postfix-hash", path)
        self.assertEqual((comments, "1 lines are for another list" in said), ([], True))
        self.assertAgree(self.in_list("HELOBlackList", entries, names), theirs)

    def test_addresses_of_a_cidr_table(self):
        path = self.map_of("cidr", "192.0.2.0/28 OK\n198.51.100.7 OK\n203.0.113.128/25\tOK\n2001:db8::/33 OK\n")
        values = ([f"192.0.2.{last}" for last in range(256)] + [f"198.51.100.{last}" for last in range(256)] +
                  [f"203.0.113.{last}" for last in range(256)] + [f"2001:db8:{last * 256:x}::1" for last in range(256)])
        entries, comments, _ = convert("postfix-cidr", path)
        self.assertEqual(comments, [])
        self.assertAgree(self.in_ranges(entries, values), self.query("cidr", path, values))

    def test_names_of_a_regexp_table(self):
        path = self.map_of("regexp", "/^(dyn|ppp)[0-9]+\\.example\\.net$/ REJECT dynamic\n/\\.bad\\.example$/ REJECT\n"
                                     "/^[[:digit:]]{1,3}-[0-9]{1,3}\\./ REJECT\n/spam/ 554 no\n/^a.c\\.x$/ REJECT\n"
                                     "/^[a-f]+[0-9]+\\.y$/ REJECT\n")
        names = []
        for number in range(VALUES // 10):
            names += [f"dyn{number}.example.net", f"ppp{number}x.example.net", f"xdyn{number}.example.net",
                      f"{number}.bad.example", f"bad.example{number}", f"{number}-{number * 7}.z.test",
                      f"{number}-x.z.test", f"h{number}spam.test", f"a{number % 10}c.x", f"abc{number}.y"]
        entries, comments, _ = convert("postfix-regexp", path)
        self.assertEqual(len(comments), 1)
        self.assertAgree(self.in_list("HELOBlackList", entries, names), self.query("regexp", path, names),
                         ["^[a-f]+[0-9]+\\.y$"])

    def example(self, page, heading):
        """The table under this heading of a page of Postfix's manual, without its indentation."""
        path = unpacked_package("postfix-doc") / "usr/share/doc/postfix/html" / f"{page}.5.html"
        text = html.unescape(re.sub("<[^>]+>", "", path.read_text(encoding="utf-8")))
        lines = []
        for line in text[text.index(heading) + len(heading):].lstrip("\n").splitlines():
            if line and not line.startswith(" "):
                break
            lines.append(line)
        return textwrap.dedent("\n".join(lines)).strip("\n") + "\n"

    def test_postfixs_own_example_of_a_hash_table(self):
        """1.2.3.4 is let in, and all others of its network are refused."""
        text = (unpacked_package("postfix-doc") / "usr/share/doc/postfix/examples/access").read_text(encoding="utf-8")
        self.assertEqual(re.findall(r"^[^#\n].*", text, re.MULTILINE), [], "all of it is a comment")
        example = re.search(r"^# +/etc/postfix/access:\n((?:# +\S.*\n)+)", text, re.MULTILINE)[1]
        path = self.map_of("hash", re.sub(r"(?m)^# +", "", example))
        entries, comments, _ = convert("--for", "addresses", "--action", "reject", "postfix-hash", path)
        self.assertEqual(len(comments), 1)
        values = [f"1.2.{third}.{last}" for third in (2, 3, 4, 33) for last in range(0, 256)]
        # smtpd asks for the address, and for each network that it is in.
        asked = {value: [".".join(value.split(".")[:count]) for count in (4, 3, 2, 1)] for value in values}
        answers = self.answers("hash", path, sorted({key for keys in asked.values() for key in keys}))
        theirs = {value for value, keys in asked.items()
                  if next((answers[key] for key in keys if key in answers), "") == "REJECT"}
        self.assertEqual(self.in_ranges(entries, values) - theirs, {"1.2.3.4"}, "what became a comment")
        entries, _, _ = convert("--for", "addresses", "--action", "ok", "postfix-hash", path)
        self.assertEqual(entries, ["1.2.3.4"])

    def test_postfixs_own_example_of_a_cidr_table(self):
        table = self.example("cidr_table", "EXAMPLE SMTPD ACCESS MAP").split("client.cidr:\n")[1]
        path = self.map_of("cidr", textwrap.dedent(table))
        values = ([f"192.168.{number // 250}.{number % 250}" for number in range(500)] +
                  [f"192.{number}.1.1" for number in range(250)] + [f"2001:db8::{number:x}" for number in range(250)])
        answers = self.answers("cidr", path, values)
        for action, lines in (("ok", "OK"), ("reject", "REJECT")):
            entries, comments, _ = convert("--action", action, "postfix-cidr", path)
            self.assertEqual(len(comments), 2)
            theirs = {value for value in values if answers.get(value) == lines}
            commented = {comment.split(": ")[-1].split()[0] for comment in comments}
            self.assertEqual(self.in_ranges(entries, values) - commented, theirs)

    def test_postfixs_own_examples_of_expressions(self):
        path = self.map_of("regexp", self.example("regexp_table", "EXAMPLE SMTPD ACCESS MAP"))
        entries, comments, _ = convert("--for", "mail", "postfix-regexp", path)
        self.assertEqual((len(entries), len(comments)), (1, 4), "postmaster, and the condition")
        values = []
        for number in range(VALUES // 5):
            values += [f"u%h{number}.test@x.test", f"u{number}@x.test", f"postmaster@h{number}.test",
                       f"l{number}-outgoing@x.test", f"owner-l{number}-outgoing@x.test"]
        answers = self.answers("regexp", path, values)
        theirs = {value for value in values if answers.get(value, "").startswith("550")}
        ours = self.in_list("SendersBlackList", entries, values)
        self.assertEqual(theirs - ours, {value for value in values if re.match(r"l\d+-outgoing", value)})
        self.assertEqual(ours - theirs, set())
        # Of the kind pcre, which Debian's Postfix asks only with a package more.
        path = self.map_of("pcre", self.example("pcre_table", "EXAMPLE SMTPD ACCESS MAP"))
        entries, comments, _ = convert("--for", "mail", "postfix-pcre", path)
        self.assertEqual(entries, ["noddy@my.domain"])
        self.assertEqual([comment.split(": ")[1] for comment in comments], ["look-around"] * 2)

    def test_senders_of_a_regexp_table(self):
        path = self.map_of("regexp", "/^sales@/ REJECT\n/@.*\\.bad\\.example$/ REJECT\n/\\+news@/ REJECT\n")
        values = []
        for number in range(VALUES // 5):
            values += [f"sales@h{number}.test", f"sales{number}@h.test", f"u@h{number}.bad.example",
                       f"u{number}@bad.example", f"u{number}+news@h.test"]
        entries, comments, _ = convert("--for", "mail", "postfix-regexp", path)
        self.assertEqual(comments, [])
        self.assertAgree(self.in_list("SendersBlackList", entries, values), self.query("regexp", path, values))


@only_ipv4("the original is asked, not the client")
class Postgrey(Asked):
    """The lists of Debian's package, and a postgrey that runs with them."""

    def setUp(self):
        super().setUp()
        self.lists = unpacked_package("postgrey") / "usr" / "share" / "postgrey"
        self.clients = self.lists / "whitelist_clients"
        self.recipients = self.lists / "whitelist_recipients"
        self.number = 0

    def start(self):
        port = free_port()
        # It writes to the disk for each client that it has not seen.
        memory = Path("/dev/shm")
        folder = tempfile.mkdtemp(prefix="trabex-postgrey-", dir=memory if os.access(memory, os.W_OK) else None)
        self.place.on_leaving(shutil.rmtree, folder, True)
        libraries = [f"-I{path}" for path in postgrey_perl_folders()]
        process = Process(self.place, "postgrey", [
            "perl", "-T", *libraries, unpacked_package("postgrey") / "usr" / "sbin" / "postgrey",
            f"--inet=127.0.0.1:{port}", f"--dbdir={folder}", "--user=root", "--group=root",
            f"--whitelist-clients={self.clients}", f"--whitelist-recipients={self.recipients}"])
        self.place.on_leaving(process.end)
        process.wait_listening(port)
        self.policy = socket.create_connection(("127.0.0.1", port), timeout=bound(20))
        self.addCleanup(self.policy.close)
        self.answers = self.policy.makefile("rb")
        self.addCleanup(self.answers.close)

    def is_whitelisted(self, name="unknown", address="192.0.2.9", recipient="r@h.test"):
        self.number += 1
        self.policy.sendall(
            "request=smtpd_access_policy\nprotocol_state=RCPT\nprotocol_name=ESMTP\n"
            f"client_address={address}\nclient_name={name}\nsender=s{self.number}@h.test\nrecipient={recipient}\n"
            f"instance=i{self.number}\n\n".encode())
        answer = self.answers.readline()
        self.answers.readline()
        self.assertRegex(answer, b"^action=(DUNNO|DEFER_IF_PERMIT )")
        return answer.startswith(b"action=DUNNO")

    def lines(self, path):
        return [line.split("#")[0].strip() for line in path.read_text(encoding="utf-8").splitlines()
                if line.split("#")[0].strip()]

    def test_names_of_clients(self):
        entries, comments, _ = convert("postgrey-clients", self.clients)
        # Those of two numbers, or of a number and something else, that are not fixed.
        self.assertLess(len(comments), 6)
        names = []
        for line in self.lines(self.clients):
            if re.fullmatch(r"[a-z0-9.-]*[a-z][a-z0-9.-]*", line):
                names += [line, f"mx.{line}", f"x{line}", f"{line}.test"]
            elif line.startswith("/"):
                plain = re.sub(r"\\([.-])", r"\1", line.strip("/^$"))
                for digits in ("7", "42", ""):
                    name = re.sub(r"\\d[+*]?|\[0-9\][+*]?", digits, plain)
                    name = re.sub(r"\.[*+]", "x", name)
                    name = re.sub(r"\[(.)[^\]]*\]|\(\?:([^|)]*)[^)]*\)|\(([^|)]*)[^)]*\)",
                                  lambda found: found[1] or found[2] or found[3] or "", name)
                    if re.fullmatch(r"[A-Za-z0-9.-]+", name):
                        names += [name, f"mx.{name}"]
        names = list(dict.fromkeys(names))
        names += [f"h{number}.test" for number in range(VALUES - len(names))]
        self.start()
        theirs = {name for name in names if self.is_whitelisted(name=name)}
        without_equal = [re.search(r"/(\S+)/$", comment)[1] for comment in comments]
        self.assertAgree(self.in_list("HELOBlackList", entries, names), theirs, without_equal)

    def test_addresses_of_clients(self):
        entries, comments, _ = convert("--for", "addresses", "postgrey-clients", self.clients)
        self.assertEqual(comments, [])
        values = []
        for one in entries:
            first = one.split("/")[0]
            if ":" in first:
                continue
            parts = [int(part) for part in first.split(".")]
            for step in (-1, 0, 1, 5):
                values.append(".".join(map(str, parts[:3] + [(parts[3] + step) % 256])))
            values.append(".".join(map(str, parts[:2] + [(parts[2] + 1) % 256, parts[3]])))
        values = list(dict.fromkeys(values))
        values += [f"198.51.{number // 250}.{number % 250 + 1}" for number in range(VALUES - len(values))]
        self.start()
        theirs = {value for value in values if self.is_whitelisted(address=value)}
        self.assertAgree(self.in_ranges(entries, values), theirs)

    def test_recipients(self):
        self.recipients = self.place.new_folder("recipients") / "list"
        own = (self.lists / "whitelist_recipients").read_text(encoding="utf-8")
        self.recipients.write_text(own + "boss@example.org\nopen.example\n/^news-.*@lists\\./\n", encoding="utf-8")
        entries, comments, _ = convert("postgrey-recipients", self.recipients)
        self.assertEqual(comments, [])
        values = []
        for number in range(VALUES // 10):
            values += [f"postmaster@h{number}.test", f"postmaster+{number}@h.test", f"postmaster{number}@h.test",
                       f"boss+{number}@example.org", f"boss@h{number}.example.org", f"u{number}@open.example",
                       f"u@h{number}.open.example", f"u@h{number}open.example", f"news-{number}@lists.test",
                       f"news{number}@lists.test"]
        self.start()
        theirs = {value for value in values if self.is_whitelisted(recipient=value)}
        self.assertAgree(self.in_list("SendersBlackList", entries, values), theirs)


if __name__ == "__main__":
    main()
