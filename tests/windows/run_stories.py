#!/usr/bin/env python3
"""Runs the stories of the program for Windows; the last line counts their cases.

    tests/windows/run_stories.py [--build build/windows] [script]...

WINEPREFIX and DISPLAY name a prefix whose wineserver runs, and a display without a window manager: one is started here and
ended again. The scripts run one after the other, since they share the keyboard. A case that fails is run once more by itself;
a line names it when it passes then.
"""

import argparse
import os
import re
import signal
import subprocess
import sys
import time
from pathlib import Path

FOLDER = Path(__file__).resolve().parent
REPO = FOLDER.parents[1]
SCRIPT_SECONDS = 600
# When more cases of a script fail it is no matter of a busy machine.
MAX_RUN_AGAIN = 5


def run_script(script, cases, arguments, environment):
    """Runs one script, or some cases of it; returns (passed, failed, skipped), and its output."""
    command = [sys.executable, str(FOLDER / script), "--build", str(arguments.servers), "--patience", str(arguments.patience),
               *(["--keep"] if arguments.keep else []), *cases]
    child = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                             errors="replace", env=environment)
    try:
        said, _ = child.communicate(timeout=SCRIPT_SECONDS * arguments.patience)
    except (subprocess.TimeoutExpired, KeyboardInterrupt) as late:
        # So it can put away what it has started.
        child.terminate()
        said, _ = child.communicate()
        said += "  the script did not end in time\n"
        if isinstance(late, KeyboardInterrupt):
            raise
    last = re.search(r"^(\d+) passed, (\d+) failed, (\d+) skipped\n\Z", said, re.MULTILINE)
    count = list(map(int, last.groups())) if last else [0, 1, 0]
    if child.returncode != 0 and count[1] == 0:
        count[1] = 1
    return count, said


def failed_cases(script, said):
    """Class.method of the cases that failed."""
    return re.findall(rf"^  FAILED +[\d.]+ s  {re.escape(Path(script).stem)}\.(\w+\.\w+)$", said, re.MULTILINE)


def run_again(script, cases, count, arguments, environment):
    """Runs cases that failed once more, each by itself, and counts anew; returns the names of those that pass, and what the
    others said.
    """
    better, said = [], ""
    for case in cases:
        (passed, _, _), said_alone = run_script(script, [case], arguments, environment)
        if passed:
            better.append(f"{Path(script).stem}.{case}")
            count[0], count[1] = count[0] + 1, count[1] - 1
        else:
            said += f"once more:\n{said_alone}"
    return better, said


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("scripts", nargs="*", help="names of scripts; all when none is given")
    parser.add_argument("--build", type=Path, default=REPO / "build" / "windows", help="the build under test")
    parser.add_argument("--servers", type=Path, default=REPO / "build" / "release", help="where the sample mail server is")
    parser.add_argument("--patience", type=float, default=2.0, help="factor for all bounds")
    parser.add_argument("--keep", action="store_true", help="keep the folders of cases that fail")
    arguments = parser.parse_args()
    for name in ("WINEPREFIX", "DISPLAY"):
        if not os.environ.get(name):
            sys.exit(f"run_stories.py: {name} is not set")
    if not (arguments.servers / "tools" / "sample_mail_server" / "sample_mail_server").exists():
        subprocess.run([REPO / "scripts" / "build", "--program", arguments.servers.name, "sample_mail_server"], check=True)
    environment = {**os.environ, "TRABEX_WINDOWS_BUILD": str(arguments.build.resolve())}
    scripts = arguments.scripts or sorted(path.name for path in FOLDER.glob("test_*.py"))
    manager = subprocess.Popen(["openbox"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    # SIGTERM ends a run like Ctrl-C.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    total = [0, 0, 0]
    left_out, better = [], []
    try:
        for script in scripts:
            begun = time.monotonic()
            count, said = run_script(script, [], arguments, environment)
            cases = failed_cases(script, said)
            if 0 < len(cases) <= MAX_RUN_AGAIN:
                passed_alone, said_again = run_again(script, cases, count, arguments, environment)
                better += passed_alone
                if passed_alone:
                    print(said)
                said += said_again
            total = [a + b for a, b in zip(total, count)]
            print(f"{'FAILED' if count[1] else 'passed'} {time.monotonic() - begun:6.1f} s  {script}: "
                  f"{count[0]} passed, {count[1]} failed, {count[2]} skipped")
            left_out += re.findall(r"^  skipped \(Wine: (.*)\) +[\d.]+ s  (\w+\.\w+\.\w+)$", said, re.MULTILINE)
            if count[1]:
                print(said)
            sys.stdout.flush()
    finally:
        manager.terminate()
        manager.wait()
    for reason, case in left_out:
        print(f"left out because of Wine: {case}: {reason}")
    for case in better:
        print(f"passed when run once more: {case}")
    print(f"{total[0]} passed, {total[1]} failed, {total[2]} skipped")
    sys.exit(1 if total[1] else 0)


if __name__ == "__main__":
    main()
