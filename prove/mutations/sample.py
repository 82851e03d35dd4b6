"""Mistakes made by rules: all of them, a sample, and those that are argued equivalent."""

import random
import re
import time
import tomllib
from collections import Counter
from dataclasses import dataclass
from itertools import islice
from pathlib import Path

from rules import mistakes
from scanner import scan

FOLDERS = ("app", "torva")
EQUIVALENTS = Path(__file__).resolve().parent / "equivalents.toml"


@dataclass(frozen=True)
class Mistake:
    file: str
    line: int
    rule: str
    start: int
    end: int
    new: str
    before: str  # the lines that it changes, without line breaks
    after: str

    def apply(self, text):
        return text[:self.start] + self.new + text[self.end:]

    def change(self):
        return f"{self.file}:{self.line}: {self.rule}: {self.before}  =>  {self.after}"


def one_line(text):
    return " ".join(text.split())


def mistakes_of(tree, file):
    text = (tree / file).read_text()
    for rule, start, end, new in mistakes(scan(text)):
        first = text.rfind("\n", 0, start) + 1
        last = text.find("\n", end)
        last = len(text) if last < 0 else last
        yield Mistake(file, text.count("\n", 0, start) + 1, rule, start, end, new, one_line(text[first:last]),
                      one_line(text[first:start] + new + text[end:last]))


def all_by_line(tree):
    """(file, line) -> the mistakes that can be made there."""
    lines = {}
    for folder in FOLDERS:
        for path in sorted((tree / folder).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                for one in mistakes_of(tree, str(path.relative_to(tree))):
                    lines.setdefault((one.file, one.line), []).append(one)
    return lines


def drawn(lines, seed, first=1, every=1):
    """In the order of the draw, none twice: number `first`, and each `every`-th after it."""
    return islice(drawn_all(lines, seed), first - 1, None, every)


def drawn_all(lines, seed):
    """First a line, then one of its mistakes."""
    source, places, seen = random.Random(seed), sorted(lines), set()
    total = sum(len(ones) for ones in lines.values())
    while len(seen) < total:
        one = source.choice(lines[source.choice(places)])
        if one not in seen:
            seen.add(one)
            yield one


class Equivalents:
    """Found by file and text, so that they still apply when lines move. A reason is for one
    place unless it says for how many."""

    def __init__(self, lines):
        self.listed = tomllib.loads(EQUIVALENTS.read_text())["equivalent"]
        self.reasons = {self._key(one): one["why"] for one in self.listed}
        self.places = Counter((one.file, one.before, one.after) for ones in lines.values() for one in ones)

    @staticmethod
    def _key(one):
        return one["file"], one["before"], one["after"]

    def complaints(self):
        for one in self.listed:
            found, wanted = self.places[self._key(one)], one.get("places", 1)
            if found != wanted:
                yield f"in {found} places and not in {wanted}: {one['file']}: {one['before']} => {one['after']}"
        for key, number in Counter(map(self._key, self.listed)).items():
            if number > 1:
                yield f"listed {number} times: {key[0]}: {key[1]} => {key[2]}"

    def reason(self, one):
        return self.reasons.get((one.file, one.before, one.after))


def survivors_of(log, lines):
    """The mistakes that an earlier sample has printed as survivors, wherever their text stands now."""
    by_text = {}
    for ones in lines.values():
        for one in ones:
            by_text.setdefault((one.file, one.change().split(": ", 1)[1]), []).append(one)
    for line in log.read_text().splitlines():
        if found := re.match(r"SURVIVED \(\d+ s\): (\S+?):(\d+): (.*)", line):
            file, number, text = found[1], int(found[2]), found[3]
            if known := by_text.get((file, text)):
                yield min(known, key=lambda one: abs(one.line - number))


class Sampler:
    """Tries mistakes out on a working copy."""

    def __init__(self, copy, asker, say):
        self.copy, self.asker, self.say = copy, asker, say

    def try_out(self, one):
        """What catches it; "": nothing does; None: it is no mistake, because it does not compile
        or changes no program."""
        library = self.copy.library_of(one.file)
        if library is not None and library not in self.copy.right:
            self.copy.make_right(library)
        path = self.copy.tree / one.file
        right = path.read_text()
        wrong = one.apply(right)
        changed = False
        try:
            if library is not None:
                path.write_text(wrong)
                if self.copy.make(library) or not self.copy.is_changed(library):
                    return None
            for wave in self.asker.waves(one.file):
                if not all(question.label in self.asker.passed for question in wave):
                    path.write_text(right)
                    self.asker.require_passing(wave)
                    path.write_text(wrong)
                elif path.read_text() != wrong:
                    path.write_text(wrong)
                if self.copy.make(*{target for question in wave for target in question.targets}):
                    return None
                concerned = [question for question in wave if self.copy.is_changed(*question.targets)]
                changed = changed or bool(concerned)
                if concerned and (answer := self.asker.ask(concerned, self.asker.patience)):
                    return answer
        finally:
            path.write_text(right)
        return "" if changed else None


    def judge(self, one):
        """The result of try_out(), which is also printed."""
        begin = time.monotonic()
        answer = self.try_out(one)
        if answer is not None:
            self.say(f"{'caught' if answer else 'SURVIVED'} ({time.monotonic() - begin:.0f} s): {one.change()}{': ' + answer if answer else ''}")
        return answer


def run(sampler, options, stop):
    """Draws mistakes and tries out those that are asked for. Returns how many were caught, how
    many are argued equivalent, and the survivors."""
    lines = all_by_line(sampler.copy.tree)
    sampler.say(f"{sum(map(len, lines.values()))} mistakes can be made on {len(lines)} lines")
    equivalents, only = Equivalents(lines), options.only or [""]
    for complaint in equivalents.complaints():
        sampler.say(f"argued equivalent, but {complaint}")
    caught, argued, survivors, redrawn = 0, 0, [], 0
    draw = survivors_of(options.again, lines) if options.again else drawn(lines, options.seed, *options.part)
    for one in draw:
        if caught + argued + len(survivors) == options.sample or stop():
            break
        if not any(text in one.change() for text in only):
            continue
        if reason := equivalents.reason(one):
            argued += 1
            sampler.say(f"equivalent: {one.change()} ({reason})")
            continue
        answer = sampler.judge(one)
        if answer is None:
            redrawn += 1
        elif answer:
            caught += 1
        else:
            survivors.append(one.change())
    sampler.say(f"{redrawn} drawn again: they do not compile, or the programs are the same")
    return caught, argued, survivors
