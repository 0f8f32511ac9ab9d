#!/usr/bin/env python3
"""Plays one story of crash_stories.py, to understand what full_crash_safety.py has found.

    ./play_crash_story.py                                    the names of all stories
    ./play_crash_story.py "new day"                          without a kill, and says at which calls it can be killed
    ./play_crash_story.py "new day" --at 0:12:all            killed there: who, the number of the stop, and the victims
    ./play_crash_story.py "new day" --at 0:12:all --times 9  so many times, several at a time
"""

import argparse
import os
import sys
from concurrent.futures import ThreadPoolExecutor

from crash_points import point_of
from crash_runs import STORIES, Player
from processes import Place
from trabex_system import add_options, take_options


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("story", nargs="?", choices=[story.name for story in STORIES], metavar="STORY")
    parser.add_argument("--at", type=point_of, metavar="WHO:NUMBER:VICTIMS")
    parser.add_argument("--part", type=float, help="how much of a torn line came to the disk")
    parser.add_argument("--times", type=int, default=1)
    add_options(parser)
    arguments = parser.parse_args()
    take_options(arguments)
    if not arguments.story:
        print(*(story.name for story in STORIES), sep="\n")
        return
    story = next(story for story in STORIES if story.name == arguments.story)
    more = {} if arguments.part is None else {"part": arguments.part}
    jobs = min(arguments.times, 2 * len(os.sched_getaffinity(0)))
    place = Place("crash")
    place.keep = arguments.keep
    try:
        player = Player(place, jobs)
        with ThreadPoolExecutor(jobs) as pool:
            results = list(pool.map(lambda _: player.play_once(story, arguments.at, more), range(arguments.times)))
    finally:
        place.leave()
    failed = 0
    for run, failure in results:
        failed += failure is not None
        if failure or run is None:
            print(failure or "the point did not come")
        else:
            print(*(f"{stop.who}:{stop.number} {stop}, of {stop.living}: {stop.result}" for stop in run.stops()), sep="\n")
    print(f"{len(results)} played, {failed} failed")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
