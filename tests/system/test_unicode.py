#!/usr/bin/env python3
"""A Postfix with its default settings is the server, to which many spellings beyond ASCII are one mailbox.

Every character that Unicode folds to ASCII is played at each place of a name: no such address reaches the Postfix where
the list of the case refuses the name. Without Trabex several do, and are delivered.
"""

import contextlib
import os
import subprocess
import unicodedata

from trabex_system import DOMAIN, Scenario, Smtp, bound, endpoint, in_family, main, wait_until, without_received

LOCAL = in_family("127.0.0.9")  # nobody here; so the clients are remote ones
OPTIONS = ["SMTPUTF8", "BODY=8BITMIME"]
# What Postfix does not mind when it is said often.
PATIENT = {"smtpd_error_sleep_time": "0", "smtpd_soft_error_limit": "100000", "smtpd_hard_error_limit": "100000",
           "smtpd_junk_command_limit": "100000", "smtpd_recipient_limit": "100000"}
# That the server folds these is what makes the test one.
LEAST_FOLDED = {"\u017f", "\u212a", "\u00df", "\u1e9e", "\ufb00", "\ufb06"}


def folded(character):
    """NFKC case folding; characters that it drops do not matter here."""
    text = unicodedata.normalize("NFD", character)
    for _ in range(2):
        text = unicodedata.normalize("NFKC", text.casefold())
    return text


def look_alikes():
    """Each character that is ASCII when folded, or part of it, with what it folds to."""
    every = map(chr, (*range(0x80, 0xD800), *range(0xE000, 0x110000)))
    candidates = ((character, folded(character)) for character in every
                  if not unicodedata.is_normalized("NFKC", character) or character.casefold() != character)
    return [(character, text) for character, text in candidates if any(letter < "\x80" for letter in text)]


def spellings():
    """(character, name with it, name as it folds) for each place in a name, of those that fold to letters and digits."""
    return [(character, before + character + behind, before + text + behind) for character, text in look_alikes()
            if text.isascii() and text.isalnum() for before, behind in (("", "yz"), ("y", "z"), ("yz", ""))]


def lines_of(entries):
    """The entries of a list, many in a line."""
    entries = sorted(set(entries))
    return [",".join(entries[at:at + 50]) for at in range(0, len(entries), 50)]


