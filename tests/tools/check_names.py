#!/usr/bin/env python3
"""Fails on a file of the library or the program whose name breaks the rule for names.

CamelCase: a C++ class, or operations of the class layers. snake_case: plain functions
with C linkage, and the parts of such a unit, whatever language they are in. A part, header
or source, begins with the name of its unit.
"""

import re
import sys
from pathlib import Path

# C++ helpers of the plain functions that serve more than one unit.
HELPERS = {
    "torva/maildb/format_text.h",
    "torva/maildb/mail_server.h",
}
PLAIN = 'extern "C" {'
SNAKE_CASE = re.compile(r"[a-z][a-z0-9]*(_[a-z0-9]+)*")
CAMEL_CASE = re.compile(r"([A-Z][a-z0-9]*)+")


def wrong_header(root, header):
    if str(header.relative_to(root)) in HELPERS:
        return None
    if PLAIN in header.read_text():
        return None if SNAKE_CASE.fullmatch(header.stem) else "declares plain functions: snake_case"
    units = [other.stem for other in header.parent.glob("*.h") if PLAIN in other.read_text()]
    if any(header.stem.startswith(unit + "_") for unit in units):
        return None
    return None if CAMEL_CASE.fullmatch(header.stem) else "declares no plain functions: CamelCase"


def wrong_source(source):
    if source.name == "main.cpp":
        return None
    stems = [header.stem for header in source.parent.glob("*.h")]
    named = any(re.fullmatch(re.escape(stem) + r"((?<=[a-z0-9])[_A-Z].*)?", source.stem) for stem in stems)
    return None if named else "is named after no header beside it"


def violations(root):
    for folder in ("torva", "app"):
        for path in sorted((root / folder).rglob("*.*")):
            wrong = {".h": lambda: wrong_header(root, path), ".cpp": lambda: wrong_source(path)}
            reason = wrong.get(path.suffix, lambda: None)()
            if reason:
                yield f"{path.relative_to(root)} {reason}"
    for helper in sorted(HELPERS):
        if not (root / helper).is_file():
            yield f"{helper} is excepted from the rule and does not exist"


def main(root):
    found = list(violations(root))
    print("\n".join(found) or "every file is named by the rule")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
