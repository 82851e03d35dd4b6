#!/usr/bin/env python3
"""Compares the FINDINGS of torva-postfixctl(8) with the subjects in the sources, in both directions."""

import re
import sys
from pathlib import Path

# A finding in the sources begins with its level, or its maker, and its subject.
SUBJECT = re.compile(r'(?:Level::\w+,|Failure\(|\b(?:ok|warning|stop|fine)\()\s*"([a-z][a-z.-]*)"')
CONSTANT = re.compile(r'\bsubject = "([a-z.-]+)"')


def in_sources(root):
    for path in sorted((root / "ctl").rglob("*.cpp")):
        text = path.read_text()
        yield from SUBJECT.findall(text)
        yield from CONSTANT.findall(text)


def in_manual(root):
    """The words on the lines after .TP in the section, without macros and commas."""
    section = (root / "man/torva-postfixctl.8").read_text().split(".SH FINDINGS\n")[1].split("\n.SH ")[0]
    lines = section.splitlines()
    for number, line in enumerate(lines):
        if line == ".TP":
            yield from re.findall(r"[a-z][a-z.-]*", lines[number + 1].partition(" ")[2].replace("\\-", "-"))


def main(root):
    sources, manual = set(in_sources(root)), set(in_manual(root))
    found = [f"{subject} is in the sources, and not in the manual" for subject in sorted(sources - manual)]
    found += [f"{subject} is in the manual, and not in the sources" for subject in sorted(manual - sources)]
    print("\n".join(found) or f"{len(sources)} subjects, in the manual and in the sources")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
