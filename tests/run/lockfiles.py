"""The lock directory, from the side of another program of the panel."""

import fcntl
from pathlib import Path

LOCKS = Path("/var/lock/files")


def held_locks():
    held = []
    for path in sorted(LOCKS.iterdir()) if LOCKS.is_dir() else []:
        with open(path, "r+b") as file:
            try:
                fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                held.append(path.name)
    return held


class HeldLock:
    """A lock of the lock directory, held by somebody else than the program."""

    def __init__(self, target):
        LOCKS.mkdir(parents=True, exist_ok=True)
        self._file = open(LOCKS / str(target).replace("/", "_"), "w")
        fcntl.flock(self._file, fcntl.LOCK_EX)

    def release(self):
        self._file.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.release()
