"""What the tests that work in a root of their own say of themselves."""

import contextlib
import time
import traceback

from fresh_root import Failed


class Checks:
    """Counts what holds and what does not, and says it with the time since the beginning."""

    def __init__(self):
        self.passed = self.failed = 0
        self._begun = time.monotonic()

    def say(self, text):
        print(f"{time.monotonic() - self._begun:7.1f} s  {text}", flush=True)

    def check(self, holds, what, explanation=""):
        if holds:
            self.passed += 1
        else:
            self.failed += 1
        self.say(f"{'passed' if holds else 'FAILED'}: {what}")
        if not holds and explanation:
            print(f"---- {what}:\n{explanation}\n---- end of {what}", flush=True)

    @contextlib.contextmanager
    def step(self, name):
        """What is done inside belongs to one step; an exception ends the step and counts as one failure."""
        self.say(name)
        try:
            yield
        except Failed as failure:
            self.check(False, name, str(failure))
        except Exception:
            self.check(False, name, traceback.format_exc())
