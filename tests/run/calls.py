"""The result of a run of the program: its end, its output, the programs it started."""

import json
import shlex


class Call:
    """One start of a fake tool, as the fake wrote it down."""

    def __init__(self, line):
        fields = json.loads(line)
        self.__dict__.update(fields)
        self.argv = [_text(word) for word in fields["argv"]]
        self.stdin = _text(fields["stdin"])

    def __str__(self):
        return spelled(self.argv, self.stdin)


def _text(escaped):
    return escaped.encode("latin-1").decode("utf-8", "surrogateescape")


def spelled(argv, stdin=""):
    """A command line and its input, as the golden files write them."""
    lines = [shlex.join(argv)] + ["    < " + line for line in stdin.split("\n")]
    if lines[-1] == "    < ":
        lines.pop()
    else:
        lines[-1] += "   (no line end)"
    return "\n".join(lines)


class Outcome:
    def __init__(self, status, out, err, calls):
        self.status, self.out, self.err, self.calls = status, out, err, calls

    @property
    def commands(self):
        return [str(call) for call in self.calls]

    def said_before(self, call):
        return self.err.encode("utf-8", "surrogateescape")[: call.progress].decode("utf-8", "surrogateescape")

    def in_step(self, step):
        """Commands started while the line of this step was unfinished."""
        return [str(call) for call in self.calls if self.said_before(call).endswith("\n" + step + "...")]

    def after_step(self, step):
        """Commands started after this line and before the next."""
        return [str(call) for call in self.calls if self.said_before(call).endswith("\n" + step + "...done\n")]

    def set(self, name):
        """Values that were written to a parameter, in order."""
        start = name + "="
        return [c.argv[2][len(start):] for c in self.calls if c.argv[1:2] == ["-e"] and c.argv[2].startswith(start)]
