#!/usr/bin/env python3
"""Greylisting under a flood of ever new addresses: the memory and the file stay small, and others are not harmed."""

from trabex_system import DOMAIN, IPV6, Scenario, in_family, keeps_freed_memory, main

WARNING = "Greylisting: Too many pending records. Dropped: "
DELAYED = "451 4.7.1 Greylisted. Delivery delayed."
FLOOD = in_family("127.0.0.66")
NEIGHBOUR = in_family("127.0.0.5")
OTHER = in_family("127.0.7.1")
# As the log names the network of the first two.
NETWORK = "fd7f::/64" if IPV6 else "127.0.0"


def key_of_network(number):
    """What the keys of the records of 127.1.<number>.1 begin with."""
    return in_family(f"127.1.{number}.0/24 ").encode() if IPV6 else b"127.1.%d " % number


class Flood(Scenario):
    def setUp(self):
        super().setUp()
        self.server = self.sample_server()
        self.database = self.place.folder / "grey.gldb"

    def start(self, **bounds):
        grey = {"Enabled": 1, "Delay": 0, "BlackListDelay": 0, "BlackListMinCount": 1, "Database": self.database}
        return self.trabex(self.server.port, {"LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN, "LogLevelRemote": 0},
                           sections={"GreyListing": {**grey, **bounds}})

    def client(self, proxy, source, sender="s@elsewhere.invalid"):
        client = self.connect(proxy.address, source=source)
        client.read_reply()
        for line in ("EHLO client.example", f"MAIL FROM:<{sender}>"):
            self.assertEqual(client.command(line)[:3], "250")
        return client

    def attempt(self, proxy, source, recipient):
        """The code of the reply to the recipient."""
        client = self.client(proxy, source)
        code = client.command(f"RCPT TO:<{recipient}@{DOMAIN}>")[:3]
        client.close()
        return code

    def flood(self, proxy, source, first, last):
        client = self.client(proxy, source)
        for begin in range(first, last, 200):
            numbers = range(begin, min(begin + 200, last))
            client.send(b"".join(b"RCPT TO:<%d%s@%s>\r\n" % (number, b"x" * 40, DOMAIN.encode()) for number in numbers))
            for number in numbers:
                self.assertEqual(client.read_reply(), DELAYED, number)
        client.close()

    def records(self):
        """How many records the file holds, and its content."""
        content = self.database.read_bytes()
        self.assertEqual(content[8:11], b"\x01Ci")
        return int.from_bytes(content[11:15], "little"), content

    def warnings(self, proxy):
        return [line for line in proxy.log_lines() if "pending" in line]

    def test_of_one_network(self):
        proxy = self.start(MaxPendingPerNetwork=100)
        for source, recipient in ((NEIGHBOUR, "accepted"), (OTHER, "elsewhere")):
            self.assertEqual(self.attempt(proxy, source, recipient), "451")
        self.assertEqual(self.attempt(proxy, NEIGHBOUR, "accepted"), "250")
        self.flood(proxy, FLOOD, 0, 200)
        before = proxy.process.resident_bytes()
        self.flood(proxy, FLOOD, 200, 20_000)
        if not keeps_freed_memory():
            # Some 4 MB otherwise.
            self.assertLess(proxy.process.resident_bytes() - before, 1 << 20)
        self.assertEqual(self.warnings(proxy), [f"{WARNING}1; Network: {NETWORK}."])
        self.assertEqual(proxy.end(), 0)
        count, content = self.records()
        self.assertEqual(count, 102)
        self.assertLess(len(content), 20_000)
        # What was accepted is so still, and another network's attempt counts.
        proxy.start()
        self.assertEqual(self.attempt(proxy, NEIGHBOUR, "accepted"), "250")
        self.assertEqual(self.attempt(proxy, OTHER, "elsewhere"), "250")

    def test_of_many_networks(self):
        proxy = self.start(MaxPending=100)
        for number in range(10):
            self.flood(proxy, in_family(f"127.1.{number}.1"), 0, 20)
        self.assertEqual(self.warnings(proxy), [f"{WARNING}1."])
        self.assertEqual(proxy.end(), 0)
        count, content = self.records()
        self.assertEqual(count, 100)
        self.assertNotIn(key_of_network(4), content)
        self.assertEqual(content.count(key_of_network(5)), 20)

    def test_a_file_of_a_flood_before(self):
        """A start with lower bounds keeps the youngest."""
        proxy = self.start()
        self.flood(proxy, FLOOD, 0, 1000)
        self.assertEqual(self.warnings(proxy), [])
        self.assertEqual(proxy.end(), 0)
        self.assertEqual(self.records()[0], 1000)
        proxy = self.start(MaxPendingPerNetwork=100)
        proxy.wait_for_log(f"{WARNING}900.")
        self.flood(proxy, FLOOD, 1000, 1001)
        self.assertEqual(proxy.end(), 0)
        count, content = self.records()
        self.assertEqual(count, 100)
        self.assertNotIn(b" 900x", content)
        self.assertIn(b" 901x", content)


if __name__ == "__main__":
    main()
