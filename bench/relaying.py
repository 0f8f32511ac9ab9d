"""What the benchmarks of relaying share: messages through two proxies in turn, and the table of ratios.

Messages of 4 KB go from smtp-source to smtp-sink, 20 sessions at a time, once with a connection for each message and
once over connections that stay; through Trabex and through HAProxy with one thread, in turn. The ratio is that of the
messages per second in one round; the table shows the median of the rounds.
"""

import argparse
import resource
import signal
import statistics
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "system"))
from trabex_system import LOOPBACK, HaProxy, Options, Place, SmtpSink, connections_to, wait_until  # noqa: E402

SENDER = "sender@test.example"
RECIPIENT = "recipient@test.example"
# What a terminal, timeout(1) or a logout sends.
ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
KINDS = {"a connection per message": [], "connections that stay": ["-d"]}


def parser_of(description, messages=5000):
    """What all of them have on their command lines. `messages` is a default."""
    parser = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=Path, default=Options.build, help="the build folder with Trabex")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--messages", type=int, default=messages, help="messages of a run")
    parser.add_argument("--sessions", type=int, default=20, help="sessions at a time")
    parser.add_argument("--size", type=int, default=4096, help="bytes of a message")
    return parser


def end_in_order(number, _frame):
    """Ends this process as its own end would, so that all that it started is put away; once."""
    for each in ENDING_SIGNALS:
        signal.signal(each, signal.SIG_IGN)
    sys.exit(128 + number)


def arguments_of(parser):
    """Reads the command line, and prepares this process for many connections and for a signal that ends it."""
    arguments = parser.parse_args()
    for number in ENDING_SIGNALS:
        signal.signal(number, end_in_order)
    Options.build = arguments.build.resolve()
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    return arguments


def in_place(work):
    """work(place) with a place of its own."""
    place = Place("bench")
    try:
        return work(place)
    finally:
        place.leave()


def messages_per_second(proxy, arguments, more):
    command = ["smtp-source", "-M", "localhost", "-m", arguments.messages, "-s", arguments.sessions,
               "-l", arguments.size, "-f", SENDER, "-t", RECIPIENT, *more, f"inet:{LOOPBACK}:{proxy.port}"]
    begun = time.perf_counter()
    done = subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=300, check=False)
    seconds = time.perf_counter() - begun
    if done.returncode != 0 or done.stderr:
        raise SystemExit(f"smtp-source failed: {done.stderr}")
    return arguments.messages / seconds


def both_rates(proxy, arguments, more):
    """The messages per second by the clock, and per second of the proxy's own processor time."""
    # The clock of all threads of another process, as clock_getcpuclockid() makes its number.
    clock = ~proxy.process.pid << 3 | 2
    before = time.clock_gettime(clock)
    by_clock = messages_per_second(proxy, arguments, more)
    # What a session costs when it ends counts as well.
    wait_until(lambda: connections_to(proxy.server_port) == 0, "the ends of all sessions")
    return by_clock, arguments.messages / (time.clock_gettime(clock) - before)


def messages_per_processor_second(proxy, arguments, more):
    return both_rates(proxy, arguments, more)[1]


def measure_in_turn(proxies, arguments, rate_of):
    """Returns for each kind the rates of the proxies, round by round."""
    rates = {kind: {name: [] for name in proxies} for kind in KINDS}
    for number in range(arguments.rounds + 1):
        for kind, more in KINDS.items():
            # Who is first changes from round to round.
            names = list(proxies) if number % 2 else list(reversed(proxies))
            for name in names:
                rate = rate_of(proxies[name], arguments, more)
                if number > 0:  # the first round warms up
                    rates[kind][name].append(rate)
    return rates


def measure_relaying(place, arguments, make_trabex):
    """Returns for each kind the rates of Trabex and of HAProxy, round by round; each is that of both_rates()."""
    sink = SmtpSink(place)
    proxies = {"Trabex": make_trabex(place, sink.port), "HAProxy": HaProxy(place, sink.port)}
    return measure_in_turn(proxies, arguments, both_rates)


def print_both_ratios(rates, least):
    """The tables of what measure_relaying() returns; returns whether every ratio by the clock is at least `least`."""
    def one(which):
        return {kind: {name: [rate[which] for rate in of] for name, of in by_name.items()}
                for kind, by_name in rates.items()}

    good = print_ratios(one(0), least, "by the clock")
    print_ratios(one(1), 0, "of processor time")
    return good


def print_ratios(rates, least, title=""):
    """Prints the table of the first proxy and the second; returns whether every ratio is at least `least`."""
    good = True
    first, second = next(iter(rates.values()))
    print(f"{title:28}{first:>12}{second:>12}{'ratio':>8}   of the rounds")
    for kind, by_name in rates.items():
        ratios = [ours / theirs for ours, theirs in zip(by_name[first], by_name[second])]
        ratio = statistics.median(ratios)
        good &= ratio >= least
        print(f"{kind:28}{statistics.median(by_name[first]):10.0f}/s{statistics.median(by_name[second]):10.0f}/s"
              f"{ratio:8.2f}   {min(ratios):.2f} to {max(ratios):.2f}")
    return good
