"""A clock that a test moves for one program: tests/support/linux/shifted_clock.cpp."""

import struct

from processes import program

NANOSECONDS = 1_000_000_000


class ShiftedClock:
    """The clocks of the programs that are started with `wrapper` in front of their command.

    Timers that a jump makes due are called when the program wakes, which Trabex does twice a second.
    """

    def __init__(self, folder):
        self._file = folder / "clock"
        self._wall = self._monotonic = 0
        self._file.write_bytes(bytes(16))
        self.wrapper = ["env", f"LD_PRELOAD={program('tests/libshifted_clock.so')}", f"SHIFTED_CLOCK={self._file}"]

    def move(self, wall=0, monotonic=0):
        """Moves them by so many seconds, forward or back, beside what they are moved by already."""
        self._wall += round(wall * NANOSECONDS)
        self._monotonic += round(monotonic * NANOSECONDS)
        # In place: the programs have the file mapped.
        with open(self._file, "r+b", buffering=0) as file:
            file.write(struct.pack("=qq", self._wall, self._monotonic))
