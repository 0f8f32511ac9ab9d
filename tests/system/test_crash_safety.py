#!/usr/bin/env python3
"""Trabex is killed at system calls of saves, log rotations, imports and renewals: what was whole is found whole.

As many of these calls as fit into some seconds; full_crash_safety.py has all of them.
"""

from crash_runs import STORIES, CrashScenario
from trabex_system import main


class Killed(CrashScenario):
    def test_at_some_calls(self):
        self.play(STORIES, 12)


if __name__ == "__main__":
    main()
