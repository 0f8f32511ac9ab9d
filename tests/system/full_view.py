#!/usr/bin/env python3
"""The view with 9,000 open sessions: its totals, the ends of the table, filter, order, and a table that stands still.

./test --full runs it; so many connections take a while.
"""

import resource
import time

from test_view import Views
from trabex_system import Scenario, SmtpSink, main, run_trabex

SESSIONS = 9000
# What the program itself has open: both ends, and some more.
FILES = 2 * SESSIONS + 200
LOOKED_FOR = 5  # as many of them say HELO
ROWS = 36       # of the table, in 50 lines


class ManySessions(Views):
    def setUp(self):
        Scenario.setUp(self)
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        if hard < FILES:
            self.skipTest(f"no more than {hard} files can be open")
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        self.server = SmtpSink(self.place, connections=SESSIONS + 100)
        self.proxy = self.trabex(self.server.port, start=False, arguments=())
        self.place.on_leaving(self.end_instance)

    def handles(self, lines):
        return [int(row.split()[0]) for row in self.table(lines)]

    def wait_for_handles(self, terminal, handles):
        return terminal.wait_for(lambda lines: self.handles(lines) == handles, f"the rows of {handles}")

    def all_handles(self):
        """As /SESSIONS has them: in the order in which the sessions came."""
        status, said, _ = run_trabex("/SESSIONS", "/P", self.proxy.port)
        self.assertEqual(status, 0)
        handles = [int(line.split()[1]) for line in said.splitlines()]
        self.assertEqual(len(handles), SESSIONS)
        return handles

    def test_nine_thousand(self):
        terminal = self.open(columns=200, rows=50)
        clients = self.clients(SESSIONS)
        # The oldest, the latest, and some between them.
        for client in clients[::SESSIONS // LOOKED_FOR][:LOOKED_FOR - 1] + clients[-1:]:
            self.assertEqual(client.command("EHLO Looked-for.example")[:3], "250")
        terminal.wait_for_text(f"open {SESSIONS}, peak {SESSIONS} | rows 1-{ROWS} of {SESSIONS} |")
        handles = self.all_handles()
        self.wait_for_handles(terminal, handles[:ROWS])

        terminal.keys("End")
        terminal.wait_for_text(f"rows {SESSIONS - ROWS + 1}-{SESSIONS} of {SESSIONS} |")
        self.wait_for_handles(terminal, handles[-ROWS:])
        terminal.keys("PPage")
        self.wait_for_handles(terminal, handles[-2 * ROWS:-ROWS])
        terminal.keys("Home")
        self.wait_for_handles(terminal, handles[:ROWS])

        terminal.keys("/", *"LOOKED-FOR")
        lines = self.wait_for_table(terminal, LOOKED_FOR)
        self.assertTrue(all("Looked-for.example" in row for row in self.table(lines)))
        self.assertEqual((self.handles(lines)[0], self.handles(lines)[-1]), (handles[0], handles[-1]))
        terminal.wait_for_text(f"open {SESSIONS}, peak {SESSIONS} | rows 1-{LOOKED_FOR} of {LOOKED_FOR} |")
        terminal.keys("Escape")
        self.wait_for_handles(terminal, handles[:ROWS])

        # A line says now how it is sorted.
        terminal.keys("s")
        self.wait_for_handles(terminal, sorted(handles)[:ROWS - 1])
        # What is selected would stay so, at the other end.
        terminal.keys("r", "Home")
        self.wait_for_handles(terminal, sorted(handles, reverse=True)[:ROWS - 1])
        terminal.wait_for_text(f"rows 1-{ROWS - 1} of {SESSIONS} |")

        self.assertStandsStill(terminal, clients)
        terminal.keys("Space")
        terminal.wait_for_text(f"of {SESSIONS - 100} |")
        terminal.wait_for_text(f"open {SESSIONS - 100}, peak {SESSIONS} |")
        terminal.keys("q")
        self.assertEqual(terminal.wait(), 0)

    def assertStandsStill(self, terminal, clients):
        drawn = self.place.new_folder("drawn") / "bytes"
        terminal._tmux("pipe-pane", "-O", f"cat > {drawn}")
        terminal.keys("Space")
        lines = terminal.wait_for_text("Frozen | Sorted by handle, reversed")
        # The picture may have come in parts.
        time.sleep(1)
        before = drawn.stat().st_size
        self.assertGreater(before, 0, "the word itself")
        for client in clients[-100:]:
            client.command("QUIT")
            client.close()
        # Three pictures would have been drawn.
        time.sleep(1.6)
        self.assertEqual(drawn.stat().st_size, before)
        self.assertEqual(self.table(terminal.screen()), self.table(lines))


if __name__ == "__main__":
    main()
