#!/usr/bin/env python3
"""What the view shows where there is room for more than the table, its keys, and "/VIEW": on real terminals."""

import contextlib
import os
import re
import select
import signal
import time
from pathlib import Path

from sandbox import why_no_sandbox
from test_control import raw_call
from test_window import GONE, HEADER, BareTerminal, Window, children
from trabex_system import LOOPBACK, Terminal, bound, main, program, run_trabex, wait_until

WIDE_HEADER = re.compile("^" + re.escape(HEADER) + r" +State +HELO +Sender +Recipient$")
BLOCKS = set("▁▂▃▄▅▆▇█")
NO_ROOM = "4 viewers look at this instance already, and there is room for no more."


def ticks(pid):
    """The processor time of a process so far, in seconds."""
    fields = Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Views(Window):
    def table(self, lines):
        """The rows of the table: what lies between the header and what stands below."""
        return [line for line in lines[2:] if re.match(r"^ +\d+ +\d+ +\d+ \d\d:\d\d:\d\d ", line)]

    def wait_for_table(self, terminal, count):
        return terminal.wait_for(lambda lines: len(self.table(lines)) == count, f"{count} rows")

    def transaction(self, helo="client.example", sender="ann@example.org", recipient="bob@test.example"):
        """A client whose message is under way."""
        client = self.connect(self.proxy.address)
        self.assertEqual(client.read_reply()[:3], "220")
        for line in (f"EHLO {helo}", f"MAIL FROM:<{sender}>", f"RCPT TO:<{recipient}>"):
            self.assertEqual(client.command(line)[:3], "250", line)
        return client

    def end_message(self, client):
        self.assertEqual(client.command("DATA")[:3], "354")
        self.assertEqual(client.command("Subject: x\r\n\r\nHello.\r\n.")[:3], "250")


