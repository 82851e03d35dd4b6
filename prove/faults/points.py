"""Where the sweep breaks the tool: every system call of one recorded run."""

import collections
import errno
import re
import subprocess
import tempfile
from pathlib import Path

from faultworld import ENVIRONMENT

# Memory, signal masks, clocks: they touch no file, no descriptor and no process.
UNTOUCHING = {
    "arch_prctl", "brk", "futex", "getrandom", "madvise", "mprotect", "mremap", "munmap", "prlimit64", "rseq",
    "rt_sigaction", "rt_sigprocmask", "rt_sigreturn", "set_robust_list", "set_tid_address", "umask", "uname",
    "clock_gettime", "execve",
}
BREAKABLE = {
    "open", "openat", "write", "fsync", "fdatasync", "rename", "renameat2", "chmod", "fchmod", "fchmodat", "pipe2",
    "fork", "vfork", "clone", "clone3", "wait4", "waitid", "select", "pselect6", "flock",
}
ERRORS = ["ENOSPC", "EIO", "EMFILE", "EACCES", "EINTR"]
MORE_ERRORS = {"clone": ["EAGAIN", "ENOMEM"], "clone3": ["EAGAIN", "ENOMEM"], "flock": ["EAGAIN"]}

# A place to break: call is the name for strace; nth counts the calls of that name from 1;
# phase is one of "loader", "early", "master"; how is "strace" or "shim".
Point = collections.namedtuple("Point", "kind call nth error phase how argument")


class Recording:
    """The calls of an undisturbed run, in order: [(name, nth of that name, phase, text)]."""

    def __init__(self, world):
        self.calls, counts, phase = [], collections.Counter(), "loader"
        world.reset()
        for line in self._strace(world).splitlines():
            found = re.match(r"(\w+)\((.*)", line)
            if not found:
                continue
            name, text = found.groups()
            counts[name] += 1
            if name == "umask":  # the first thing that main() does
                phase = "early"
            elif "/etc/postfix/master.cf\"" in text and name == "openat":
                phase = "master"
            self.calls.append((name, counts[name], phase, text))

    @staticmethod
    def _strace(world):
        with tempfile.NamedTemporaryFile() as log:
            subprocess.run(["strace", "-o", log.name, world.program], env=ENVIRONMENT, check=True, stdin=subprocess.DEVNULL,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            return Path(log.name).read_text(errors="replace")


def kill_points(recording):
    return [Point("kill", name, nth, "SIGKILL", phase, "strace", text[:60])
            for name, nth, phase, text in recording.calls if name not in UNTOUCHING]


def error_points(recording, shim_counts):
    points = []
    for name, nth, phase, text in recording.calls:
        if name in BREAKABLE or (name == "close" and nth in recording_file_closes(recording)):
            points += [Point("error", name, nth, error, phase, "strace", text[:60])
                       for error in ERRORS + MORE_ERRORS.get(name, [])]
    for name, count in shim_counts.items():
        points += [Point("error", name, nth, error, "any", "shim", "")
                   for nth in range(1, count + 1) for error in ERRORS]
    return points


def recording_file_closes(recording):
    """The closes of written files. The C library calls close(2) for them internally, which the
    shim does not see. When strace makes a close fail, the descriptor stays open: with a pipe
    or a lock, somebody would wait for ever; with a file it does no harm. Lock files, which are
    opened relative to the lock directory, are left out."""
    files, found = set(), set()
    for name, nth, phase, text in recording.calls:
        opened = re.search(r"= (\d+)$", text)
        if name == "openat" and opened and re.search(r"O_WRONLY|O_RDWR", text) and not re.match(r'\d+, "_', text):
            files.add(opened.group(1))
        elif name in ("openat", "pipe2", "socket") and opened:
            files.discard(opened.group(1))
        elif name == "close":
            fd = text.split(")")[0]
            if fd in files and phase != "loader":
                found.add(nth)
            files.discard(fd)
    return found


def code_of(error):
    return getattr(errno, error)
