#!/usr/bin/env python3
"""Fails when the lists of prove/mutations/ do not fit the sources: when a mistake of the list can
no longer be made, or one that is argued equivalent is none that the rules make, or its text is in
another number of places than the argument is for."""

import sys
import tomllib
from pathlib import Path

sys.dont_write_bytecode = True
PROVE = Path(__file__).resolve().parents[2] / "prove" / "mutations"
sys.path.insert(0, str(PROVE))

from sample import Equivalents, all_by_line  # noqa: E402


def list_complaints(root):
    names = set()
    for one in tomllib.loads((PROVE / "list.toml").read_text())["mutation"]:
        count = (root / one["file"]).read_text().count(one["old"])
        if count != 1:
            yield f"list.toml: {one['name']}: its text occurs {count} times in {one['file']}"
        if one["name"] in names:
            yield f"list.toml: {one['name']} is listed twice"
        names.add(one["name"])


def main(root):
    equivalents = Equivalents(all_by_line(root))
    found = [*list_complaints(root), *(f"equivalents.toml: {text}" for text in equivalents.complaints())]
    print("\n".join(found) or f"{len(equivalents.listed)} equivalents, each of them in the sources")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
