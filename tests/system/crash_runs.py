"""Plays stories of crash_stories.py: first without a kill, then once for each point at which one is killed."""

import itertools
import os
import queue
import random
import shutil
import time
import traceback
from concurrent.futures import ThreadPoolExecutor

import crash_stories
from crash_points import Point, kill_points
from processes import free_port
from trabex_system import LOOPBACK, Authority, Scenario

DATABASE_STORIES = [crash_stories.SaveInBackground, crash_stories.SaveWithoutLinks, crash_stories.SaveAtEnd,
                    crash_stories.FirstSave, crash_stories.SaveAtReload, crash_stories.Import,
                    crash_stories.ImportInstead, crash_stories.ImportIntoInstance, crash_stories.DeleteFromFile]
LOG_STORIES = [crash_stories.MovedLogs, crash_stories.NewDay, crash_stories.TornLine]
CERTIFICATE_STORIES = [crash_stories.Renewal, crash_stories.RenewalByReload, crash_stories.RenewalMeanwhile]
STORIES = [*DATABASE_STORIES, *LOG_STORIES, *CERTIFICATE_STORIES]
# Of a line that is torn in a hundred places most would show the same.
TORN_PARTS = (0, 0.5, 1)
# The calls of two runs may differ by a few, so a point that does not come is tried again.
TRIES = 3


class Shared:
    """Certificates, which take long to make, and the ports of TLS."""

    def __init__(self, place):
        self.authority = Authority(place)
        self.old, self.new, self.third = (self.authority.issue(["localhost", LOOPBACK]) for _ in range(3))
        self._tls_ports = {}

    def tls_port(self, port):
        return self._tls_ports.setdefault(port, free_port())


def ways(story, stops):
    """The story's points, each with what is set on the story before it is played."""
    if story is crash_stories.TornLine:
        return [(point, {"part": part}) for point in kill_points(stops) if crash_stories.is_torn_stop(point.stop)
                for part in TORN_PARTS]
    if story is crash_stories.RenewalMeanwhile:
        return [(Point(stop, "none"), {}) for stop in stops]
    return [(point, {}) for point in kill_points(stops)]


class Player:
    """Plays runs of stories, each in a folder of its own in the place, from up to `jobs` threads."""

    def __init__(self, place, jobs):
        self._place = place
        self._ports = queue.Queue()
        for _ in range(jobs):
            self._ports.put(free_port())
        self._shared = Shared(place)
        self._numbers = itertools.count()

    def play_once(self, story, point, more):
        """(the run or None when the point did not come, what was wrong or None)"""
        port = self._ports.get()
        folder = self._place.folder / f"run{next(self._numbers)}"
        folder.mkdir()
        try:
            played = story(folder, port, self._shared)
            for name, value in more.items():
                setattr(played, name, value)
            run = played.execute(point)
            if point is None and isinstance(played, crash_stories.DatabaseStory):
                crash_stories.check_order(run.stops(), played.database)
            shutil.rmtree(folder)
            return run, None
        except Exception as error:
            where = traceback.extract_tb(error.__traceback__)[-2:]
            places = ", ".join(f"{at.name}:{at.lineno}" for at in where)
            return None, f"{story.name}, {point} {more or ''}: {type(error).__name__} {error} ({places})"
        finally:
            self._ports.put(port)


class CrashScenario(Scenario):
    """`self.play(stories, seconds)` kills them at as many of their points as fit into this time, or at all without it.

    Which ones they are a seed decides, which is printed; one of each story is played in any case.
    """

    def setUp(self):
        super().setUp()
        self._jobs = 2 * len(os.sched_getaffinity(0))
        self._player = Player(self.place, self._jobs)

    def play_in_time(self, end, *way):
        """As play_once, until the point comes; nothing at all when it is too late."""
        if end is not None and time.monotonic() > end:
            return None
        for _ in range(TRIES):
            run, failure = self._player.play_once(*way)
            if run or failure:
                break
        return run, failure

    def play(self, stories, seconds=None):
        end = None if seconds is None else time.monotonic() + seconds
        seed = random.randrange(1_000_000)
        choice = random.Random(seed)
        failures, played = [], []
        with ThreadPoolExecutor(self._jobs) as pool:
            whole = list(pool.map(lambda story: self._player.play_once(story, None, {}), stories))
            failures += [failure for _, failure in whole if failure]
            all_ways = [(story, *way) for story, (run, _) in zip(stories, whole) if run for way in ways(story, run.stops())]
            choice.shuffle(all_ways)
            first = {way[0]: number for number, way in reversed(list(enumerate(all_ways)))}
            futures = [pool.submit(self.play_in_time, None if first[way[0]] == number else end, *way)
                       for number, way in enumerate(all_ways)]
            played = [(way[0], future.result()) for way, future in zip(all_ways, futures)]
        summary, kills = [], 0
        for story in stories:
            results = [result for each, result in played if each is story and result is not None]
            failures += [failure for _, failure in results if failure]
            missed = sum(run is None and failure is None for run, failure in results)
            # Those that only the run without a kill had, for memory say.
            if missed > 2 + len(results) // 20:
                failures.append(f"{story.name}: {missed} of {len(results)} points did not come")
            kills += len(results) - missed
            summary.append(f"{story.name} {len(results) - missed} of {sum(each is story for each, _ in played)}")
        print(f"{kills} points (seed {seed}): {', '.join(summary)}")
        if failures:
            self.fail("\n".join([f"{len(failures)} of {kills}:", *failures[:40]]))
