#!/usr/bin/env python3
"""Storms of TLS clients: handshakes that stay half-way, handshakes without end, key updates without end. Beside each a plain
session is answered as ever, and what the storm has cost is given back."""

import contextlib
import os
import select
import socket
import ssl
import subprocess
import threading
import time
from pathlib import Path

from trabex_system import (LOOPBACK, Authority, Options, Scenario, SmtpSink, bound, connect, connections_to, free_port, main,
                           program, trusting, wait_until)

# A reply may take so long.
REPLY_SECONDS = 0.050
LEAST_REPLIES = 20
HALF_OPEN = 2000
MOST_HANDSHAKES = 1000
RATE = 500
SECONDS = 1
MB = 1 << 20


def percentile(times, part):
    return sorted(times)[min(len(times) - 1, int(len(times) * part))]


def prefer(process_id=0):
    """Lets a process (0: this thread) go before whatever else the machine does, so that a delay is the program's own. Only
    root may."""
    with contextlib.suppress(PermissionError):
        os.setpriority(os.PRIO_PROCESS, process_id, -15)


def waited(tasks):
    """How many seconds these tasks, folders in /proc, have waited for a processor."""
    return sum(int((task / "schedstat").read_text().split()[1]) for task in tasks) / 1e9


class Relaying(threading.Thread):
    """A plain session through Trabex. `times` are those of its replies, `own` the same without what Trabex, the server and
    the client have waited for a processor meanwhile, since others want it too."""

    def __init__(self, proxy, server):
        super().__init__(daemon=True)
        self._session = connect(proxy.address)
        self._session.read_reply()
        self._session.command("EHLO client.example")
        self._tasks = [Path(f"/proc/{process.pid}") for process in (proxy.process, server.process)]
        self.times, self.own = [], []
        self.replies = set()
        self._stopped = threading.Event()

    def run(self):
        prefer()
        tasks = [*self._tasks, Path(f"/proc/self/task/{threading.get_native_id()}")]
        while not self._stopped.wait(0.002):
            waited_before = waited(tasks)
            begun = time.monotonic()
            self.replies.add(self._session.command("RSET")[:3])
            took = time.monotonic() - begun
            self.times.append(took)
            self.own.append(max(0, took - (waited(tasks) - waited_before)))

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, kind, *_):
        # A machine that is busy with the storm lets few replies through meanwhile.
        if kind is None:
            wait_until(lambda: len(self.times) > LEAST_REPLIES or not self.is_alive(), "replies")
        self._stopped.set()
        self.join()
        self._session.close()


