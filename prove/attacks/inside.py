"""The attacks of some groups, one after the other. Runs inside scripts/sandbox:

    inside.py PROGRAM HELPERS short|full RESULT GROUP,... [NAME...]
"""

import importlib
import json
import sys
import time
from pathlib import Path

from attackworld import Broken, World, refuse_outside_sandbox


def main():
    refuse_outside_sandbox()
    program, helpers, form, result, groups, *names = sys.argv[1:]
    world = World(Path(program), Path(helpers), form == "short")
    violations, total, attacks = [], 0, 0
    for group in groups.split(","):
        for subject, attack in importlib.import_module(group).ATTACKS:
            if names and attack.__name__ not in names:
                continue
            world.tried, world.longest, begin = 0, 0.0, time.monotonic()
            try:
                note = attack(world) or ""
                verdict = "unharmed"
            except Broken as broken:
                note, verdict = str(broken), "BROKEN"
                violations.append(f"{subject}: {attack.__doc__}: {broken}")
            total += world.tried
            attacks += 1
            print(f"{verdict}  {subject}: {attack.__doc__} ({attack.__name__}): {world.tried} times"
                  f"{', ' + note if note else ''}; the longest took {world.longest:.1f} s", flush=True)
    Path(result).write_text(json.dumps({"attacks": attacks, "tried": total, "violations": violations}))
    return 1 if violations else 0


if __name__ == "__main__":
    sys.exit(main())
