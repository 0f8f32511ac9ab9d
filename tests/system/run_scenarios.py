#!/usr/bin/env python3
"""Runs the scenarios of this folder, several at a time; the last line counts their cases.

    ./run_scenarios.py                               all of them with build/release
    ./run_scenarios.py --build build/asan test_relay.py
    ./run_scenarios.py --ipv6                        all of them on ::1
    ./run_scenarios.py --sandbox 2                   all of them in a sandbox that must be whole
"""

import argparse
import os
import re
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor, as_completed
from pathlib import Path

from sandbox import why_no_sandbox
from trabex_system import add_options, take_options
from unpacked_servers import unpack_all

FOLDER = Path(__file__).resolve().parent
SCENARIO_SECONDS = 300
# Those that only ./test --full plays, and one that plays thousands of sessions, for which a busy machine takes its time.
LONG_SCENARIO_SECONDS = 600
LONG_SCENARIOS = ("test_hostile.py",)


def run_scenario(scenario, arguments):
    """Runs one scenario; returns (passed, failed, skipped), its output and its time."""
    begun = time.monotonic()
    command = [sys.executable, str(FOLDER / scenario), "--build", str(arguments.build), "--through", arguments.through,
               "--patience", str(arguments.patience), *(["--keep"] if arguments.keep else []),
               *(["--ipv6"] if arguments.ipv6 else []),
               *(["--sandbox", str(arguments.sandbox)] if arguments.sandbox is not None else [])]
    child = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             text=True, errors="replace")
    try:
        is_long = scenario.startswith("full_") or scenario in LONG_SCENARIOS
        seconds = LONG_SCENARIO_SECONDS if is_long else SCENARIO_SECONDS
        said, _ = child.communicate(timeout=seconds * arguments.patience)
    except subprocess.TimeoutExpired:
        # So it can put away what it has started.
        child.terminate()
        said, _ = child.communicate()
        said += "  the scenario did not end in time\n"
    last = re.search(r"^(\d+) passed, (\d+) failed, (\d+) skipped\n\Z", said, re.MULTILINE)
    count = list(map(int, last.groups())) if last else [0, 1, 0]
    if child.returncode != 0 and count[1] == 0:
        count[1] = 1
    return count, said, time.monotonic() - begun


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("scenarios", nargs="*", help="names of scripts; all when none is given")
    parser.add_argument("-j", "--jobs", type=int, default=2 * len(os.sched_getaffinity(0)), help="scenarios at a time")
    add_options(parser)
    arguments = parser.parse_args()
    scenarios = arguments.scenarios or sorted(path.name for path in FOLDER.glob("test_*.py"))
    take_options(arguments)
    if arguments.sandbox == 2 and (why_not := why_no_sandbox()):
        print(f"    no sandbox here: {why_not}\n0 passed, 0 failed, {len(scenarios)} skipped")
        return
    if arguments.ipv6 and os.geteuid() == 0:
        unpack_all()
    total = [0, 0, 0]
    with ThreadPoolExecutor(arguments.jobs) as pool:
        running = {pool.submit(run_scenario, scenario, arguments): scenario for scenario in scenarios}
        for done in as_completed(running):
            count, said, seconds = done.result()
            total = [a + b for a, b in zip(total, count)]
            print(f"{'FAILED' if count[1] else 'passed'} {seconds:6.1f} s  {running[done]}: "
                  f"{count[0]} passed, {count[1]} failed, {count[2]} skipped")
            if count[1]:
                print(said)
            else:
                # What a scenario has to say beside how its cases went.
                for line in said.splitlines()[:-1]:
                    if not line.startswith(" "):
                        print(f"    {running[done]}: {line}")
            sys.stdout.flush()
    print(f"{total[0]} passed, {total[1]} failed, {total[2]} skipped")
    sys.exit(1 if total[1] else 0)


if __name__ == "__main__":
    main()
