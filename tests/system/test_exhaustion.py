#!/usr/bin/env python3
"""No descriptor is left: who comes waits, the sessions that are there go on, and so does the service afterwards."""

import os
import resource

from trabex_system import Scenario, connections_to, main, wait_until


class Exhaustion(Scenario):
    def setUp(self):
        super().setUp()
        self.proxy = self.trabex(self.scripted_server().port, {"ValidateRDNS": 0})
        self.session = self.greeted()

    def greeted(self):
        client = self.connect(self.proxy.address)
        self.assertEqual(client.read_reply()[:3], "220")
        self.assertEqual(client.command("EHLO client.example")[:3], "250")
        return client

    def limit(self, what, soft):
        hard = resource.prlimit(self.proxy.process.pid, what)[1]
        resource.prlimit(self.proxy.process.pid, what, (soft, hard))

    def assertGoesOn(self):
        self.assertIsNone(self.proxy.process.status(), "it runs")
        self.assertEqual(self.session.command("NOOP"), "250 ok")

    def test_no_descriptor(self):
        held = len(os.listdir(f"/proc/{self.proxy.process.pid}/fd"))
        self.limit(resource.RLIMIT_NOFILE, held + 21)
        clients = [self.connect(self.proxy.address) for _ in range(40)]
        self.proxy.wait_for_log("Accepting pauses until a session ends.")
        served = [client for client in clients[:8] if client.read_reply()[:3] == "220"]
        self.assertEqual(len(served), 8)
        self.assertGoesOn()
        # Each that leaves makes room for one that waits.
        for client in clients:
            client.close()
        wait_until(lambda: connections_to(self.proxy.port) == 1, "the other sessions to end")
        self.greeted().close()
        self.assertGoesOn()
        self.limit(resource.RLIMIT_NOFILE, held + 1000)
        for client in [self.greeted() for _ in range(40)]:
            self.assertEqual(client.command("NOOP"), "250 ok")


if __name__ == "__main__":
    main()