class Pictures(Views):
    """The same story on terminals of several sizes and kinds."""

    def story(self, **more):
        """Two sessions, one message that was taken before, one refusal."""
        self.proxy.settings["SendersBlackList"] = "black@*"
        self.proxy.write_ini()
        terminal = self.open(**more)
        done = self.transaction()
        self.end_message(done)
        done.close()
        refused = self.connect(self.proxy.address)
        refused.read_reply()
        refused.command("EHLO client.example")
        self.assertEqual(refused.command("MAIL FROM:<black@example.org>")[:1], "5")
        refused.close()
        self.transaction(helo="first.example")
        self.transaction(helo="second.example", sender="", recipient="postmaster@test.example")
        self.wait_for_table(terminal, 2)
        return terminal, terminal.wait_for(lambda lines: lines[-2].startswith("open 2") and "msg 1" in lines[-2]
                                           or "messages 1" in lines[-2], "the totals")

    def test_80x24(self):
        terminal, lines = self.story(columns=80, rows=24)
        lines = lines[:24]
        self.assertEqual(lines[1], HEADER)
        for row in self.table(lines):
            self.assertRegex(row[51:], r"^\S+$")
        self.assertRegex(lines[23], r"^open 2 peak \d rows 1-2/2 acc 3 ref 1 del 0 msg 1 in \d+ out \d+ server up")
        self.assertLessEqual(max(map(len, lines)), 80)
        self.assertEqual(lines[4:23], [""] * 19)

    def test_200x50(self):
        terminal, _ = self.story(columns=200, rows=50)
        # The totals may be drawn up to half a second before the charts know of it.
        lines = terminal.wait_for(lambda lines: [lines[38][71:], lines[43][71:]] == ["max 1", "max 1"], "the charts")[:50]
        self.assertRegex(lines[1], WIDE_HEADER)
        state, helo, sender, recipient = (lines[1].index(name) for name in ("State", "HELO", "Sender", "Recipient"))
        first, second = self.table(lines)
        self.assertEqual(first[state:helo].strip(), "idle")
        self.assertEqual((first[helo:sender].strip(), second[helo:sender].strip()), ("first.example", "second.example"))
        self.assertEqual((first[sender:recipient].strip(), second[sender:recipient].strip()), ("ann@example.org", "<>"))
        self.assertEqual((first[recipient:], second[recipient:]), ("bob@test.example", "postmaster@test.example"))
        self.assertRegex(lines[49], r"^open 2, peak \d \| rows 1-2 of 2 \| accepted 3, refused 1, delayed 0 \| messages 1 "
                                    r"\| in \d+, out \d+ \| server up +\?: keys$")
        # Both charts: five lines each, the last minute at the right end of 60.
        charts = lines[38:48]
        self.assertTrue(charts[0].startswith("Messages  ") and charts[5].startswith("Refusals  "))
        for chart in charts[:5], charts[5:]:
            # It may have been in the minute before.
            self.assertIn(chart[4][71:], ("now 1", "now 0"))
            place = 69 if chart[4][71:] == "now 1" else 68
            self.assertEqual({line[place:place + 1] for line in chart}, {"█"})
        self.assertEqual(lines[48].split(), ["60", "min", "ago", "45", "30", "15", "now"])

    def test_20x5(self):
        terminal = self.open(columns=20, rows=5)
        self.transaction()
        lines = terminal.wait_for(lambda lines: lines[2].strip(), "the row")
        self.assertEqual(lines[0], self.status_line()[:20].rstrip())
        self.assertEqual(lines[1], HEADER[:20].rstrip())
        self.assertRegex(lines[2], r"^ +\d+ +\d+")
        self.assertEqual(lines[3:5], ["", ""])

    def test_kinds_of_terminals(self):
        """The same text on all of them but the bars; colours only where there are some, and NO_COLOR is not set."""
        for name, environment, coloured, plain in (("xterm-256color", {}, True, False), ("linux", {}, True, True),
                                                   ("vt100", {}, False, True),
                                                   ("xterm-256color", {"NO_COLOR": "1"}, False, False)):
            with self.subTest(name=name, environment=environment):
                setting = " ".join(f"{key}={value}" for key, value in environment.items())
                terminal = self.open_in_shell(f'unset NO_COLOR; export TERM={name} {setting}; exec "$@"', columns=110, rows=30)
                client = self.transaction()
                self.assertEqual(client.command("DATA")[:3], "354")
                self.wait_for_table(terminal, 1)
                lines = terminal.wait_for(lambda lines: "content" in lines[2], "the state")
                self.assertRegex(lines[1], WIDE_HEADER)
                self.assertIn("client.e…", lines[2])
                picture = terminal._tmux("capture-pane", "-p", "-e")
                self.assertEqual("\x1b[32m" in picture, coloured, "green for the content")
                client.command("Subject: x\r\n\r\nHello.\r\n.")
                # Content that arrives late is in the next picture.
                lines = terminal.wait_for(lambda lines: "now 1" in "\n".join(lines[20:]), "the bars")
                bars = "".join(line[10:70] for line in lines[22:28])
                self.assertEqual(bool(BLOCKS & set(bars)), not plain)
                self.assertEqual("#" in bars, plain)
                client.close()
                terminal.keys("q")
                terminal.wait()

    def test_hostile_text(self):
        """What clients say stays in its column, and reaches no terminal as a command."""
        terminal = self.open(columns=120, rows=24)
        texts = ["\u4f60\u597d" * 20 + ".example", "\U0001f600" * 30, "e\u0301\u0302\u0303" * 20, "\u202egnp.exe", "x" * 300]
        for text in texts:
            client = self.connect(self.proxy.address)
            client.read_reply()
            client.command(f"EHLO {text}")
        lines = self.wait_for_table(terminal, len(texts))
        lines = terminal.wait_for(lambda lines: all(line[79:80].strip() or line[78:79].strip() for line in lines[2:7]), "HELO")
        self.assertRegex(lines[1], WIDE_HEADER)
        for line in self.table(lines):
            self.assertNotIn("\u202e", line)
            self.assertNotIn("\u0301", line)
            self.assertRegex(line, r"^.{51}\S+ +(idle|reply|greeting|refused|dns-\w+|sending) ")
        self.assertTrue(lines[0].startswith(self.status_line()))
        self.assertTrue(lines[23].startswith("open 5"))


