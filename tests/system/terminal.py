"""A terminal for programs that draw on one."""

import os
import signal
import subprocess

from processes import bound, wait_until


class Terminal:
    """A terminal (tmux, with a server of its own) in which one command runs."""

    def __init__(self, place, command, columns=100, rows=30, environment=None):
        self._folder = place.new_folder("terminal")
        configuration = self._folder / "tmux.conf"
        configuration.write_text("set -g remain-on-exit on\nset -g status off\nset -g escape-time 0\n")
        self._environment = {key: value for key, value in os.environ.items() if key != "TMUX"}
        self._environment.update({"LC_ALL": "C.UTF-8", **(environment or {})})
        self._tmux("-f", configuration, "new-session", "-d", "-s", "scenario", "-x", columns, "-y", rows,
                   "--", *command)
        place.on_leaving(self.close)
        self.pid = int(self._tmux("display-message", "-p", "#{pane_pid}"))

    def _tmux(self, *arguments):
        done = subprocess.run(["tmux", "-u", "-S", str(self._folder / "socket"), *map(str, arguments)],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=bound(20),
                              check=False, env=self._environment)
        if done.returncode != 0:
            raise AssertionError(f"tmux {arguments[0]}: {done.stderr}")
        return done.stdout

    def screen(self):
        """The lines that can be seen now, without blanks at their ends."""
        return self._tmux("capture-pane", "-p").split("\n")

    def keys(self, *keys):
        """Presses keys, in tmux's names ("q", "C-c", "NPage", "Down", "Enter")."""
        self._tmux("send-keys", *keys)

    def resize(self, columns, rows):
        self._tmux("resize-window", "-x", columns, "-y", rows)

    def wait_for(self, condition, what, seconds=20):
        """Waits until `condition` holds for the lines of the screen; returns them."""
        last = []

        def holds():
            last[:] = self.screen()
            return condition(last)

        try:
            wait_until(holds, what, seconds)
        except AssertionError as error:
            raise AssertionError(f"{error}; the screen is:\n" + "\n".join(last)) from None
        return last

    def wait_for_text(self, text, seconds=20):
        return self.wait_for(lambda lines: any(text in line for line in lines), f"{text!r} on the screen", seconds)

    def status(self):
        """The exit status of the command, or None while it runs; the negative signal number when a signal ended it."""
        dead, status, number, server = self._tmux(
            "display-message", "-p", "#{pane_dead}/#{pane_dead_status}/#{pane_dead_signal}/#{pid}").strip().split("/")
        if number:
            return -int(number)
        if dead == "1" and not status:
            # The command's last word has come, its end not yet; tmux misses that now and then until it is told again.
            os.kill(int(server), signal.SIGCHLD)
        return int(status) if status else None

    def wait(self, seconds=20):
        wait_until(lambda: self.status() is not None, "the command to end", seconds)
        return self.status()

    def close(self):
        self._tmux("kill-server")