class BehindIsPostfix(Scenario):
    def start(self, settings, listed, postfix):
        """Starts a Postfix with a table of what is listed, as `postfix` uses it, and Trabex with these settings."""
        table = self.place.new_folder("table") / "listed"
        table.write_text("".join(f"{key} {value}\n" for key, value in sorted(listed.items())), encoding="utf-8")
        table.chmod(0o644)
        table.parent.chmod(0o755)
        self.server = self.postfix({**PATIENT, **{key: value.format(table=table) for key, value in postfix.items()}})
        self.proxy = self.trabex(self.server.port, {"LocalIPs": LOCAL, "LocalDomains": DOMAIN, **settings})

    def replies(self, address, lines):
        """Opens a session that is greeted, sends all lines at once and returns the replies to them."""
        with contextlib.closing(self.connect(address)) as client:
            self.assertEqual(client.read_reply()[:3], "220")
            greeting = client.command("EHLO client.example")
            self.assertIn("SMTPUTF8", greeting)
            got = []
            # As much as the buffers of a connection take at any time.
            for first in range(0, len(lines), 500):
                some = lines[first:first + 500]
                client.send(b"".join(line.encode("utf-8") + b"\r\n" for line in some))
                got += [client.read_reply() for _ in some]
            return got

    def mail_to(self, recipients):
        """The lines of a transaction with these recipients and a little content."""
        return [f"MAIL FROM:<s@{DOMAIN}> {' '.join(OPTIONS)}", *(f"RCPT TO:<{name}>" for name in recipients), "DATA",
                "Subject: x\r\n\r\n."]

    def test_private_recipients(self):
        names = spellings()
        self.start({"PrivateRecipients": lines_of(f"{name}@{DOMAIN}" for _, _, name in names)},
                   {f"{name}@{DOMAIN}": "secret/" for _, _, name in names},
                   {"virtual_mailbox_maps": f"texthash:{{table}}, inline:{{{{{{{{good@{DOMAIN}=mail/}}}}, {{{{settled@{DOMAIN}=mail/}}}}}}}}"})
        secret = self.server.maildir.parent / "secret"
        recipients = [f"{written}@{DOMAIN}" for _, written, _ in names]

        _, *got, _, taken = self.replies(self.proxy.address, self.mail_to([*recipients, f"good@{DOMAIN}"]))
        for recipient, reply in zip(recipients, got):
            self.assertRegex(reply, "^550 5.2.1 ", recipient)
        self.assertEqual((got[-1][:3], taken[:3]), ("250", "250"))
        self.server.settle()
        # One more is the message by which the server tells that it has settled.
        self.assertEqual((self.server.count(), secret.exists()), (2, False))
        # The server was not asked either.
        self.assertNotIn("yz@", self.server.log())

        # Without Trabex: which of them does the server take for the mailbox?
        _, *got, _, _ = self.replies(self.server.address, self.mail_to(recipients))
        taken = [(character, name) for (character, _, name), reply in zip(names, got) if reply.startswith("250")]
        self.assertLessEqual(LEAST_FOLDED, {character for character, _ in taken})
        # A mailbox gets the message once, however often it is named.
        mailboxes = {name for _, name in taken}
        wait_until(lambda: len(list(secret.glob("new/*"))) == len(mailboxes), f"mail for {mailboxes}")

    def test_accent_behind_an_iota(self):
        """In canonical order the accent is the alpha's, but the server takes it for the iota's."""
        mailbox, other = f"\u03b1\u03b9\u0301@{DOMAIN}", f"\u1fb3\u0301@{DOMAIN}"
        self.start({"PrivateRecipients": mailbox}, {mailbox: "secret/"}, {"virtual_mailbox_maps": "texthash:{table}"})
        lines = [f"MAIL FROM:<s@{DOMAIN}> SMTPUTF8", f"RCPT TO:<{mailbox}>", f"RCPT TO:<{other}>"]
        _, listed, spelled = self.replies(self.proxy.address, lines)
        self.assertRegex(listed, "^550 5.2.1 ")
        self.assertEqual(spelled, "501 5.5.4 Invalid syntax of address in RCPT command.")
        self.assertEqual([reply[:3] for reply in self.replies(self.server.address, lines)], ["250", "250", "250"])
        self.assertEqual(self.replies(self.server.address, [lines[0], f"RCPT TO:<\u03b1\u0301\u03b9@{DOMAIN}>"])[1][:3],
                         "550")

    def test_senders_black_list(self):
        names = spellings()
        self.start({"SendersBlackList": lines_of([*(f"*@{name}.test" for _, _, name in names),
                                                  *(f"{name}@far.test" for _, _, name in names)])},
                   {**{f"{name}.test": "REJECT" for _, _, name in names},
                    **{f"{name}@far.test": "REJECT" for _, _, name in names}},
                   {"smtpd_sender_restrictions": "check_sender_access texthash:{table}", "smtpd_delay_reject": "no"})
        senders = [(character, address) for character, written, _ in names
                   for address in (f"{written}@far.test", f"s@{written}.test")]
        lines = [f"MAIL FROM:<{address}> SMTPUTF8" for _, address in senders]
        for line, reply in zip(lines, self.replies(self.proxy.address, lines)):
            self.assertRegex(reply, "^550 5.7.1 ", line)
        # Without Trabex the server would have to know them itself: these it takes for the black-listed ones.
        alternating = [text for line in lines for text in (line, "RSET")]
        got = self.replies(self.server.address, alternating)[::2]
        known = {character for (character, _), reply in zip(senders, got) if reply.startswith("554")}
        self.assertLessEqual(LEAST_FOLDED, known)

    def test_other_structures(self):
        """What folds to an "@", a dot, a blank and the like is in no address that reaches the server."""
        names = [(character, text) for character, text in look_alikes()
                 if any(letter in '()<>[]:;,\\"@%!. ' for letter in text)]
        self.start({}, {}, {})
        recipients = [recipient for character, _ in names for recipient in (
            f"u{character}x@{DOMAIN}", f"u{character}elsewhere.test@{DOMAIN}", f"{character}u@{DOMAIN}",
            f"u@{DOMAIN}{character}", f"u@{character}{DOMAIN}", f"u@test{character}example",
            f"u@elsewhere.test{character}@{DOMAIN}", f"u{character}{DOMAIN}", f'"u{character} x"@{DOMAIN}')]
        _, *got, _, taken = self.replies(self.proxy.address, self.mail_to([*recipients, f"good@{DOMAIN}"]))
        for recipient, reply in zip(recipients, got):
            self.assertRegex(reply, "^550 5.7.1 Relaying|^501 5.5.4 ", recipient)
        self.assertEqual(taken[:3], "250")
        self.server.settle()
        self.assertEqual({recipient for recipient, _ in self.server.wait_for_messages(2)},
                         {f"good@{DOMAIN}", f"settled@{DOMAIN}"})

    def test_without_the_extension(self):
        """The server itself takes such addresses without SMTPUTF8, too."""
        self.start({}, {}, {})
        with contextlib.closing(self.connect(self.proxy.address)) as client:
            client.read_reply()
            client.command("EHLO client.example")
            for extension in ("", " BODY=8BITMIME", " SMTPUTF8=1"):
                self.assertEqual(client.command(f"MAIL FROM:<jürgen@bücher.test>{extension}"),
                                 "501 5.5.4 Invalid syntax of address in MAIL command.")
            self.assertEqual(client.command("MAIL FROM:<s@far.test>")[:3], "250")
            self.assertEqual(client.command(f"RCPT TO:<\u017fales@{DOMAIN}>"),
                             "501 5.5.4 Invalid syntax of address in RCPT command.")
            self.assertEqual(client.command("RSET")[:3], "250")
            # After HELO the server offers nothing.
            self.assertEqual(client.command("HELO client.example")[:3], "250")
            self.assertEqual(client.command("MAIL FROM:<jürgen@bücher.test> SMTPUTF8"),
                             "501 5.5.4 Invalid syntax of address in MAIL command.")
        with contextlib.closing(self.connect(self.server.address)) as client:
            client.read_reply()
            client.command("EHLO client.example")
            self.assertEqual(client.command("MAIL FROM:<jürgen@far.test>")[:3], "250")
            self.assertEqual(client.command(f"RCPT TO:<\u017fales@{DOMAIN}>")[:3], "250")

    def test_honest_mail_arrives(self):
        """From Python's client and from curl; as it was written, with nothing folded."""
        self.start({"SendersBlackList": "*@black.test", "PrivateRecipients": f"sales@{DOMAIN}"}, {}, {})
        content = "Subject: Grüße\r\n\r\nGrüße\r\n".encode("utf-8")
        recipients = [f"GRÜẞE@{DOMAIN}", f"用户@{DOMAIN.upper()}"]
        with Smtp(self.proxy.address) as client:
            client.ehlo()
            client.sendmail("Jürgen@BÜCHER.test", recipients[0], content, OPTIONS)
        file = self.place.new_folder("message") / "message"
        file.write_bytes(content)
        done = subprocess.run(
            ["curl", "--silent", "--show-error", "--mail-from", f"Jürgen@{DOMAIN}", "--mail-rcpt", recipients[1],
             "--upload-file", file, f"smtp://{endpoint(self.proxy.port)}/client.example"],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=bound(60), check=False,
            env={**os.environ, "LC_ALL": "C.UTF-8"})
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
        for recipient, arrived in self.server.wait_for_messages(2):
            self.assertIn(recipient, recipients)
            recipients.remove(recipient)
            self.assertSame(content.replace(b"\r\n", b"\n"), without_received(arrived), recipient)
        self.assertIn("from=<Jürgen@BÜCHER.test>", self.server.log())


if __name__ == "__main__":
    main()
