#!/usr/bin/env python3
"""What many sessions and many messages leave as it was: 9,000 sessions of which 100 are busy, and a series of messages after
which the memory is what it was after the first tenth.

./test --full runs it; tests/load/message_series.py has the series as long as one likes, bench/load/many_sessions the times.
"""

import subprocess

from many_sessions import burst, have_descriptors, open_sessions
from trabex_system import (DOMAIN, LOOPBACK, Authority, Scenario, SmtpSink, bound, connections_to, endpoint, free_port,
                           keeps_freed_memory, main, run_trabex, wait_until)

MB = 1 << 20


class ManySessions(Scenario):
    SESSIONS, BUSY, ROUNDS = 9000, 100, 5

    def test_busy_among_idle(self):
        """All replies of the busy ones come, and behind that the idle ones are served as ever."""
        have_descriptors(2 * self.SESSIONS + 200)
        certificate = Authority(self.place).issue([LOOPBACK])
        tls_port = free_port()
        server = SmtpSink(self.place, connections=self.SESSIONS + 100, patience=3600)
        proxy = self.trabex(server.port, {"BindPortTLS": tls_port},
                            sections={"TLS": {"Certificate": f"{certificate.chain} {certificate.key}"}})
        clients = open_sessions(proxy, self.SESSIONS, tls_port)
        for client in clients:
            self.addCleanup(client.close)
        busy, idle = clients[::self.SESSIONS // self.BUSY], set(clients)
        self.assertEqual(len(busy), self.BUSY)
        idle.difference_update(busy)
        for _ in range(self.ROUNDS):
            for line, code in (("EHLO client.example", "250"), (f"MAIL FROM:<s@{DOMAIN}>", "250"),
                               (f"RCPT TO:<r@{DOMAIN}>", "250"), ("DATA", "354"), ("Subject: x\r\n\r\nx\r\n.", "250")):
                self.assertEqual(len(burst(busy, line, code)), self.BUSY)
        self.assertEqual(len(burst(list(idle), "NOOP", "250")), self.SESSIONS - self.BUSY)
        counters = dict(line.rsplit(" ", 1) for line in run_trabex("/STATUS", "/I", proxy.ini)[1].splitlines()
                        if not line.startswith("#"))
        self.assertEqual(counters["trabex_sessions_open"], str(self.SESSIONS))
        messages = sum(int(value) for name, value in counters.items() if name.startswith("trabex_messages_total"))
        self.assertEqual(messages, self.BUSY * self.ROUNDS)


class MessageSeries(Scenario):
    MESSAGES = 30_000
    GROWTH_BYTES = MB

    def send(self, proxy, messages, more):
        done = subprocess.run(
            ["smtp-source", "-m", str(messages), "-s", "20", "-l", "4096", "-f", f"s@{DOMAIN}", "-t", f"r@{DOMAIN}", *more,
             f"inet:{endpoint(proxy.port)}"],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=bound(max(120, messages / 20)), check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        wait_until(lambda: connections_to(proxy.server_port) == 0, "the ends of the sessions")

    def test_memory_is_what_it_was(self):
        """Half of them over a connection each, half over connections that stay."""
        server = SmtpSink(self.place)
        proxy = self.trabex(server.port, {"LogLevelRemote": 1, "LogLevelServer": 1})
        figures = []
        for part in range(10):
            for more in ([], ["-d"]):
                self.send(proxy, self.MESSAGES // 20, more)
            figures.append(proxy.process.resident_bytes())
        print(f"series of {self.MESSAGES} messages: memory in MB after each tenth: "
              f"{', '.join(f'{figure / MB:.1f}' for figure in figures)}")
        if not keeps_freed_memory():
            self.assertLess(figures[-1], figures[0] + self.GROWTH_BYTES)
        events = [event["event"] for event in proxy.json_events()]
        self.assertEqual(events.count("message"), self.MESSAGES)


if __name__ == "__main__":
    main()
