#!/usr/bin/env python3
"""The main window on a terminal: what it shows, its keys, and that the terminal never matters to the mail."""

import contextlib
import fcntl
import os
import re
import select
import shlex
import signal
import struct
import subprocess
import termios
import time
from pathlib import Path

from trabex_system import (LOOPBACK, Scenario, Terminal, bound, endpoint, in_family, is_listening, main, run_trabex,
                           wait_until)

HEADER = " Handle Received     Sent Duration         Host IP Host Name"
ROW = re.compile(r"^ {1,6}\d{1,6} {1,8}\d{1,8} {1,8}\d{1,8} \d\d:\d\d:\d\d {1,15}[0-9a-f.:]{3,15} \S+$")
GONE = "The window has gone with its terminal or the process that drew it; running on without one."


def children(pid):
    """The child processes, as long as the process itself is there."""
    with contextlib.suppress(OSError):
        return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii").split()]
    return []


def is_alive(pid):
    with contextlib.suppress(OSError):
        return Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()[0] != "Z"
    return False


class Window(Scenario):
    """A Trabex in a terminal, in front of a server that greets. The terminal is a line too low for more than the table
    of connections (test_view.py has what there is beyond), unless `rows` says otherwise."""

    def setUp(self):
        super().setUp()
        self.server = self.sample_server()
        self.proxy = self.trabex(self.server.port, start=False, arguments=())
        self.place.on_leaving(self.end_instance)

    def end_instance(self):
        """Asks the instance to end if there is one still: without a window it outlives its terminal."""
        subprocess.run([*map(str, self.proxy.command()), "/X"], check=True, timeout=bound(20))
        wait_until(lambda: not is_listening(self.proxy.port), "the instance to end")

    def open(self, *arguments, **more):
        """Opens a terminal in which Trabex is all that runs; returns it when Trabex listens."""
        return self.open_with(self.proxy.command() + list(arguments), **more)

    def open_with(self, command, **more):
        more.setdefault("rows", 23)
        terminal = Terminal(self.place, command, **more)
        wait_until(lambda: is_listening(self.proxy.port), "Trabex to listen")
        return terminal

    def open_in_shell(self, script, **more):
        """Opens a terminal with a shell script in which "$@" is Trabex."""
        return self.open_with(["sh", "-c", script, "sh", *self.proxy.command()], **more)

    def clients(self, count):
        clients = [self.connect(self.proxy.address) for _ in range(count)]
        for client in clients:
            self.assertEqual(client.read_reply()[:3], "220")
        return clients

    def assertServes(self):
        client = self.connect(self.proxy.address)
        self.assertEqual(client.read_reply()[:3], "220")
        self.assertEqual(client.command("EHLO client.example")[:3], "250")
        client.close()

    def rows(self, terminal):
        return [line for line in terminal.screen()[2:] if line]

    def wait_for_rows(self, terminal, count):
        terminal.wait_for(lambda lines: len([line for line in lines[2:] if line]) == count, f"{count} rows")

    def handles(self, terminal):
        return [int(row.split()[0]) for row in self.rows(terminal)]

    def trabex_of(self, shell):
        """The process of the Trabex that a shell has started."""
        return wait_until(lambda: children(shell), "the shell's child")[0]

    def renderer_of(self, trabex):
        return wait_until(lambda: children(trabex), "the process that draws")[0]

    def status_line(self):
        return f"{endpoint(self.proxy.port)} --> {endpoint(self.server.port)}"


