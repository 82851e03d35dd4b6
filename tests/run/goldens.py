"""The golden files of the whole run, below fake/golden."""

import re
import shlex
from pathlib import Path

from calls import spelled


class Expected:
    """A command of a golden file: its text, and the progress before it."""

    def __init__(self, argv, stdin, said):
        self.argv, self.stdin, self.said = argv, stdin, said

    def __str__(self):
        return spelled(self.argv, self.stdin)


def golden(name):
    text = (Path(__file__).resolve().parent / "fake" / "golden" / name).read_bytes()
    # Our first line says what the file proves.
    return text if name.startswith("master.cf") else text.split(b"\n", 1)[1]


def transcript():
    return golden("transcript.txt").decode()


def commands(name):
    """The commands of a golden file, each placed in the transcript."""
    text, at, found = transcript(), 0, []
    for line in golden(name).decode().splitlines():
        if line.startswith("    < "):
            found[-1].stdin += line[len("    < "):] + "\n"
        elif line.startswith("  "):
            found.append(Expected(shlex.split(line), "", text[:at]))
        elif line != "before anything":
            where, step = re.fullmatch(r'(in|after) "(.*)"', line).groups()
            if where == "in":
                wanted = step + "..."
            else:
                wanted = step + ("\n" if step.endswith(":") else "...done\n")
            at = text.index("\n" + wanted, max(at - 1, 0) if where == "in" else 0) + 1 + len(wanted)
    return found
