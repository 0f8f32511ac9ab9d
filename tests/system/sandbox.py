"""Whether the program can close itself in wholly here, as it says itself."""

import functools
import tempfile
from pathlib import Path

from trabex_system import LOOPBACK, free_port, ini_text, run_trabex

REFUSED = "Trabex: Sandbox=2 is not possible: "


@functools.cache
def why_no_sandbox():
    """What is missing, or None."""
    port = free_port()
    with tempfile.TemporaryDirectory(prefix="trabex-") as folder:
        # What ends by itself: the server is the listener.
        ini = Path(folder) / "loop.ini"
        ini.write_text(ini_text({"BindIP": LOOPBACK, "BindPort": port, "ServerIP": LOOPBACK, "ServerPort": port, "Log": 0},
                                {"Service": {"Sandbox": 2}}))
        status, _, errors = run_trabex("/I", ini, "/HI")
    if errors.startswith(REFUSED):
        return errors[len(REFUSED):].strip()
    if status != 1 or "Loop detected" not in errors:
        raise AssertionError(f"status {status}: {errors}")
    return None