class Content(Window):
    def test_status_header_and_version(self):
        terminal = self.open(columns=80, rows=10)
        lines = terminal.wait_for_text(HEADER)
        self.assertEqual(lines[0], self.status_line().ljust(80 - len("v. 3.04.012")) + "v. 3.04.012")
        self.assertEqual(lines[1], HEADER)
        self.assertEqual([line for line in lines[2:] if line], [])

    def test_one_row_per_connection(self):
        terminal = self.open()
        terminal.wait_for_text(HEADER)
        first = self.connect(self.proxy.address)
        greeting = first.read_reply()
        terminal.wait_for_text(f"{LOOPBACK} ")
        self.wait_for_rows(terminal, 1)
        row = self.rows(terminal)[0]
        self.assertRegex(row, ROW)
        self.assertEqual(row[34:51], f" {LOOPBACK:>15} ")
        self.assertEqual((int(row[7:16]), int(row[16:25])), (0, len(greeting) + 2))
        second = self.connect(self.proxy.address)
        second.read_reply()
        self.wait_for_rows(terminal, 2)
        self.assertEqual(self.rows(terminal)[0][:7], row[:7], "the older one stays above")
        first.command("EHLO client.example")
        terminal.wait_for(lambda lines: int(lines[2][7:16]) == len("EHLO client.example\r\n"), "the bytes received")
        first.close()
        self.wait_for_rows(terminal, 1)
        self.assertNotEqual(self.rows(terminal)[0][:7], row[:7])

    def test_duration_runs(self):
        terminal = self.open()
        self.clients(1)
        terminal.wait_for_text("00:00:02")

    def test_scrolling(self):
        terminal = self.open(rows=12)
        clients = self.clients(35)
        self.wait_for_rows(terminal, 10)
        handles = self.handles(terminal)
        terminal.keys("Down", "Down", "Up")
        terminal.wait_for(lambda _: self.handles(terminal)[:9] == handles[1:], "one row down")
        terminal.keys("NPage")
        terminal.wait_for(lambda _: self.handles(terminal)[0] not in handles, "a page down")
        terminal.keys("End")
        # A row further down there is nothing.
        terminal.keys("Down")
        clients[-1].close()
        self.wait_for_rows(terminal, 10)
        terminal.keys("Home", "Up")
        terminal.wait_for(lambda _: self.handles(terminal) == handles, "the first page")
        terminal.keys("End")
        terminal.wait_for(lambda _: self.handles(terminal)[0] not in handles, "the last page")
        last = self.handles(terminal)
        terminal.keys("PPage")
        terminal.wait_for(lambda _: not set(self.handles(terminal)) & set(last), "a page up")
        for client in clients[3:]:
            client.close()
        self.wait_for_rows(terminal, 3)
        self.assertEqual(self.handles(terminal), handles[:3])

    def test_follows_the_size_of_the_terminal(self):
        terminal = self.open(columns=90, rows=8)
        self.clients(20)
        self.wait_for_rows(terminal, 6)
        terminal.resize(120, 23)
        self.wait_for_rows(terminal, 20)
        terminal.wait_for(lambda lines: lines[0].endswith("v. 3.04.012") and len(lines[0]) == 120, "the version's place")
        terminal.resize(60, 5)
        self.wait_for_rows(terminal, 3)
        terminal.resize(20, 2)
        terminal.wait_for(lambda lines: lines[0] == self.status_line()[:20].rstrip(), "a narrow status line")
        # Where nothing can be shown, and there is nowhere to scroll.
        terminal.resize(1, 1)
        terminal.keys("Down", "NPage", "End", "Home", "m", "m")
        terminal.resize(100, 23)
        self.wait_for_rows(terminal, 20)
        self.assertServes()

    def test_folding(self):
        terminal = self.open("/M")
        self.clients(2)
        lines = terminal.wait_for_text(self.status_line())
        self.assertEqual([line for line in lines[1:] if line], [])
        terminal.keys("m")
        terminal.wait_for_text(HEADER)
        self.wait_for_rows(terminal, 2)
        terminal.keys("m")
        terminal.wait_for(lambda lines: not any(lines[1:]), "the table to be folded")

    def test_hidden(self):
        terminal = self.open("/HI", "/M")
        self.assertServes()
        self.assertEqual("".join(terminal.screen()), "")
        self.assertEqual(children(terminal.pid), [])


