"""Alternating measurements, and the rows of results.

Each benchmark is a function in a module beside this one; it runs as root inside
scripts/sandbox and hands its rows to emit(), which prints one line of JSON each.
"""

import json
import os
import resource
import statistics
import subprocess
import sys
import time
from pathlib import Path

BENCH = Path("/run/bench")
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/run/tmp", "LC_ALL": "C.UTF-8"}


class NotMeasured(Exception):
    """With the reason."""


def note(text):
    print(f"  {text}", file=sys.stderr, flush=True)


def timed(*argv, stdin="/dev/null", stdout="/run/bench.said", limit=None, descriptors=None):
    """Seconds from the start of a program to its end. limit: in seconds, None when
    it takes longer; descriptors: its RLIMIT_NOFILE."""
    before = resource.getrlimit(resource.RLIMIT_NOFILE)
    with open(stdin, "rb") as given, open(stdout, "wb") as taken, open("/run/bench.errors", "wb") as errors:
        actions = [(os.POSIX_SPAWN_DUP2, given.fileno(), 0), (os.POSIX_SPAWN_DUP2, taken.fileno(), 1),
                   (os.POSIX_SPAWN_DUP2, errors.fileno(), 2)]
        if descriptors:
            resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, before[1]))
        try:
            start = time.perf_counter()
            argv = [str(word) for word in argv]
            if limit:
                argv = ["/usr/bin/timeout", str(limit), *argv]
            pid = os.posix_spawn(argv[0], argv, ENVIRONMENT, file_actions=actions)
            status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
            seconds = time.perf_counter() - start
        finally:
            resource.setrlimit(resource.RLIMIT_NOFILE, before)
    if limit and status == 124:
        return None
    if status != 0:
        said = (Path(stdout).read_bytes()[-2000:] + Path("/run/bench.errors").read_bytes()[-2000:]).decode(errors="replace")
        raise NotMeasured(f"{' '.join(argv[:4])} ended with {status}: {' '.join(said.split())}")
    return seconds


def values_of(*argv):
    """The "NAME VALUE" lines that a timer prints."""
    argv = [str(word) for word in argv]
    run = subprocess.run(argv, env={**ENVIRONMENT, "TORVA_SANDBOX": "namespaces"}, text=True,
                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    if run.returncode != 0:
        raise NotMeasured(f"{argv[0].rsplit('/', 1)[1]}: {run.stderr.strip()}")
    return {name: float(value) for name, value in (line.split() for line in run.stdout.splitlines())}


def by_turns(rounds, *sides):
    """What each side returns, round by round, after one round that only fills the
    caches. The order changes with each round."""
    results = [[] for _ in sides]
    for number in range(-1, rounds):
        order = list(enumerate(sides))
        for index, side in order if number % 2 else reversed(order):
            value = side()
            if number >= 0:
                results[index].append(value)
    return results


def median_ratio(ours, theirs):
    return statistics.median(a / b for a, b in zip(ours, theirs))


def seconds_text(seconds):
    if seconds < 1e-3:
        return f"{seconds * 1e6:.3g} µs"
    return f"{seconds * 1e3:.3g} ms" if seconds < 1 else f"{seconds:.2f} s"


def emit(what, ours, peer_name="", peer="", ratio=None, at_most=None, at_least=None, unit=""):
    """One row. ratio: what is compared with the bar, ours divided by the peer's for
    at_most, the peer's divided by ours for at_least; without a bar it is only shown."""
    met = None
    if at_most is not None:
        met = ratio <= at_most
    elif at_least is not None:
        met = ratio >= at_least
    row = {"what": what, "ours": ours, "peer_name": peer_name, "peer": peer, "ratio": ratio, "unit": unit,
           "at_most": at_most, "at_least": at_least, "met": met}
    print(json.dumps(row), flush=True)


def compare(what, peer_name, ours, theirs, at_most=None, at_least=None):
    """A row for the seconds of two sides, as by_turns() gives them."""
    ratio = median_ratio(theirs, ours) if at_least is not None else median_ratio(ours, theirs)
    emit(what, seconds_text(statistics.median(ours)), peer_name, seconds_text(statistics.median(theirs)),
         ratio, at_most, at_least)
    return ratio


def memory(what, kilobytes, at_most_mb):
    text = f"{kilobytes / 1024:.3g} MB"
    emit(what, text, ratio=kilobytes / 1024, at_most=at_most_mb, unit="MB")
