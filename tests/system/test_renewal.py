#!/usr/bin/env python3
"""Certificates are renewed under traffic: no mail is lost, and no session.

Trabex looks at the files every minute, and takes what is the same at two looks; so this scenario takes two minutes.
"""

import smtplib
import threading

from messages import text_message
from trabex_system import DOMAIN, LOOPBACK, Authority, Scenario, bound, main, replace_file, trusting, wait_until

SENDER = f"sender@{DOMAIN}"
RECIPIENT = f"r@{DOMAIN}"


class Traffic:
    """A client that sends one message after the other, each over a new connection with STARTTLS."""

    def __init__(self, address, authority):
        self._address = address
        self._context = trusting(authority.file)
        self._context.check_hostname = False
        self._ending = threading.Event()
        self.accepted = 0
        self.failure = None
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._ending.is_set():
            try:
                self.send()
            except (OSError, smtplib.SMTPException) as error:
                self.failure = error
                return
            # A pause, so that a thousand messages do not hide the few that matter.
            self._ending.wait(0.2)

    def send(self):
        with smtplib.SMTP(*self._address, local_hostname="client.example", timeout=bound(30)) as client:
            client.starttls(context=self._context)
            client.sendmail(SENDER, [RECIPIENT], text_message(1))
        self.accepted += 1

    def end(self):
        self._ending.set()
        self._thread.join(bound(60))


class Renewal(Scenario):
    def serial(self, proxy):
        context = trusting(self.authority.file)
        context.check_hostname = False
        with smtplib.SMTP(*proxy.address, local_hostname="client.example", timeout=bound(30)) as client:
            client.starttls(context=context)
            return client.sock.getpeercert()["serialNumber"]

    def test_under_traffic(self):
        self.authority = Authority(self.place)
        self.server = self.sample_server()
        old, new = (self.authority.issue(["localhost", LOOPBACK]) for _ in range(2))
        proxies, files, traffics, sessions = {}, {}, {}, {}
        for way in ("rewritten", "renamed over", "linked anew", "half renewed", "broken"):
            folder = self.place.new_folder("certificate")
            chain, key = folder / "chain.pem", folder / "key.pem"
            if way == "linked anew":
                chain.symlink_to(old.chain)
                key.symlink_to(old.key)
            else:
                chain.write_bytes(old.chain.read_bytes())
                key.write_bytes(old.key.read_bytes())
            files[way] = chain, key
            proxy = proxies[way] = self.trabex(self.server.port, sections={"TLS": {"Certificate": f"{chain} {key}"}})
            self.assertEqual(self.serial(proxy), old.serial(), way)
            traffics[way] = Traffic(proxy.address, self.authority)
            self.addCleanup(traffics[way].end)
            client = self.connect(proxy.address)
            client.read_line()
            client.command("EHLO c.example")
            client.command("STARTTLS")
            context = trusting(self.authority.file)
            context.check_hostname = False
            client.start_tls(context)
            sessions[way] = client

        chain, key = files["rewritten"]
        chain.write_bytes(new.chain.read_bytes())
        key.write_bytes(new.key.read_bytes())
        chain, key = files["renamed over"]
        replace_file(chain, new.chain.read_bytes())
        replace_file(key, new.key.read_bytes())
        for link, target in zip(files["linked anew"], (new.chain, new.key)):
            link.unlink()
            link.symlink_to(target)
        replace_file(files["half renewed"][0], new.chain.read_bytes())
        replace_file(files["broken"][1], b"no key at all\n")

        for way in ("rewritten", "renamed over", "linked anew"):
            wait_until(lambda: self.serial(proxies[way]) == new.serial(), f"the certificate that was {way}", 150)
            self.assertIn("Certificates reloaded.", proxies[way].log())
        for way in ("half renewed", "broken"):
            proxies[way].wait_for_log(" The one in force stays.", seconds=150)
            self.assertEqual(self.serial(proxies[way]), old.serial(), way)
        for traffic in traffics.values():
            traffic.end()
            self.assertIsNone(traffic.failure)
        for way, client in sessions.items():
            self.assertEqual(client.command("EHLO c.example")[:3], "250", way)
        sent = sum(traffic.accepted for traffic in traffics.values())
        self.assertGreater(sent, 100)
        self.server.wait_for_count(sent)
        self.assertEqual(self.server.count(), sent)


if __name__ == "__main__":
    main()
