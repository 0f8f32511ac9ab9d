#!/usr/bin/env python3
"""The main window of Trabex.exe: what it shows, how it is handled, and that the mail goes on meanwhile.

What it shows is asked of the window itself; the pictures in build/windows/shots are for people.
"""

import re
import subprocess
import time
from contextlib import contextmanager

from wine_system import WineScenario, command, take_shot, wait_until, windows_path, xdotool  # noqa: I001
from trabex_system import DOMAIN, LOOPBACK, bound, endpoint, is_listening, main

HEADER = " Handle Received     Sent Duration         Host IP Host Name"
ROW = re.compile(r"^ {1,6}\d{1,6} {1,8}\d{1,8} {1,8}\d{1,8} \d\d:\d\d:\d\d {1,15}[0-9.]{7,15} \S+$")
STOPPED = "Trabex 3.04.012 stopped."


class Window(WineScenario):
    def setUp(self):
        super().setUp()
        self.server = self.sample_server()

    def start(self, *arguments):
        self.proxy = self.trabex(self.server.port, {"LogLevelRemote": 15}, arguments=arguments)
        return self.proxy

    def status_line(self):
        return f"{endpoint(self.proxy.port)} --> {endpoint(self.server.port)}"

    def shown(self):
        """What the window of this story shows; nothing when there is none."""
        return next((window for window in self.reader.ask("windows") if window["status"] == self.status_line()), None)

    def wait_for(self, condition, what, seconds=30):
        def held():
            window = self.shown()
            return window if window and condition(window) else None

        return wait_until(held, what, seconds)

    def wait_for_rows(self, count):
        """Waits until so many rows are there and each one that is visible has its text."""
        return self.wait_for(lambda window: window["count"] == count and all(window["rows"]), f"{count} rows")

    def clients(self, count):
        clients = [self.connect(self.proxy.address) for _ in range(count)]
        for client in clients:
            self.assertEqual(client.read_reply()[:3], "220")
        return clients

    def on_display(self):
        """The window's number on the display, once the window manager has it."""
        return wait_until(self.managed, "the window on the display")[0]

    @staticmethod
    def managed():
        """The numbers of the windows that the window manager has; the program has others, which nobody sees."""
        said = subprocess.run(["xprop", "-root", "_NET_CLIENT_LIST"], capture_output=True, text=True, check=True).stdout
        return [window for window in re.findall(r"0x[0-9a-f]+", said) if xdotool("getwindowname", window) == "Trabex"]

    def activate(self):
        window = self.on_display()
        xdotool("windowactivate", "--sync", window)
        return window

    def place_of(self, window):
        """Left, top, width and height of what is inside the frame."""
        said = subprocess.run(["xwininfo", "-id", window], capture_output=True, text=True, check=True).stdout
        return tuple(int(re.search(rf"{name}: +(-?\d+)", said).group(1))
                     for name in ("Absolute upper-left X", "Absolute upper-left Y", "Width", "Height"))

    def handles(self, window):
        return [int(row.split()[0]) for row in window["rows"]]

    def assertServes(self):
        client, = self.clients(1)
        self.assertEqual(client.command("EHLO client.example")[:3], "250")
        client.close()


