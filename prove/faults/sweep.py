"""The sweep: breaks the tool at one place after another and judges what is left.

Runs inside scripts/sandbox as: sweep.py PROGRAM WORK KINDS PART PARTS short|full SECONDS
"""

import collections
import ctypes
import json
import os
import pickle
import random
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

import resources
from faultworld import ENVIRONMENT, FaultWorld, Reference
from judge import Judge
from points import Point, Recording, code_of, error_points, kill_points

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tests/run"))
from runworld import refuse_outside_sandbox

CAPTURE = Path("/run/capture")
POSTCONF = Path("/usr/sbin/postconf")
HIT = CAPTURE / "hit"
PATIENCE = 40  # seconds; a run that ends its children itself takes up to 6

Run = collections.namedtuple("Run", "status out err hit")


def start(command, environment=None, **how):
    """Runs a command to its end, however it ends."""
    HIT.unlink(missing_ok=True)
    (CAPTURE / "strace").unlink(missing_ok=True)
    with open(CAPTURE / "out", "wb") as out, open(CAPTURE / "err", "wb") as err:
        process = subprocess.Popen(command, env={**ENVIRONMENT, **(environment or {})}, stdin=subprocess.DEVNULL, stdout=out,
                                   stderr=err, cwd="/", start_new_session=True, **how)
        try:
            status = process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            status = None
    trace = CAPTURE / "strace"
    injected = HIT.exists() or (trace.exists() and b"INJECTED" in trace.read_bytes())
    return Run(status, (CAPTURE / "out").read_bytes(), (CAPTURE / "err").read_bytes(), injected)


def children_left():
    """The children that a run has left behind, which are ours now; waits until they have ended."""
    left, deadline = [], time.monotonic() + 20
    while True:
        try:
            pid, _ = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return left
        if pid != 0:
            left.append(pid)
        elif time.monotonic() > deadline:
            sys.exit("a child of the tool does not end")
        else:
            left = left or [0]
            time.sleep(0.002)


class Sweep:
    def __init__(self, program, work):
        ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER
        CAPTURE.mkdir(exist_ok=True)
        self.program, self.shim = program, str(work / "shim.so")
        self.world = FaultWorld(program)
        recording_file = work / "recording"
        if not recording_file.exists():
            recording_file.write_bytes(pickle.dumps((Reference(self.world), self.places())))
        reference, points = pickle.loads(recording_file.read_bytes())
        self.points = [Point(*fields) for fields in points]
        self.judge = Judge(self.world, reference)
        self.counts, self.violations, self.not_visited = collections.Counter(), [], 0

    def places(self):
        """Where a run can be broken."""
        recording = Recording(self.world)
        start([self.program], {"LD_PRELOAD": self.shim, "TORVA_FAULT": "none:0:0", "TORVA_FAULT_COUNT": str(CAPTURE / "count")})
        counts = {name: int(count) for name, count in map(str.split, (CAPTURE / "count").read_text().splitlines())}
        return kill_points(recording) + error_points(recording, counts) + resources.resource_points()

    def inject(self, point):
        log = str(CAPTURE / "strace")
        if point.kind == "resources":
            return resources.start(self, point, start)
        if point.how == "shim":
            return start([self.program], {"LD_PRELOAD": self.shim, "TORVA_FAULT": f"{point.call}:{point.nth}:{code_of(point.error)}"})
        effect = "signal=KILL" if point.kind == "kill" else f"error={point.error}"
        run = start(["strace", "-o", log, "-e", f"trace={point.call}", "-e", f"inject={point.call}:{effect}:when={point.nth}",
                     self.program])
        if point.kind == "kill":
            run = run._replace(hit=run.status == -9)
        return run

    def visit(self, point):
        self.world.reset()
        run = self.inject(point)
        left = children_left()
        problems = self.judge.ending(point, run)
        state, more = self.judge.files(point, run)
        problems += more
        if run.status != -9:
            problems += ["left behind: a child"] * bool(left) + self.judge.leftovers()
        if point.kind == "resources":
            resources.give_back(point)
        problems += self.judge.next_run(state)
        ending = {0: "absorbed", 1: "refused", -9: "killed", 127: "not loaded"}.get(run.status, "other")
        self.counts[point.kind, point.call, ending if run.hit else "not reached"] += 1
        if problems:
            self.violations.append([*point, problems])
            print(f"VIOLATION {point.kind} {point.call} #{point.nth} {point.error} ({point.phase}, {point.how}) "
                  f"{point.argument}: " + "; ".join(problems), flush=True)


def main():
    refuse_outside_sandbox()
    program, work, kinds, part, parts, extent, seconds = sys.argv[1:]
    work = Path(work)
    result = work / f"{part}.json"
    sweep = Sweep(program, work)  # the first part of all records for the others
    if not kinds:
        return
    if extent == "short":
        remember_answers(work / "remembering_postconf")
    points = [point for point in sweep.points if point.kind in kinds.split(",")]
    chosen = (shortened(points) if extent == "short" else spread(points))[int(part)::int(parts)]
    print(f"part {part}: {len(chosen)} places of {len(points)}", flush=True)
    begin = time.monotonic()
    for number, point in enumerate(chosen):
        sweep.not_visited = len(chosen) - number
        if float(seconds) and time.monotonic() - begin > float(seconds):
            break
        if number and number % 200 == 0:
            print(f"part {part}: {number} of {len(chosen)} after {time.monotonic() - begin:.0f} s", flush=True)
            save(sweep, result)
        sweep.visit(point)
    else:
        sweep.not_visited = 0
    save(sweep, result)


def remember_answers(substitute):
    """Puts the substitute for postconf into its place: most of the time of a visit goes into
    starting postconf some fifty times, to ask it what it has been asked in the visits before."""
    Path("/run/remembered").mkdir(mode=0o700)
    POSTCONF.rename(POSTCONF.with_name("postconf.real"))
    shutil.copy(substitute, POSTCONF)


def save(sweep, result):
    result.write_text(json.dumps({
        "counts": [[*key, count] for key, count in sweep.counts.items()], "violations": sweep.violations,
        "states": len(sweep.judge.verdicts), "stored_twice": sweep.judge.stored_twice, "not_visited": sweep.not_visited}))


def spread(points):
    """All points: the resources and the master.cf phase first, the others in a mixed order that
    is always the same, so that a sweep that runs out of time has visited all parts of a run."""
    phases = {"resources": [], "master": [], "any": []}
    for point in points:
        phases.get(point.phase, phases["any"]).append(point)
    random.Random(0).shuffle(phases["any"])
    return [point for phase in phases.values() for point in phase]


def shortened(points):
    """Some of the points: the first of each call and some later ones, with another error each
    time; more of them in the master.cf phase, and there the last of each call, too."""
    chosen, seen = [], collections.Counter()
    groups = collections.Counter((p.kind, p.call, p.how, p.phase == "master") for p in points)
    for point in points:
        group = (point.kind, point.call, point.how, point.phase == "master")
        # No common factor with the number of errors, so that the error is another one each time.
        step = {"resources": 6}.get(point.kind, 23 if point.phase == "master" else 257)
        is_last = point.phase == "master" and seen[group] == groups[group] - 1
        if seen[group] % step == 0 or is_last:
            chosen.append(point)
        seen[group] += 1
    return chosen


if __name__ == "__main__":
    main()