class Quiet(Views):
    def count_bytes(self, terminal, seconds):
        """What is drawn within some seconds; a look at time, for there is nothing to wait for."""
        end = time.monotonic() + seconds
        drawn = 0
        while (left := end - time.monotonic()) > 0:
            ready, _, _ = select.select([terminal._master], [], [], left)
            if ready:
                drawn += len(os.read(terminal._master, 65536))
        return drawn

    def test_an_unchanged_screen_sends_no_byte(self):
        terminal = BareTerminal(self.place, self.proxy.command(), columns=120, rows=40)
        terminal.read_until("server")
        self.count_bytes(terminal, 1)
        self.assertEqual(self.count_bytes(terminal, 1.6), 0)
        # With a session the durations run; frozen, nothing does.
        self.clients(1)
        terminal.read_until(LOOPBACK)
        os.write(terminal._master, b" ")
        terminal.read_until("Frozen")
        self.count_bytes(terminal, 1)
        self.assertEqual(self.count_bytes(terminal, 1.6), 0)
        os.kill(terminal.pid, signal.SIGTERM)
        self.assertEqual(terminal.wait(), 0)


class KeysOfTheView(Views):
    def open_wide(self, count=3):
        terminal = self.open(columns=120, rows=24)
        self.opened = [self.transaction(helo=f"h{number}.example") for number in range(count)]
        self.wait_for_table(terminal, count)
        return terminal

    def handles_in(self, lines):
        return [int(row.split()[0]) for row in self.table(lines)]

    def test_filter_sort_and_freeze(self):
        terminal = self.open_wide()
        all_of_them = self.handles_in(terminal.screen())
        terminal.keys("/", "H", "1", ".")
        lines = terminal.wait_for(lambda lines: len(self.table(lines)) == 1, "the one that is looked for")
        self.assertIn("Filter: H1._", lines)
        self.assertIn("h1.example", self.table(lines)[0])
        terminal.keys("Enter")
        terminal.wait_for_text("rows 1-1")
        terminal.keys("Escape")
        self.wait_for_table(terminal, 3)
        terminal.keys("s", "r")
        lines = terminal.wait_for(lambda lines: self.handles_in(lines) == sorted(all_of_them, reverse=True), "the order")
        self.assertIn("Sorted by handle, reversed", lines)
        terminal.keys("Space")
        terminal.wait_for_text("Frozen | Sorted by handle, reversed")
        self.transaction()
        self.assertServes()
        self.assertEqual(len(self.table(terminal.screen())), 3)
        terminal.keys("Space")
        self.wait_for_table(terminal, 4)

    def test_detail_refusals_and_keys(self):
        self.proxy.settings["SendersBlackList"] = "black@*"
        self.proxy.write_ini()
        terminal = self.open_wide(1)
        terminal.keys("Enter")
        lines = terminal.wait_for_text(" Recipients    1 asked for, 1 accepted")
        for text in (" HELO          h0.example", " Sender        ann@example.org", "   accepted    bob@test.example"):
            self.assertIn(text, lines)
        self.opened[0].close()
        terminal.wait_for_text(" has ended")
        terminal.keys("Escape")
        refused = self.connect(self.proxy.address)
        refused.read_reply()
        refused.command("EHLO client.example")
        refused.command("MAIL FROM:<black@example.org>")
        refused.close()
        terminal.keys("Tab")
        lines = terminal.wait_for_text("black@example.org")
        self.assertEqual(lines[1].split(), ["Time", "Client", "Key", "From", "To"])
        self.assertRegex(lines[2], rf"^ \d\d/\d\d/\d\d \d\d:\d\d:\d\d {re.escape(LOOPBACK)} +\S+ +black@example.org")
        terminal.keys("?")
        terminal.wait_for_text("all that is known of the selected session")
        terminal.keys("?")
        terminal.wait_for_text(HEADER)

    def test_close(self):
        terminal = self.open_wide()
        terminal.keys("Down", "Down")
        terminal.keys("c")
        terminal.wait_for_text("? y: yes, any other key: no")
        terminal.keys("x", "c")
        terminal.wait_for_text("? y: yes, any other key: no")
        terminal.keys("y")
        terminal.wait_for_text(" is closed.")
        self.assertEqual(self.opened[1].read_reply()[:3], "421")
        self.wait_for_table(terminal, 2)
        for client in (self.opened[0], self.opened[2]):
            self.assertEqual(client.command("NOOP")[:3], "250")

    def test_the_selected_session_stays_selected(self):
        terminal = self.open_wide(10)
        terminal.keys("Down", "Down", "Down", "Down", "Down")
        selected = self.handles_in(terminal.screen())[4]

        def selected_is_shown(_):
            picture = terminal._tmux("capture-pane", "-p", "-e").split("\n")
            shown = [line for line in picture[2:22] if "\x1b[7m" in line]
            return len(shown) == 1 and int(re.sub(r"\x1b\[[0-9;]*m", "", shown[0]).split()[0]) == selected

        terminal.wait_for(selected_is_shown, "the selection")
        for client in self.opened[:3]:
            client.close()
        self.wait_for_table(terminal, 7)
        terminal.wait_for(selected_is_shown, "the selection, which has moved up")


