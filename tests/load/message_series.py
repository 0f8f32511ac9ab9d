#!/usr/bin/env python3
"""A series of messages, after which the memory is what it was after the first tenth.

    tests/load/message_series.py MESSAGES [options of the system tests]
"""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tests" / "system"))
from full_load import MessageSeries  # noqa: E402
from trabex_system import main  # noqa: E402

if __name__ == "__main__":
    MessageSeries.MESSAGES = int(sys.argv.pop(1))
    main()
