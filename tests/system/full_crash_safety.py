#!/usr/bin/env python3
"""Trabex is killed at every system call of saves, log rotations, imports and renewals: what was whole is found whole."""

from crash_runs import CERTIFICATE_STORIES, DATABASE_STORIES, LOG_STORIES, CrashScenario
from trabex_system import main


class Killed(CrashScenario):
    def test_at_every_call_with_the_database(self):
        self.play(DATABASE_STORIES)

    def test_at_every_call_with_the_logs(self):
        self.play(LOG_STORIES)

    def test_at_every_call_with_certificates(self):
        self.play(CERTIFICATE_STORIES)


if __name__ == "__main__":
    main()
