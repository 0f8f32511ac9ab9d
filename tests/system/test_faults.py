#!/usr/bin/env python3
"""Faults of the server and of the client in each phase of the dialogue, in the clear and under TLS.

What a play waits for is an event, but for a server or a handshake that hangs. Those that take their time are in
full_faults.py.
"""

from fault_plays import HANDSHAKE, table
from fault_runs import FaultScenario
from trabex_system import main, only_ipv4

# What the server may owe for so many seconds, and a handshake may take, where that is what is tested.
PATIENCE = 4


def waits_for_time(row):
    side, fault, phase = row
    return (side, fault) == ("server", "hangs") or (phase, fault) == (HANDSHAKE, "is silent")


@only_ipv4("each play has an address of its own")
class Phases(FaultScenario):
    def test_each_fault_in_each_phase(self):
        """First those that wait for time alone, so that no other session is taken for one of them."""
        found, count = self.play(lambda transport: filter(waits_for_time, table(transport)), PATIENCE)
        more, others = self.play(lambda transport: (row for row in table(transport) if not waits_for_time(row)), 120)
        if found + more:
            self.fail("\n".join(found + more))
        print(f"{count + others} sessions with a fault")


if __name__ == "__main__":
    main()