class Keys(Window):
    SCRIPT = 'echo before; "$@"; echo "status $?"; stty -a; read -r _'

    def assertRestored(self, terminal, status=0):
        terminal.wait_for_text(f"status {status}")
        terminal.wait_for_text(" icrnl ixon ")
        lines = terminal.wait_for_text("isig icanon iexten echo ")
        self.assertIn("before", lines)
        self.assertNotIn(HEADER, lines)

    def assertEndsWellFor(self, client):
        self.assertEqual(client.read_to_end()[:3], b"421")
        client.close()

    def close_with(self, key):
        terminal = self.open_in_shell(self.SCRIPT)
        terminal.wait_for_text(HEADER)
        client, = self.clients(1)
        terminal.keys(key)
        self.assertEndsWellFor(client)
        self.assertRestored(terminal)
        self.assertEqual(self.proxy.log_lines()[-1], "Trabex 3.04.012 stopped.")

    def test_q(self):
        self.close_with("q")

    def test_ctrl_c(self):
        self.close_with("C-c")

    def test_stop_key_stops_nothing(self):
        terminal = self.open_in_shell(self.SCRIPT)
        terminal.wait_for_text(HEADER)
        terminal.keys("C-z", "C-s", "C-\\")
        self.assertServes()
        client, = self.clients(1)
        self.wait_for_rows(terminal, 1)
        terminal.keys("q")
        self.assertEndsWellFor(client)
        self.assertRestored(terminal)

    def test_other_keys_do_nothing(self):
        terminal = self.open()
        terminal.wait_for_text(HEADER)
        terminal.keys("x", "F1", "Escape", "Left", "Tab", "Enter", "ä")
        self.clients(1)
        self.wait_for_rows(terminal, 1)

    def test_signal(self):
        terminal = self.open_in_shell(self.SCRIPT)
        terminal.wait_for_text(HEADER)
        os.kill(self.trabex_of(terminal.pid), signal.SIGTERM)
        self.assertRestored(terminal)

    def test_signals_that_end_in_order(self):
        """Sent to both processes, as to a process group; the one that draws goes with the other one only."""
        for number in (signal.SIGQUIT, signal.SIGHUP, signal.SIGINT):
            with self.subTest(number=number):
                terminal = self.open_in_shell(self.SCRIPT)
                terminal.wait_for_text(HEADER)
                trabex = self.trabex_of(terminal.pid)
                os.kill(self.renderer_of(trabex), number)
                client, = self.clients(1)
                self.wait_for_rows(terminal, 1)
                os.kill(trabex, number)
                self.assertEndsWellFor(client)
                self.assertRestored(terminal)
                self.assertEqual(self.proxy.log_lines()[-1], "Trabex 3.04.012 stopped.")
                self.assertNotIn(GONE, self.proxy.log())

    def test_signals_without_meaning(self):
        terminal = self.open()
        terminal.wait_for_text(HEADER)
        renderer = self.renderer_of(terminal.pid)
        for number in (signal.SIGUSR2, signal.SIGALRM, signal.SIGVTALRM, signal.SIGIO, signal.SIGPIPE, signal.SIGUSR1):
            os.killpg(terminal.pid, number)
        self.proxy.wait_for_log("Log file reopened.")
        self.clients(1)
        self.wait_for_rows(terminal, 1)
        self.assertTrue(is_alive(renderer))
        self.assertNotIn("reloaded", self.proxy.log())
        self.assertNotIn(GONE, self.proxy.log())

    def test_hang_up_without_a_window(self):
        """Is a request: no user has lost anything."""
        terminal = self.open("/HI")
        os.kill(terminal.pid, signal.SIGHUP)
        self.proxy.wait_for_log("Configuration reloaded")
        self.assertServes()
        os.kill(terminal.pid, signal.SIGQUIT)
        self.assertEqual(terminal.wait(), 0)

    def test_killed(self):
        """Only the process that draws is left to restore the terminal."""
        # What a shell writes at once may still go to the full screen.
        terminal = self.open_in_shell('echo before; "$@"; status=$?; read -r _; echo "status $status"; stty -a; read -r _')
        terminal.wait_for_text(HEADER)
        trabex = self.trabex_of(terminal.pid)
        renderer = self.renderer_of(trabex)
        os.kill(trabex, signal.SIGKILL)
        wait_until(lambda: not is_alive(renderer), "the process that draws to end")
        terminal.keys("Enter")
        self.assertRestored(terminal, 128 + signal.SIGKILL)

    def test_renderer_has_nothing_of_the_program(self):
        """Neither its memory nor its files and sockets: a session ends when the program closes it."""
        terminal = self.open()
        terminal.wait_for_text(HEADER)
        self.clients(3)
        renderer = self.renderer_of(terminal.pid)
        self.assertEqual(Path(f"/proc/{renderer}/cmdline").read_bytes().split(b"\0")[0], b"Trabex-view")
        files = [os.readlink(file) for file in Path(f"/proc/{renderer}/fd").iterdir()]
        self.assertEqual(len([file for file in files if file.startswith("socket:")]), 1, files)
        self.assertLessEqual({file for file in files if not file.startswith("socket:")},
                             {"/dev/tty", "/dev/null", os.readlink(f"/proc/{terminal.pid}/fd/1")})

    def test_renderer_killed(self):
        """Costs the window, not the service."""
        terminal = self.open_in_shell(self.SCRIPT)
        terminal.wait_for_text(HEADER)
        trabex = self.trabex_of(terminal.pid)
        os.kill(self.renderer_of(trabex), signal.SIGKILL)
        lines = terminal.wait_for_text("Trabex: The window has gone")
        self.assertIn("before", lines)
        self.assertNotIn(HEADER, lines)
        self.proxy.wait_for_log(GONE)
        self.assertServes()
        self.assertEqual(children(trabex), [])
        os.kill(trabex, signal.SIGTERM)
        self.assertRestored(terminal)


