#!/usr/bin/env python3
"""What the program reads unasked, from a disk that does not answer: certificates every minute, and its settings when they
have changed. It takes three minutes."""

from test_hanging_disk import OnHangingDisk
from trabex_system import Authority, connect, main, trusting


class Unasked(OnHangingDisk):
    def certificate_in_use(self, proxy):
        client = connect(proxy.address)
        client.read_reply()
        client.command("EHLO client.example")
        client.command("STARTTLS")
        client.start_tls(trusting(None))
        shown = client.socket.getpeercert(binary_form=True)
        client.close()
        return shown

    def test_renewal_and_automatic_reload(self):
        new = Authority(self.place, "other").issue(["localhost"])
        proxy = self.start(start=False)
        chain, ini = self.disk.folder / "chain.pem", self.disk.folder / "Trabex.ini"
        self.disk.put("chain.pem", self.certificate.both.read_bytes())
        proxy.ini = ini
        proxy.sections["TLS"] = {"Certificate": chain}
        proxy.write_ini(AutoReload=1)
        proxy.start()
        self.place.on_leaving(self.disk.answer)
        self.sessions(proxy)
        old = self.certificate_in_use(proxy)
        proxy.write_ini(LogLevelServer=2)
        self.disk.put("chain.pem", new.both.read_bytes())
        self.disk.hang()
        self.disk.wait_until_somebody_waits()
        self.sessions(proxy)
        # The settings' at once, the certificates' within a minute.
        proxy.wait_for_log(f"The disk at \"{self.disk.folder}\" does not answer.", times=2, seconds=100)
        self.sessions(proxy)
        self.assertEqual(self.certificate_in_use(proxy), old)
        self.disk.answer()
        proxy.wait_for_log(f"The disk at \"{self.disk.folder}\" answers again.", times=2)
        proxy.wait_for_log("Configuration reloaded because date/time of initialization file changed.", seconds=90)
        proxy.wait_for_log("Certificates reloaded.", seconds=150)
        self.assertNotEqual(self.certificate_in_use(proxy), old)
        self.sessions(proxy)
        self.nothing_was_lost()


if __name__ == "__main__":
    main()