class Content(Window):
    def test_normal(self):
        self.start()
        window = self.wait_for(lambda shown: shown["visible"], "the window")
        self.assertEqual({name: window[name] for name in ("caption", "minimized", "status", "version", "header", "grip", "count")},
                         {"caption": "Trabex", "minimized": False, "status": self.status_line(), "version": "v. 3.04.012",
                          "header": HEADER, "grip": True, "count": 0})
        self.assertFills(window)
        icon = subprocess.run(["xprop", "-id", self.on_display(), "_NET_WM_ICON"], capture_output=True, text=True, check=True)
        self.assertRegex(icon.stdout, r"Icon \(\d+ x \d+\)")
        take_shot("normal")

    def assertFills(self, window):
        """The list has all that the status line leaves."""
        self.assertEqual(window["list_width"], window["width"])
        self.assertEqual(window["list_height"] + window["bar_height"], window["height"])

    def test_minimized(self):
        self.start("/M")
        window = self.wait_for(lambda shown: shown["minimized"], "the window")
        self.assertTrue(window["visible"], "its button in the task bar")
        clients = self.clients(3)
        self.wait_for(lambda shown: shown["count"] == 3, "the count")
        self.assertEqual(self.shown()["minimized"], True)
        take_shot("minimized")
        self.activate()
        self.wait_for(lambda shown: not shown["minimized"], "the restored window")
        self.assertEqual(len(self.wait_for_rows(3)["rows"]), 3)
        self.assertEqual(clients[0].command("NOOP")[:3], "250")
        take_shot("restored")

    def test_hidden(self):
        for arguments in (("/HI",), ("/HI", "/M")):
            self.start(*arguments)
            self.clients(1)
            self.assertEqual(self.reader.ask("windows"), [], arguments)
            self.assertEqual(self.managed(), [], arguments)
            self.assertEqual(self.proxy.end(), 0)
        take_shot("hidden")

    def test_where_nobody_sees_it(self):
        """As a task that runs whether its user is logged on or not: it serves, without a window and without a word of it."""
        self.proxy = self.trabex(self.server.port, {"LogLevelRemote": 15}, arguments=(), start=False)
        executable = windows_path(command("Trabex.exe")[1])
        start = f'"{executable}" /I "{windows_path(self.proxy.ini)}"'
        self.assertTrue(self.reader.ask(f"start {start}"))
        # Whatever becomes of the story, it is asked to end from where it is.
        self.place.on_leaving(lambda: self.reader.ask(f"start {start} /X") and
                              wait_until(lambda: not is_listening(self.proxy.port), "its end"))
        wait_until(lambda: is_listening(self.proxy.port), "Trabex to listen", 60)
        client, = self.clients(1)
        self.assertIsNone(self.shown())
        self.assertEqual(self.managed(), [])
        self.assertEqual(self.proxy.ask_to_end()[0], 0)
        self.assertEqual(client.command("EHLO client.example")[:3], "250", "a request from another desktop does not reach it")
        self.assertTrue(self.reader.ask(f"start {start} /X"))
        self.assertEqual(client.read_to_end()[:3], b"421")
        wait_until(lambda: self.proxy.log_lines()[-1] == STOPPED, "the last line of the log")
        self.assertNotIn("window", self.proxy.log())

    def test_rows_appear_change_and_go(self):
        self.start()
        first, second, third = self.clients(3)
        window = self.wait_for_rows(3)
        for row in window["rows"]:
            self.assertRegex(row, ROW)
            self.assertEqual(row[34:51], f" {LOOPBACK:>15} ")
        handles = self.handles(window)
        self.assertEqual(handles, sorted(handles), "in order of arrival")
        take_shot("rows")
        first.command("EHLO client.example")
        self.wait_for(lambda shown: int(shown["rows"][0][7:16]) == len("EHLO client.example\r\n"), "the bytes received")
        before = self.shown()["rows"][1][25:34]
        self.wait_for(lambda shown: shown["rows"][1][25:34] > before, "the duration to run")
        second.close()
        self.assertEqual(self.handles(self.wait_for_rows(2)), [handles[0], handles[2]], "no gap")
        fourth, = self.clients(1)
        self.assertEqual(self.handles(self.wait_for_rows(3))[:2], [handles[0], handles[2]], "new ones at the end")
        for client in (first, third, fourth):
            client.close()
        self.wait_for_rows(0)
        take_shot("gone")

    def test_scrolling(self):
        self.start()
        clients = self.clients(200)
        window = self.wait_for_rows(200)
        page = window["page"]
        self.assertLess(page, 100)
        first = self.handles(window)
        on_display = self.activate()
        left, top, width, height = self.place_of(on_display)
        xdotool("mousemove", left + width // 2, top + height // 2)
        for _ in range(4):
            xdotool("click", 5)
        by_wheel = self.wait_for(lambda shown: shown["top"] > 0 and all(shown["rows"]), "the wheel's step")
        self.assertNotEqual(self.handles(by_wheel)[0], first[0])
        take_shot("scrolled by wheel")
        # Below the bar's thumb: a page more.
        xdotool("mousemove", left + width - 8, top + height - 60, "click", 1)
        self.wait_for(lambda shown: shown["top"] > by_wheel["top"] and all(shown["rows"]), "the bar's step")
        xdotool("key", "End")
        last = self.wait_for(lambda shown: shown["top"] + shown["page"] >= 200 and all(shown["rows"]), "the last page")
        take_shot("scrolled to the end")
        last_handles = self.handles(last)
        # It stays where it is while rows go and come below.
        xdotool("key", "Home")
        self.wait_for(lambda shown: shown["top"] == 0 and self.handles(shown) == first, "the first page")
        xdotool("key", "Next", "Next", "Next")
        middle = self.wait_for(lambda shown: shown["top"] > page and all(shown["rows"]), "some pages down")
        clients.pop().close()
        self.wait_for_rows(199)
        self.clients(2)
        stayed = self.wait_for_rows(201)
        self.assertEqual((stayed["top"], self.handles(stayed)), (middle["top"], self.handles(middle)))
        # And is never beyond the end.
        xdotool("key", "End")
        self.wait_for(lambda shown: shown["top"] + shown["page"] >= 201, "the last page")
        for client in clients[5:]:
            client.close()
        shown = self.wait_for_rows(7)
        self.assertEqual((shown["top"], self.handles(shown)[:5]), (0, first[:5]))
        self.assertNotEqual(last_handles[0], first[0])
        take_shot("few left")

    def test_resized(self):
        self.start()
        self.clients(40)
        self.wait_for_rows(40)
        on_display = self.activate()
        before = self.shown()
        for width, height in ((1000, 700), (420, 260), (700, 420)):
            xdotool("windowsize", "--sync", on_display, width, height)
            shown = self.wait_for(lambda window: window["width"] != before["width"] and all(window["rows"]), "the new size")
            self.assertFills(shown)
            self.assertEqual(len(shown["rows"]), min(shown["page"], 40))
            take_shot(f"resized to {width} x {height}")
            before = shown

    def test_keys_without_meaning(self):
        """Those of the table in a terminal are none of a window."""
        self.start()
        self.clients(2)
        self.wait_for_rows(2)
        self.activate()
        xdotool("key", "q", "m", "c", "y", "Escape", "Return", "space", "slash", "Tab")
        self.clients(1)
        self.assertFalse(self.wait_for_rows(3)["minimized"])
        self.assertIsNone(self.proxy.process.status())


class HeldUp(Window):
    """While somebody holds the window, the mail goes on: every reply comes within a second."""

    @contextmanager
    def button_held(self, x, y, moves):
        xdotool("mousemove", x, y, "mousedown", 1)
        try:
            yield [(x + dx, y + dy) for dx, dy in moves]
        finally:
            xdotool("mouseup", 1)

    def talk(self, places):
        """A message between each two moves of the mouse; returns the longest wait for a reply."""
        longest = 0.0
        client, = self.clients(1)
        for place in places:
            xdotool("mousemove", *place)
            for line in ("EHLO client.example", f"MAIL FROM:<s@{DOMAIN}>", f"RCPT TO:<r@{DOMAIN}>", "DATA",
                         "Subject: held\r\n\r\ntext\r\n."):
                begun = time.monotonic()
                reply = client.command(line)
                longest = max(longest, time.monotonic() - begun)
                self.assertIn(reply[:3], ("250", "354"))
        client.close()
        return longest

    MOVES = [(step * 7, step * 5) for step in range(1, 25)]

    def hold(self, name, x, y):
        with self.button_held(x, y, self.MOVES) as places:
            longest = self.talk(places)
            take_shot(name)
        self.assertLess(longest, bound(1.0))
        self.assertEqual(self.server.count(), len(self.MOVES))
        self.assertServes()

    def test_dragged(self):
        self.start()
        self.wait_for(lambda shown: shown["visible"], "the window")
        left, top, width, _ = self.place_of(self.activate())
        self.hold("dragged", left + width // 3, top - 8)
        self.assertNotEqual(self.place_of(self.on_display())[:2], (left, top), "it has moved")

    def test_resized_by_the_grip(self):
        self.start()
        self.wait_for(lambda shown: shown["visible"], "the window")
        left, top, width, height = self.place_of(self.activate())
        self.hold("resized by the grip", left + width - 5, top + height - 5)
        self.assertGreater(self.place_of(self.on_display())[2:], (width, height), "it has grown")

    def test_scroll_bar_held(self):
        self.start()
        self.clients(100)
        self.wait_for_rows(100)
        left, top, width, _ = self.place_of(self.activate())
        self.hold("scroll bar held", left + width - 8, top + 40)


class End(Window):
    def closed_by(self, *keys):
        self.start()
        self.wait_for(lambda shown: shown["visible"], "the window")
        clients = self.clients(3)
        self.wait_for_rows(3)
        self.activate()
        xdotool(*keys)
        for client in clients:
            self.assertEqual(client.read_to_end()[:3], b"421")
        self.assertEqual(self.proxy.process.wait(), 0)
        self.assertEqual(self.proxy.log_lines()[-1], STOPPED)
        self.assertEqual(self.reader.ask("windows"), [])

    def test_alt_f4(self):
        self.closed_by("key", "alt+F4")

    def test_close_request_of_the_window_manager(self):
        """What the close button does."""
        self.start()
        self.wait_for(lambda shown: shown["visible"], "the window")
        client, = self.clients(1)
        window = self.activate()
        left, top, width, _ = self.place_of(window)
        xdotool("mousemove", left + width - 9, top - 10, "click", 1)
        self.assertEqual(client.read_to_end()[:3], b"421")
        self.assertEqual(self.proxy.process.wait(), 0)
        self.assertEqual(self.proxy.log_lines()[-1], STOPPED)

    def test_exit_request(self):
        self.start()
        self.wait_for(lambda shown: shown["visible"], "the window")
        self.assertEqual(self.proxy.end(), 0)
        self.assertEqual(self.reader.ask("windows"), [])
        self.assertEqual(self.proxy.log_lines()[-1], STOPPED)


if __name__ == "__main__":
    main()