class Messages(Window):
    """What goes wrong while the window is shown is told when the terminal is free again, and spoils no picture."""

    def reload_with_mistakes(self, count=2):
        """Asks for a reload with so many bad values; returns the lines that are told of it."""
        self.proxy.write_ini(**dict([("Timeout", "soon"), ("MaxBadSeq", "many")][:count]))
        if count > 2:
            self.proxy.sections["ResponseChanges"] = {f"Nonsense{number}": "550=" for number in range(count)}
            self.proxy.write_ini()
        status, _, _ = run_trabex("/RELOAD", "/I", self.proxy.ini)
        self.assertEqual(status, 1)
        self.proxy.wait_for_log("Configuration not reloaded; the one in force stays.")
        return [f"Trabex: {line}" for line in self.proxy.log_lines() if line.startswith(f"{self.proxy.ini}:")]

    def assertPictureStands(self, terminal):
        lines = terminal.screen()
        self.assertTrue(lines[0].startswith(self.status_line()), lines[0])
        self.assertTrue(lines[1].startswith(HEADER), lines[1])
        self.assertEqual([line for line in lines[2:] if "Trabex" in line], [])

    def test_they_wait_for_the_end(self):
        terminal = self.open_in_shell('"$@"; echo status $?; read -r _', columns=200)
        terminal.wait_for_text(HEADER)
        told = self.reload_with_mistakes()
        self.assertEqual(len(told), 2)
        self.assertPictureStands(terminal)
        terminal.keys("q")
        lines = terminal.wait_for_text("status 0")
        self.assertEqual([line for line in lines if line.startswith("Trabex: ")], told)

    def test_they_come_when_the_window_is_lost(self):
        terminal = self.open_in_shell('exec "$@"', columns=200)
        terminal.wait_for_text(HEADER)
        told = self.reload_with_mistakes()
        self.assertPictureStands(terminal)
        os.kill(self.renderer_of(terminal.pid), signal.SIGKILL)
        lines = terminal.wait_for_text("Trabex: The window has gone")
        self.assertEqual([line for line in lines if line.startswith("Trabex: ")][:2], told)
        self.assertServes()

    def test_many_are_cut_short(self):
        terminal = self.open_in_shell('"$@"; echo status $?; read -r _', columns=250, rows=100)
        terminal.wait_for_text(HEADER)
        told = self.reload_with_mistakes(200)
        self.assertGreater(len(told), 200)
        self.assertPictureStands(terminal)
        terminal.keys("q")
        lines = [line for line in terminal.wait_for_text("status 0") if line.startswith("Trabex: ")]
        self.assertGreater(len(lines), 10)
        self.assertEqual(lines[:-1], told[:len(lines) - 1])
        self.assertEqual(lines[-1], f"Trabex: {len(told) - len(lines) + 1} more lines are in the log.")

    def test_a_file_gets_them_at_once(self):
        errors = self.place.folder / "errors"
        terminal = self.open_in_shell(f'exec "$@" 2> {shlex.quote(str(errors))}')
        terminal.wait_for_text(HEADER)
        told = self.reload_with_mistakes()
        self.assertEqual(errors.read_text(encoding="utf-8").splitlines(), told)
        self.assertPictureStands(terminal)


