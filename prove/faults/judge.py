"""What counts as a violation after a fault."""

import os
import re
import subprocess

from faultworld import (ALIASES, ALIASES_DB, DISABLED, DISABLED_TEXT, ENVIRONMENT, MAIN_CF, MASTER_CF, MASTER_TEXT, TORVA,
                        State, run_tool, settle)
from points import code_of

FATAL = re.compile(rb"Fatal error: ([\w:<>]+)\((.*)\)\n\Z", re.DOTALL)
FAMILY = {
    "torva::SystemError", *(f"torva::ExSystemError<{code}>" for code in (1, 2, 4, 10, 11)),
    "torva::mail::postfix::PostfixConfigurationError", "torva::mail::postfix::PostfixDatabaseError",
    "std::runtime_error", "boost::filesystem::filesystem_error",
}
WARNED = b"unable to execute `hostname -f`"


class Judge:
    """Verdicts, each a list of sentences. Each state is judged only once: the result of an
    undisturbed run does not depend on how its starting state was reached."""

    def __init__(self, world, reference):
        self.world, self.reference = world, reference
        self.verdicts = {}
        self.stored_twice = 0

    def ending(self, point, run):
        """How the run ended and what it said."""
        if run.status is None:
            return ["hangs"]
        if point.kind == "kill" and run.hit:
            return [] if run.status == -9 else [f"killed, but exit status {run.status}"]
        if run.status == 0:
            return []
        if run.status == 127 and b"error while loading shared libraries" in run.err:
            return [] if point.phase in ("loader", "resources") else ["the loader fails after main"]
        if run.status != 1:
            return [f"exit status {run.status}: {last_line(run.err)}"]
        found = FATAL.search(run.err)
        if not found:
            return [f"exit status 1 without an error line: {last_line(run.err)}"]
        problems = []
        kind, text = found.group(1).decode(), found.group(2).decode("utf-8", "replace")
        if kind not in FAMILY:
            problems.append(f"an error outside the family: {kind}({text})")
        if not run.out.endswith(found.group(0)):
            problems.append(f"standard output does not repeat the error line: {run.out!r}")
        # The tools' own errors and the reader's carry no text of the system, and
        # getpwnam(3) has none for an account database that cannot be read.
        if (point.kind == "error" and "Postfix" not in kind and os.strerror(code_of(point.error)) not in text
                and not text.endswith("file is already locked") and not text.startswith("user popusernot found")):
            problems.append(f"the error line gives another reason: {kind}({text})")
        return problems

    def files(self, point, run):
        """Nothing is lost, and each file is complete."""
        state = State()
        problems = []
        if state.text(MAIN_CF) not in self.reference.main_texts:
            problems.append(f"main.cf is not the result of complete postconf commands: {state.text(MAIN_CF)!r}")
        for path, old in ((MASTER_CF, MASTER_TEXT), (DISABLED, DISABLED_TEXT)):
            if state.text(path) not in (old, self.reference.end.text(path)):
                problems.append(f"{path} is neither old nor new: {state.text(path)!r}")
        for path in (MAIN_CF, MASTER_CF, DISABLED, ALIASES):
            entry, before = state.files.get(str(path)), self.reference.start.files[str(path)]
            if entry and entry[:3] != before[:3] and point.call != "RLIMIT_NPROC":
                problems.append(f"{path} has mode and owner {entry[:3]}")
        if state.text(ALIASES) != self.reference.start.text(ALIASES):
            problems.append("the system's aliases have changed")
        if state.text(MASTER_CF) == MASTER_TEXT and state.text(DISABLED) != DISABLED_TEXT:
            problems.append("a service has left the disabled store and is not in master.cf")
        if run.status == 0:
            wanted = self.reference.nameless_end if WARNED in run.err else self.reference.end
            problems += [f"exit status 0, but {name} is not as it should be" for name in self.unlike(state, wanted)]
        return state, problems

    def leftovers(self):
        """What a run that ended by itself has left behind."""
        return [f"left behind: {name}" for name in self.world.leftovers()]

    def next_run(self, state):
        """Whether Postfix reads the state that was left, and an undisturbed run completes it."""
        key = state.signature()
        if key not in self.verdicts:
            self.verdicts[key] = self._next_run(state)
        return self.verdicts[key]

    def _next_run(self, state):
        problems = []
        settle()  # or Postfix waits for two seconds
        read = run_tool("/usr/sbin/postconf", "-n")
        if read.returncode != 0 or b"fatal" in read.stderr:
            problems.append(f"postconf cannot read main.cf: {read.stderr!r}")
        run = subprocess.run([self.world.program], env=ENVIRONMENT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, cwd="/")
        if run.returncode != 0:
            return problems + [f"the next run fails: {run.stderr[-400:]!r}"]
        after = State()
        # A run that cannot ask for the host's name removes the short one from $mydestination.
        wanted = self.reference.end
        if after.text(MAIN_CF) == self.reference.nameless_then_end.text(MAIN_CF):
            wanted = self.reference.nameless_then_end
        return problems + [f"after the next run {name} is not as it should be" for name in self.unlike(after, wanted, state)]

    def unlike(self, state, wanted, before=None):
        different = state.differences(wanted)
        # Ended between the two writes: the service is in both files, and the next run leaves
        # an active one alone. Nothing is lost; the service just stays in the store.
        if (before and str(DISABLED) in different and before.text(MASTER_CF) == wanted.text(MASTER_CF)
                and state.text(DISABLED) == before.text(DISABLED) == DISABLED_TEXT):
            self.stored_twice += 1
            different.remove(str(DISABLED))
        return [name for name in different if not same_listing(name, state, wanted)]


def same_listing(name, state, wanted):
    """Whether two index files hold the same records, whatever their pages look like."""
    one, other = state.files.get(name), wanted.files.get(name)
    if not name.endswith(".db") or name == str(ALIASES_DB) or one is None or other is None or one[:3] != other[:3]:
        return False
    return listing(one[3]) == listing(other[3])


def listing(data):
    path = TORVA.parent / "judged.db"
    path.write_bytes(data)
    found = run_tool("/usr/sbin/postmap", "-s", f"hash:{path.with_suffix('')}")
    path.unlink()
    return sorted(found.stdout.splitlines()) if found.returncode == 0 else found.stderr


def last_line(data):
    lines = data.decode("utf-8", "replace").splitlines()
    return lines[-1] if lines else "(nothing said)"
