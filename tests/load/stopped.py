#!/usr/bin/env python3
"""Trabex stands still under load for real, three times for so many seconds, with time-outs of half of that.

    tests/load/stopped.py SECONDS [options of the system tests]
"""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tests" / "system"))
from test_stopped import Stopped  # noqa: E402
from trabex_system import main  # noqa: E402

if __name__ == "__main__":
    Stopped.REAL_SECONDS = float(sys.argv.pop(1))
    if "--patience" not in sys.argv:
        # The peers of the test wait for whatever comes next while nothing can.
        sys.argv += ["--patience", str(2 + Stopped.REAL_SECONDS / 10)]
    main()
