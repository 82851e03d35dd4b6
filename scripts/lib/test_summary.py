#!/usr/bin/env python3
"""Adds up what CTest wrote (--output-junit) in one or several runs.

Prints every failed and every skipped test, the latter with its reason, and as the
last line "N passed, N failed, N skipped". Exit status 0: at least one test ran, and
none failed.
"""

import re
import sys
import xml.etree.ElementTree as ElementTree

# How CTest says that a test skipped itself. Any other test that did not run (no
# program, a missing file) has failed.
SKIPPED = ("SKIP_RETURN_CODE", "SKIP_REGULAR_EXPRESSION_MATCHED")

REASONS = (
    re.compile(r"^SKIP: (.+)$", re.MULTILINE),  # our scripts
    re.compile(r": Skipped\n(.+)$", re.MULTILINE),  # GoogleTest
    re.compile(r"\.\.\. skipped ['\"](.+)['\"]$", re.MULTILINE),  # unittest
)
# Tests inside a program that as a whole is one CTest test.
INNER_GTEST = re.compile(r"^(?:.*: Skipped\n(.*)\n+)?\[  SKIPPED \] (\S+) \(\d+ ms\)$", re.MULTILINE)
INNER_UNITTEST = re.compile(r"^(\S+) .*\.\.\. skipped ['\"](.+)['\"]$", re.MULTILINE)


def reason(output):
    for pattern in REASONS:
        found = pattern.search(output)
        if found:
            return found.group(1)
    return "no reason given"


def inner_skips(output):
    """(name, reason) of each test that was skipped inside a passed program."""
    skips = [(name, why or "no reason given") for why, name in INNER_GTEST.findall(output)]
    return skips + INNER_UNITTEST.findall(output)


def read(path):
    """Yields (name, outcome, detail); outcome is passed, failed or skipped."""
    for case in ElementTree.parse(path).getroot().iter("testcase"):
        name = case.get("name")
        status = case.get("status")
        output = case.findtext("system-out") or ""
        mark = case.find("skipped")
        message = mark.get("message", "") if mark is not None else ""
        if status == "run":
            yield name, "passed", ""
            for inner, why in inner_skips(output):
                yield f"{name}: {inner}", "skipped", why
        elif status == "notrun" and message.startswith(SKIPPED):
            yield name, "skipped", reason(output)
        else:
            yield name, "failed", message


def main(paths):
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    for path in paths:
        for name, outcome, detail in read(path):
            counts[outcome] += 1
            if outcome != "passed":
                print(f"{outcome}: {name}" + (f": {detail}" if detail else ""))
    print("{passed} passed, {failed} failed, {skipped} skipped".format(**counts))
    return 0 if counts["passed"] > 0 and counts["failed"] == 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