class Storm(Scenario):
    def setUp(self):
        super().setUp()
        if Options.through != "trabex":
            self.skipTest("needs Trabex itself")
        certificate = Authority(self.place).issue([LOOPBACK])
        self.server = SmtpSink(self.place)
        self.tls_port = free_port()
        self.proxy = self.trabex(self.server.port, {"BindPortTLS": self.tls_port, "LogLevelRemote": 1, "LogLevelServer": 1},
                                 sections={"TLS": {"Certificate": f"{certificate.chain} {certificate.key}",
                                                   "MaxHandshakes": MOST_HANDSHAKES}})
        for process in (self.server.process, self.proxy.process):
            prefer(process.pid)
        # The first handshake brings what stays, in the library and in the log.
        self.greet()
        with Relaying(self.proxy, self.server) as calm:
            wait_until(lambda: len(calm.times) > 500, "replies")
        self.calm = calm
        self.before = self.proxy.process.resident_bytes()

    def greet(self):
        """A client comes to the TLS port, is greeted, and goes."""
        client = self.connect((LOOPBACK, self.tls_port))
        client.start_tls(trusting(None))
        self.assertEqual(client.read_reply()[:3], "220")
        client.close()

    def check_relaying(self, storm, relaying):
        self.assertEqual(relaying.replies, {"250"})
        self.assertGreater(len(relaying.times), LEAST_REPLIES)
        figures = "; ".join(f"{name} {1000 * percentile(times, 0.5):.1f} / {1000 * percentile(times, 0.99):.1f} / "
                            f"{1000 * max(times):.1f}"
                            for name, times in (("in all", relaying.times), ("without waits for a processor", relaying.own),
                                                ("in all, without a storm", self.calm.times)))
        print(f"{storm}: {len(relaying.times)} replies in ms, median / 99 % / slowest: {figures}")
        self.assertLess(percentile(relaying.own, 0.99), bound(REPLY_SECONDS))

    def check_memory(self, storm, peak):
        """Of what the storm took no more than a quarter stays, or a few MB that the next one uses again."""
        most = self.before + max((peak - self.before) // 4, 8 * MB)
        wait_until(lambda: connections_to(self.tls_port) == 0, "the ends of the connections")
        with contextlib.suppress(AssertionError):
            wait_until(lambda: self.proxy.process.resident_bytes() <= most, "the memory's return", 2)
        now = self.proxy.process.resident_bytes()
        print(f"{storm}: memory in MB, before / at its peak / afterwards: "
              f"{' / '.join(f'{size / MB:.1f}' for size in (self.before, peak, now))}")
        self.assertLessEqual(now, most)

    def storm(self, *arguments):
        """Runs the storm's own program: (handshakes, key updates, clients cut off, seconds), and what relayed meanwhile."""
        with Relaying(self.proxy, self.server) as relaying:
            done = subprocess.run([str(program("tests/tls_storm")), arguments[0], LOOPBACK, str(self.tls_port),
                                   *map(str, arguments[1:])],
                                  stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=bound(60), check=False,
                                  preexec_fn=prefer)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        *counts, milliseconds = map(int, done.stdout.split())
        return (*counts, milliseconds / 1000), relaying

    def logged(self, text):
        return sum(text in line for line in self.proxy.log_lines())

    def test_half_open_handshakes(self):
        """Half of them say half of a hello, the others nothing. The oldest give way, so that the door stays open."""
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        hello = trusting(None).wrap_bio(incoming, outgoing)
        with self.assertRaises(ssl.SSLWantReadError):
            hello.do_handshake()
        half = outgoing.read()[:100]
        clients = []
        with Relaying(self.proxy, self.server) as relaying:
            for number in range(HALF_OPEN):
                client = socket.create_connection((LOOPBACK, self.tls_port), timeout=bound(30))
                self.addCleanup(client.close)
                clients.append(client)
                if number % 2:
                    client.sendall(half)
            self.greet()
            ended = HALF_OPEN + 1 - MOST_HANDSHAKES
            wait_until(lambda: self.logged("Too many TLS handshakes. Closing connection.") >= ended - 1,
                       "the ends of the oldest")
            # The others stand.
            wait_until(lambda: len(relaying.times) > 200, "replies")
            peak = self.proxy.process.resident_bytes()
        self.check_relaying("half-open handshakes", relaying)
        # The oldest, and no other.
        self.assertLessEqual(self.logged("Too many TLS handshakes. Closing connection."), ended)
        self.assertEqual(clients[0].recv(1), b"")
        self.assertEqual(clients[HALF_OPEN - MOST_HANDSHAKES - 1].recv(1), b"")
        still_open = clients[HALF_OPEN - MOST_HANDSHAKES + 1:]
        poll = select.poll()
        for client in still_open:
            poll.register(client, select.POLLIN)
        self.assertEqual(poll.poll(0), [])
        for client in clients:
            client.close()
        self.check_memory("half-open handshakes", peak)

    def test_handshakes_without_end(self):
        (handshakes, _, cut_off, seconds), relaying = self.storm("handshakes", RATE, SECONDS)
        print(f"handshakes without end: {handshakes / seconds:.0f} a second")
        self.check_relaying("handshakes without end", relaying)
        self.assertEqual((handshakes, cut_off), (RATE * SECONDS, 0))
        self.check_memory("handshakes without end", self.proxy.process.peak_bytes())
        # Nothing grows with the number of past clients: what each of them leaves would be more than that.
        first = self.proxy.process.resident_bytes()
        self.storm("handshakes", RATE, SECONDS)
        wait_until(lambda: connections_to(self.tls_port) == 0, "the ends of the connections")
        self.assertLess(self.proxy.process.resident_bytes(), first + 4 * MB)

    def test_key_updates_that_are_allowed(self):
        (handshakes, updates, cut_off, seconds), relaying = self.storm("key-updates", 100, 25, 3 * SECONDS)
        print(f"key updates that are allowed: {updates / seconds:.0f} a second")
        self.check_relaying("key updates that are allowed", relaying)
        self.assertEqual(cut_off, 0)
        self.assertGreater(updates, handshakes)
        self.check_memory("key updates that are allowed", self.proxy.process.peak_bytes())

    def test_key_updates_without_end(self):
        """Who makes more of them than any client needs is cut off."""
        (handshakes, updates, cut_off, seconds), relaying = self.storm("key-updates", 20, 20000, 3 * SECONDS)
        print(f"key updates without end: {updates / seconds:.0f} a second, {cut_off} clients of {handshakes} cut off")
        self.check_relaying("key updates without end", relaying)
        self.assertGreater(cut_off, 20)
        wait_until(lambda: self.logged("Error 40030. TLS failed: ") >= cut_off, "the log")
        self.check_memory("key updates without end", self.proxy.process.peak_bytes())


if __name__ == "__main__":
    main()