class WithoutWindow(Window):
    """Says so once, and serves."""

    def assertSaysOnce(self, terminal, why):
        terminal.wait_for_text(f"Trabex: Running without a window. {why}")
        self.assertServes()
        # As much time as five frames would take.
        self.assertEqual("\n".join(terminal.screen()).count("without a window"), 1)

    def test_background(self):
        command = shlex.join(map(str, self.proxy.command()))
        terminal = self.open_with(["bash", "-c", f"set -m; {command} & read -r _; kill $!; wait $!; echo status $?; read"])
        self.assertSaysOnce(terminal, "The program runs in the background.")
        terminal.keys("Enter")
        terminal.wait_for_text("status 0")

    def test_unknown_terminal(self):
        for name, why in (("no-such-terminal", 'The terminal type "no-such-terminal" is unknown.'),
                          ("dumb", 'The terminal type "dumb" has no full screen.'),
                          ("", "The terminal type is not set (TERM).")):
            with self.subTest(name=name):
                terminal = self.open_in_shell(f'export TERM={name}; exec "$@"')
                self.assertSaysOnce(terminal, why)
                terminal.keys("C-c")
                self.assertEqual(terminal.wait(), 0)


class BareTerminal:
    """A terminal without a display; it can be stopped, and then takes nothing, like one on a hung line."""

    def __init__(self, place, command, columns=200, rows=60, ignore_hang_up=False):
        self._master, self._programs_side = os.openpty()
        fcntl.ioctl(self._master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

        def take_terminal():
            fcntl.ioctl(0, termios.TIOCSCTTY, 0)
            signal.signal(signal.SIGHUP, signal.SIG_IGN if ignore_hang_up else signal.SIG_DFL)

        self._child = subprocess.Popen(
            [str(part) for part in command], stdin=self._programs_side, stdout=self._programs_side,
            stderr=self._programs_side, env={**os.environ, "TERM": "xterm"}, start_new_session=True,
            preexec_fn=take_terminal)
        self.pid = self._child.pid
        place.on_leaving(self._leave)

    def stop(self):
        termios.tcflow(self._programs_side, termios.TCOOFF)

    def go_on(self):
        termios.tcflow(self._programs_side, termios.TCOON)

    def modes(self):
        """The local modes, a set of bits."""
        return termios.tcgetattr(self._programs_side)[3]

    def read_until(self, text):
        """Reads what is drawn until `text` comes. Only what changes is drawn, so it has to be new."""
        seen = ""
        end = time.monotonic() + bound(20)
        while text not in seen:
            ready, _, _ = select.select([self._master], [], [], max(0, end - time.monotonic()))
            if not ready:
                raise AssertionError(f"{text!r} was not drawn: {seen[-2000:]!r}")
            seen += os.read(self._master, 65536).decode("utf-8", errors="replace")

    def hang_up(self):
        os.close(self._programs_side)
        os.close(self._master)
        self._master = None

    def wait(self):
        return self._child.wait(bound(20))

    def _leave(self):
        if self._child.poll() is None:
            self._child.kill()
            self._child.wait()
        if self._master is not None:
            self.hang_up()


class DeafTerminal(Window):
    def open_bare(self, **more):
        terminal = BareTerminal(self.place, self.proxy.command(), **more)
        wait_until(lambda: is_listening(self.proxy.port), "Trabex to listen")
        return terminal

    def stop(self, terminal):
        """Stops the terminal and waits until the process that draws stands still in its write."""
        terminal.stop()
        renderer = self.renderer_of(terminal.pid)
        write = "1"
        wait_until(lambda: Path(f"/proc/{renderer}/syscall").read_text(encoding="ascii").split()[0] == write,
                   "the process that draws to stand still")
        return renderer

    def test_mail_goes_on(self):
        terminal = self.open_bare()
        clients = self.clients(20)
        terminal.read_until("Handle")
        renderer = self.stop(terminal)
        for _ in range(20):
            self.assertServes()
        late = self.connect(self.proxy.address, source=in_family("127.0.0.77"))
        self.assertEqual(late.read_reply()[:3], "220")
        self.assertTrue(is_alive(renderer))
        # When it goes on it shows what is so now.
        terminal.go_on()
        terminal.read_until(in_family("127.0.0.77"))
        for client in [*clients, late]:
            client.close()
        os.kill(terminal.pid, signal.SIGTERM)
        self.assertEqual(terminal.wait(), 0)

    def test_end(self):
        """Is not held up either."""
        terminal = self.open_bare()
        client, = self.clients(1)
        terminal.read_until("Handle")
        self.assertFalse(terminal.modes() & (termios.ICANON | termios.ECHO | termios.ISIG))
        renderer = self.stop(terminal)
        os.kill(terminal.pid, signal.SIGTERM)
        self.assertEqual(client.read_to_end()[:3], b"421")
        client.close()
        self.assertEqual(terminal.wait(), 0)
        self.assertFalse(is_alive(renderer))
        for mode in (termios.ICANON, termios.ECHO, termios.ISIG):
            self.assertTrue(terminal.modes() & mode)

    def test_hang_up_ends_the_program(self):
        terminal = self.open_bare()
        client, = self.clients(1)
        terminal.hang_up()
        self.assertEqual(client.read_to_end()[:3], b"421")
        client.close()
        self.assertEqual(terminal.wait(), 0)

    def test_hang_up_under_a_shell(self):
        """The system tells the shell only. One that waits for its command passes nothing on: the window notices."""
        for script in ('"$@"; exit', 'trap : HUP; "$@"; exit'):
            with self.subTest(script):
                terminal = BareTerminal(self.place, ["sh", "-c", script, "sh", *self.proxy.command()])
                trabex = wait_until(lambda shell=terminal: children(shell.pid), "the shell's child")[0]
                terminal.read_until("Handle")
                client, = self.clients(1)
                terminal.hang_up()
                self.assertEqual(client.read_to_end()[:3], b"421")
                client.close()
                wait_until(lambda process=trabex: not is_alive(process), "Trabex to end")
                terminal.wait()
                log = self.proxy.log()
                self.assertNotIn(GONE, log)
                self.assertNotIn("reloaded", log)
                self.assertEqual(self.proxy.log_lines()[-1], "Trabex 3.04.012 stopped.")

    def test_hang_up_may_be_ignored(self):
        terminal = self.open_bare(ignore_hang_up=True)
        renderer = self.renderer_of(terminal.pid)
        terminal.hang_up()
        self.proxy.wait_for_log(GONE)
        wait_until(lambda: not is_alive(renderer), "the process that draws to end")
        self.assertServes()
        self.assertEqual(children(terminal.pid), [])
        os.kill(terminal.pid, signal.SIGTERM)
        self.assertEqual(terminal.wait(), 0)


if __name__ == "__main__":
    main()
