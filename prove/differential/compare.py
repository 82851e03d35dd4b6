"""Compares how our reader and "postconf -M" understand master.cf files, and whether the
companion shelters what only Postfix accepts.

    python3 compare.py PROGRAM_DIRECTORY KEEP_DIRECTORY SEED COUNT

Runs inside scripts/sandbox. A file about which the two differ is read again without
the first reason for that, and so on, until they agree or no reason is left. If they
still differ, it is kept in KEEP_DIRECTORY, and the exit status is 1.
"""

import os
import random
import re
import subprocess
import sys
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from tempfile import TemporaryDirectory

from byhand import FILES, REFUSED
from generate import Maker
from reasons import DIFFER, NOBODY, OURS, POSTFIX, POSTFIX_REFUSES, REASONS, WE_REFUSE, first_reason

BATCH = 1000
ROUNDS = 12
# A postconf that fails sleeps for a second first.
AT_ONCE = 128
REFUSAL = re.compile(
    rb"^\S*postconf: fatal: (file .*: line \d+: bad field count|invalid \w+ field |macro processing error)", re.MULTILINE
)


class Case:
    """A file, and how it is read."""

    def __init__(self, label, text):
        self.label = label
        self.original = self.text = text
        self.reasons = []
        self.readings = {OURS: None, POSTFIX: None}  # services as lists of fields; None: refused
        self.not_sheltered = None  # what is wrong about the shelter of a file that Postfix accepts
        self.moved = None  # a reason whose removal changed the reading that it must not change

    def difference(self):
        """How the two differ now; None: they agree."""
        if self.readings[OURS] == self.readings[POSTFIX]:
            return None
        if self.readings[OURS] is None:
            return WE_REFUSE
        return POSTFIX_REFUSES if self.readings[POSTFIX] is None else DIFFER

    def take(self, readings):
        """Stores how the two read the current text."""
        before, self.readings = self.readings, readings
        if self.reasons and self.reasons[-1].unmoved is not NOBODY:
            who = self.reasons[-1].unmoved
            if readings[who] != before[who]:
                self.moved = self.reasons[-1].name

    def names(self):
        return [reason.name for reason in self.reasons]


def read_with_postconf(directory):
    run = subprocess.run(["/usr/sbin/postconf", "-M", "-c", directory], stdin=subprocess.DEVNULL,
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60, check=False)
    if run.returncode == 0:
        return [[field for field in re.split(rb"[ \t\r]+", line) if field] for line in run.stdout.split(b"\n") if line]
    if run.returncode == 1 and REFUSAL.search(run.stderr):
        return None
    sys.exit(f"postconf has failed for a reason of its own ({run.returncode}): {run.stderr!r}")


def read_with_ours(dump, paths):
    """One answer for each path."""
    run = subprocess.run([dump], input="".join(f"{path}\n" for path in paths).encode(), stdout=subprocess.PIPE,
                         check=True)
    answers = []
    for line in run.stdout.split(b"\n")[:-1]:
        kind, _, rest = line.partition(b" ")
        if kind == b"file":
            answers.append([])
        elif kind == b"error":
            answers[-1] = None
        else:
            answers[-1].append(rest.split(b" "))
    assert len(answers) == len(paths), "an answer for each file"
    return answers


def shelter_all(cases, programs, scratch):
    """Shelters the services of each case, whose texts are in the directories of read_all()."""
    paths = "".join(f"{scratch / str(number)}/master.cf\n" for number in range(len(cases)))
    run = subprocess.run([f"{programs}/shelter_dump"], input=paths.encode(), stdout=subprocess.PIPE, check=True)
    judgements = run.stdout.decode(errors="replace").splitlines()
    assert len(judgements) == len(cases), "an answer for each file"
    for case, judgement in zip(cases, judgements):
        # Postfix accepts an empty file, too, but no host has one.
        if judgement != "whole" and case.readings[POSTFIX] is not None and case.text:
            case.not_sheltered = judgement