class Enclosed(Views):
    def test_both_kinds_of_views_in_the_sandbox(self):
        if why_not := why_no_sandbox():
            self.skipTest(why_not)
        self.proxy.sections["Service"]["Sandbox"] = 2
        self.proxy.write_ini()
        own = self.open(columns=120, rows=24)
        self.proxy.wait_for_log("Sandbox in force.")
        client = self.transaction(helo="h0.example")
        self.wait_for_table(own, 1)
        attached = Terminal(self.place, [program("Trabex"), "/VIEW", "/P", str(self.proxy.port)], columns=120, rows=24)
        self.wait_for_table(attached, 1)
        for terminal in (own, attached):
            terminal.keys("/", "q", "q")
            terminal.wait_for_text("Filter: qq_")
            terminal.keys("Escape")
        self.end_message(client)
        client.close()
        for terminal in (own, attached):
            terminal.wait_for(lambda lines: "messages 1" in "\n".join(lines), "the totals")
            self.wait_for_table(terminal, 0)
        attached.keys("q")
        self.assertEqual(attached.wait(), 0)
        self.assertServes()
        self.assertNotIn(GONE, self.proxy.log())


class Attached(Views):
    """The view of an instance that has no terminal."""

    def setUp(self):
        super().setUp()
        self.proxy.arguments = ["/HI"]
        self.proxy.start()

    def view_command(self):
        return [program("Trabex"), "/VIEW", "/P", str(self.proxy.port)]

    def attach(self, **more):
        return Terminal(self.place, self.view_command(), **{"columns": 120, "rows": 24, **more})

    def attach_in_shell(self, after=""):
        """The viewer is the child of a shell that tells its exit status."""
        command = " ".join(map(str, self.view_command()))
        return Terminal(self.place, ["sh", "-c", f'echo before; {command}; echo "status $?"; {after} read -r _'],
                        columns=120, rows=24)

    def says(self):
        """What the command says when it shows nothing, and its status."""
        lines = self.attach_in_shell().wait_for_text("status ")
        return [line for line in lines if line and line != "before"]

    def test_shows_what_its_own_view_would(self):
        client = self.transaction(helo="h0.example")
        terminal = self.attach()
        lines = self.wait_for_table(terminal, 1)
        self.assertTrue(lines[0].startswith(self.status_line()))
        self.assertRegex(lines[1], WIDE_HEADER)
        self.assertIn("h0.example", self.table(lines)[0])
        terminal.keys("/", "q", "q")
        terminal.wait_for_text("Filter: qq_")
        terminal.keys("Escape", "c")
        terminal.wait_for_text("? y: yes, any other key: no")
        # An answer here; were it the end, the viewer would be gone after a second.
        terminal.keys("q")
        lines = terminal.wait_for(lambda lines: "? y: yes" not in "\n".join(lines), "the end of the question")
        shown = self.table(lines)[0].split()[3]
        for _ in range(3):
            (row,) = self.table(terminal.wait_for(lambda lines: shown not in self.table(lines)[0], "the next second"))
            shown = row.split()[3]
        terminal.keys("q")
        self.assertEqual(terminal.wait(), 0)
        self.assertEqual(client.command("NOOP")[:3], "250")
        self.assertServes()
        self.assertNotIn("view", self.proxy.log().lower())

    def test_four_and_no_more(self):
        viewers = [self.attach() for _ in range(4)]
        for viewer in viewers:
            viewer.wait_for_text(HEADER)
        self.assertEqual(self.says(), [f"Trabex: {NO_ROOM}", "status 1"])
        # One that leaves makes room, and one that is killed does.
        viewers[0].keys("q")
        self.assertEqual(viewers[0].wait(), 0)
        os.kill(viewers[1].pid, signal.SIGKILL)
        for _ in range(2):
            self.attach().wait_for_text(HEADER)
        viewers[2].wait_for_text("open 0")

    def test_no_terminal_and_no_instance(self):
        self.assertEqual(run_trabex("/VIEW", "/P", self.proxy.port),
                         (1, "", "Trabex: No view can be shown. Standard output is no terminal.\n"))
        port = self.proxy.port
        self.assertEqual(self.proxy.end(), 0)
        self.assertEqual(self.says(), [f"Trabex: There is no instance on port {port}.", "status 3"])

    def test_leaves_the_terminal_as_it_was(self):
        for ends_it, status in ((lambda viewer: viewer.keys("q"), 0), (lambda viewer: viewer.keys("C-c"), 0),
                                (lambda viewer: os.kill(children(viewer.pid)[0], signal.SIGTERM), 0)):
            viewer = self.attach_in_shell(after="stty -a;")
            viewer.wait_for_text(HEADER)
            ends_it(viewer)
            viewer.wait_for_text(f"status {status}")
            lines = viewer.wait_for_text("isig icanon iexten echo ")
            self.assertIn("before", lines)

    def test_the_instance_ends(self):
        viewer = self.attach_in_shell()
        viewer.wait_for_text(HEADER)
        self.assertEqual(self.proxy.end(), 0)
        lines = viewer.wait_for_text("status 1")
        self.assertIn(f"Trabex: The instance on port {self.proxy.port} has ended the view.", lines)

    def test_the_instance_stands_still(self):
        """Whoever looks on leaves all the same."""
        viewer = self.attach()
        viewer.wait_for_text(HEADER)
        self.proxy.process.send_signal(signal.SIGSTOP)
        self.place.on_leaving(self.proxy.process.send_signal, signal.SIGCONT)
        viewer.keys("Down", "q")
        self.assertEqual(viewer.wait(), 0)
        self.proxy.process.send_signal(signal.SIGCONT)

    def test_a_viewer_that_is_stopped_costs_nothing(self):
        """Neither turns of the loop nor memory: with 300 sessions that change all the time, the instance uses no more
        processor time than without a viewer, and has nothing waiting to be sent but one picture."""
        clients = self.clients(300)
        terminal = self.attach_in_shell()
        terminal.wait_for_text("open 300")
        viewer = children(terminal.pid)[0]
        os.kill(viewer, signal.SIGSTOP)
        self.place.on_leaving(os.kill, viewer, signal.SIGCONT)
        for _ in range(3):
            self.assertServes()
        memory = self.resident()
        before = ticks(self.proxy.process.pid)
        for _ in range(20):
            for client in clients[:50]:
                self.assertEqual(client.command("NOOP")[:3], "250")
        self.assertLess(self.resident() - memory, 1 << 20)
        self.assertLess(ticks(self.proxy.process.pid) - before, bound(2))
        os.kill(viewer, signal.SIGCONT)
        late = self.connect(self.proxy.address)
        self.assertEqual(late.read_reply()[:3], "220")
        terminal.wait_for_text("open 301")
        for client in [*clients, late]:
            client.close()

    def resident(self):
        pages = int(Path(f"/proc/{self.proxy.process.pid}/statm").read_text(encoding="ascii").split()[1])
        return pages * os.sysconf("SC_PAGE_SIZE")

    def test_hostile_viewers(self):
        """Somebody who is let in may say anything."""
        for said in (b"\0" * 4096, os.urandom(100000), b"\x01\x00\xff\xff\xff\xff\xff\xff" * 1000, b"\x02\0\0\0c\0\0\0\x02\0\0\0y\0\0\0" * 5000):
            with raw_call(self.proxy.port, b"VIEW\t1\n") as caller:
                self.assertEqual(caller.recv(4), b"S 1\n")
                with contextlib.suppress(OSError):
                    caller.sendall(said)
                self.assertServes()
        wait_until(lambda: self.attaches(), "room for another viewer")

    def attaches(self):
        with raw_call(self.proxy.port, b"VIEW\t1\n") as caller:
            return caller.recv(4) == b"S 1\n"


if __name__ == "__main__":
    main()
