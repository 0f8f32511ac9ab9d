#!/usr/bin/env python3
"""Clients that send a byte a second, in each phase of the dialogue, in the clear and under TLS. It takes half a minute."""

from fault_plays import slow_table
from fault_runs import FaultScenario
from trabex_system import main, only_ipv4

# A handshake may take so many seconds, which one of a byte a second does not keep.
PATIENCE = 20


@only_ipv4("each play has an address of its own")
class Slow(FaultScenario):
    def test_a_byte_a_second_in_each_phase(self):
        found, count = self.play(slow_table, PATIENCE)
        if found:
            self.fail("\n".join(found))
        print(f"{count} sessions of a byte a second")


if __name__ == "__main__":
    main()
