"""Mistakes by rule: all that can be made, a sample of them, and those that are argued to be none."""

import random
import time
import tomllib
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
    """All of them, none twice, every so-manieth from the first on."""
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
    """Found by file and text, so that they stay what they are when lines move."""

    def __init__(self, lines):
        listed = tomllib.loads(EQUIVALENTS.read_text())["equivalent"]
        self.reasons = {(one["file"], one["before"], one["after"]): one["why"] for one in listed}
        known = {(one.file, one.before, one.after) for ones in lines.values() for one in ones}
        self.stale = [key for key in self.reasons if key not in known]

    def reason(self, one):
        return self.reasons.get((one.file, one.before, one.after))


class Sampler:
    """Tries mistakes out on a working copy."""

    def __init__(self, copy, asker, say):
        self.copy, self.asker, self.say = copy, asker, say

    def try_out(self, one):
        """What catches it, "" for nothing, None when it is no mistake: it does not compile, or
        no program changes."""
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
        """What try_out gives, and tells it."""
        begin = time.monotonic()
        answer = self.try_out(one)
        if answer is not None:
            self.say(f"{'caught' if answer else 'SURVIVED'} ({time.monotonic() - begin:.0f} s): {one.change()}{': ' + answer if answer else ''}")
        return answer


def run(sampler, options, stop):
    """Draws, and tries out those that are asked for. The numbers of the caught and of the argued, and the survivors."""
    lines = all_by_line(sampler.copy.tree)
    sampler.say(f"{sum(map(len, lines.values()))} mistakes can be made on {len(lines)} lines")
    equivalents, only = Equivalents(lines), options.only or [""]
    for file, before, after in equivalents.stale:
        sampler.say(f"no such mistake any more, though argued equivalent: {file}: {before} => {after}")
    caught, argued, survivors, redrawn = 0, 0, [], 0
    for one in drawn(lines, options.seed, *options.part):
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