def read_all(cases, programs, scratch, pool):
    """Both readings of the current text of each case."""
    directories = []
    for number, case in enumerate(cases):
        directory = scratch / str(number)
        directory.mkdir(exist_ok=True)
        (directory / "main.cf").write_text("compatibility_level = 3.6\n")
        (directory / "master.cf").write_bytes(case.text)
        directories.append(str(directory))
    ours = read_with_ours(f"{programs}/master_cf_dump", [f"{directory}/master.cf" for directory in directories])
    for case, mine, theirs in zip(cases, ours, pool.map(read_with_postconf, directories)):
        case.take({OURS: mine, POSTFIX: theirs})


def judge(cases, programs, scratch, pool):
    """Removes reasons from the texts until the readers agree, or no reason is left."""
    left = cases
    for round_number in range(ROUNDS):
        read_all(left, programs, scratch, pool)
        if round_number == 0:
            shelter_all(left, programs, scratch)
        waiting = []
        for case in left:
            if case.difference() is not None and case.moved is None:
                reason, text = first_reason(case.text, case.difference())
                if reason is not None:
                    case.reasons.append(reason)
                    case.text = text
                    waiting.append(case)
        left = waiting
        if not left:
            return


class Report:
    """The counts, and the files that are not explained."""

    def __init__(self, keep):
        self.keep = keep
        self.outcomes = Counter()
        self.reasons = Counter()
        self.services = 0
        self.wrong = []

    def add(self, case, wanted=None):
        if case.not_sheltered is not None:
            self.complain(case, f"not sheltered: {case.not_sheltered}")
        elif case.moved is not None:
            self.complain(case, f"the reason \"{case.moved}\" affects a reader that it should not")
        elif case.difference() is not None:
            self.complain(case, case.difference() + ", unexplained")
        elif wanted is not None and not as_wanted(case, wanted):
            self.complain(case, f"wanted {wanted}")
        elif case.reasons:
            self.outcomes["differ, explained"] += 1
            self.reasons.update(set(case.names()))
        elif case.readings[OURS] is None:
            self.outcomes["both refuse"] += 1
        else:
            self.outcomes["both accept, same services"] += 1
            self.services += len(case.readings[OURS])

    def complain(self, case, what):
        path = self.keep / f"{case.label}.cf"
        path.write_bytes(case.original)
        self.wrong.append(path)
        print(f"{path}: {what}; reasons found: {', '.join(case.names()) or 'none'}")
        for name, value in ("without them", case.text), *case.readings.items():
            print(f"  {name}: {value!r:.1000}")

    def print(self):
        for name in "both accept, same services", "both refuse", "differ, explained":
            more = f" ({self.services} services)" if name.startswith("both accept") else ""
            print(f"{self.outcomes[name]:7} {name}{more}")
        for reason in REASONS:
            print(f"    {self.reasons[reason.name]:7} {reason.name}")
        print(f"{len(self.wrong):7} unexplained")


def as_wanted(case, wanted):
    if wanted == REFUSED:
        return not case.reasons and case.readings[OURS] is None
    return case.names() == wanted and case.readings[OURS] is not None


def case_of(number, seed, maker):
    """Those written by hand come first."""
    if number < len(FILES):
        return Case(f"hand-{number}", FILES[number][0])
    return Case(f"seed-{seed}-{number - len(FILES)}", maker.file())


def main(programs, keep, seed, count):
    if "TORVA_SANDBOX" not in os.environ:
        sys.exit("run scripts/prove differential instead")
    maker = Maker(random.Random(seed))
    report = Report(Path(keep))
    print(f"seed {seed}: {count} generated files, {len(FILES)} written by hand")
    with TemporaryDirectory() as scratch, ThreadPoolExecutor(AT_ONCE) as pool:
        wanted = [reasons for _, reasons in FILES] + [None] * count
        for start in range(0, len(wanted), BATCH):
            numbers = range(start, min(start + BATCH, len(wanted)))
            cases = [case_of(number, seed, maker) for number in numbers]
            judge(cases, programs, Path(scratch), pool)
            for case, number in zip(cases, numbers):
                report.add(case, wanted[number])
    report.print()
    # If nearly all files were refused, this would prove nothing.
    if report.outcomes["both accept, same services"] * 4 < count:
        sys.exit("both readers accept too few of the files")
    return 1 if report.wrong else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])))
