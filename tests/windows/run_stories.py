#!/usr/bin/env python3
"""Runs the stories of the program for Windows; the last line counts their cases.

    tests/windows/run_stories.py [--build build/windows] [script]...

WINEPREFIX and DISPLAY name a prefix whose wineserver runs, and a display without a window manager: one is started here and
ended again. The scripts run one after the other, since they share the keyboard.
"""

import argparse
import os
import re
import subprocess
import sys
import time
from pathlib import Path

FOLDER = Path(__file__).resolve().parent
REPO = FOLDER.parents[1]
SCRIPT_SECONDS = 600
# So many cases may be left out because of what Wine cannot.
MAX_LEFT_OUT = 10


def run_script(script, arguments, environment):
    """Runs one script; returns (passed, failed, skipped), and its output."""
    command = [sys.executable, str(FOLDER / script), "--build", str(arguments.servers), "--patience", str(arguments.patience),
               *(["--keep"] if arguments.keep else [])]
    child = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                             errors="replace", env=environment)
    try:
        said, _ = child.communicate(timeout=SCRIPT_SECONDS * arguments.patience)
    except subprocess.TimeoutExpired:
        # So it can put away what it has started.
        child.terminate()
        said, _ = child.communicate()
        said += "  the script did not end in time\n"
    last = re.search(r"^(\d+) passed, (\d+) failed, (\d+) skipped\n\Z", said, re.MULTILINE)
    count = list(map(int, last.groups())) if last else [0, 1, 0]
    if child.returncode != 0 and count[1] == 0:
        count[1] = 1
    return count, said


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
    total = [0, 0, 0]
    left_out = []
    try:
        for script in scripts:
            begun = time.monotonic()
            count, said = run_script(script, arguments, environment)
            total = [a + b for a, b in zip(total, count)]
            print(f"{'FAILED' if count[1] else 'passed'} {time.monotonic() - begun:6.1f} s  {script}: "
                  f"{count[0]} passed, {count[1]} failed, {count[2]} skipped")
            left_out += [line.strip() for line in said.splitlines() if "skipped (Wine: " in line]
            if count[1]:
                print(said)
            sys.stdout.flush()
    finally:
        manager.terminate()
        manager.wait()
    print(f"left out because of Wine: {len(left_out)}", *left_out, sep="\n    ")
    if len(left_out) > MAX_LEFT_OUT:
        print(f"more than {MAX_LEFT_OUT} stories are left out because of Wine")
        total[1] += 1
    print(f"{total[0]} passed, {total[1]} failed, {total[2]} skipped")
    sys.exit(1 if total[1] else 0)


if __name__ == "__main__":
    main()
