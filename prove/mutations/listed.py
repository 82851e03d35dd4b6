"""The mistakes that people have invented: list.toml."""

import sys
import time
import tomllib
from pathlib import Path

LIST = Path(__file__).resolve().parent / "list.toml"


def mistakes(names):
    known = tomllib.loads(LIST.read_text())["mutation"]
    by_name = {one["name"]: one for one in known}
    if len(by_name) != len(known):
        sys.exit("two mutations have one name")
    for name in names:
        if name not in by_name:
            sys.exit(f"no such mutation: {name}")
    return [by_name[name] for name in names] or known


def try_out(copy, asker, one):
    """The test that catches it and how, or None."""
    path = copy.tree / one["file"]
    right = path.read_text()
    if right.count(one["old"]) != 1:
        sys.exit(f"{one['name']}: the text to change occurs {right.count(one['old'])} times in {one['file']}")
    for wave in asker.waves(one["file"], one["test"]):
        asker.require_passing(wave)
        path.write_text(right.replace(one["old"], one["new"]))
        try:
            if error := copy.make(*{target for question in wave for target in question.targets}):
                sys.exit(f"{one['name']} does not compile:\n{error}")
            if answer := asker.ask(wave, asker.patience):
                return answer
        finally:
            path.write_text(right)
    return None


def run(copy, asker, chosen, say):
    """Tries the chosen mistakes, and returns how many were caught."""
    caught = 0
    for one in chosen:
        begin = time.monotonic()
        catcher = try_out(copy, asker, one)
        caught += catcher is not None
        say(f"{one['name']}: {'caught: ' + catcher if catcher else 'NOT CAUGHT'} ({time.monotonic() - begin:.0f} s)")
    return caught
