"""Attacks on lock files: by a user with a shell, in directories that are open to everybody."""

import fcntl
import os
import signal
import subprocess
import sys
from pathlib import Path

from attackworld import LOCKS, MISSING, STRANGER, TABLES, VICTIM, remove, state

NAMES = ["_etc_postfix_main.cf", "_etc_postfix_master.cf"] + [f"_var_spool_postfix_torva_{name}" for name in TABLES]
SEMAPHORE = Path("/usr/local/kra/var/utilities.sem")


def fill(kind, directory=LOCKS):
    for name in NAMES:
        path = directory / name
        if kind == "links":
            path.symlink_to(VICTIM)
        elif kind == "dangling links":
            path.symlink_to(MISSING)
        elif kind == "FIFOs":
            os.mkfifo(path, 0o666)
        elif kind == "sockets":
            os.mknod(path, 0o140666)
        elif kind == "directories":
            path.mkdir()


def refused(world, what):
    """The run and a library program both refuse the directory, and name it."""
    for ended in (world.run(), world.library("lock")):
        text = ended.text.decode()
        world.expect("lock() failed" in text and str(LOCKS) in text, f"{what}: {ended}")
        world.expect_unharmed()


def made_first(world):
    """made before the first run, with anything inside"""
    for mode in (0o700, 0o755, 0o777, 0o1777):
        for kind in ("nothing", "links", "dangling links", "FIFOs", "sockets", "directories"):
            def attack():
                LOCKS.mkdir()
                LOCKS.chmod(mode)
                fill(kind)
            world.reset()
            world.as_account(attack)
            refused(world, f"{kind}, {mode:o}")


def link_in_its_place(world):
    """a link in its place, to a directory of the attacker, of root, to none"""
    own = Path("/run/lock/attacker")
    for target in (own, Path("/etc"), Path("/run/lock/none")):
        def attack():
            own.mkdir()
            fill("links", own)
            LOCKS.symlink_to(target)
        world.reset()
        world.as_account(attack)
        refused(world, f"link to {target}")
        world.expect(not Path("/etc/_etc_postfix_main.cf").exists() and not Path("/run/lock/none").exists(),
                     f"made where the link to {target} leads")
        remove(LOCKS)
        remove(own)


def open_to_all(world):
    """root's own, but open to others, who put something inside"""
    for mode in (0o777, 0o1777):
        for kind in ("links", "dangling links", "FIFOs"):
            world.reset()
            LOCKS.mkdir()
            LOCKS.chmod(mode)
            world.as_account(lambda kind=kind: fill(kind))
            refused(world, f"{kind}, {mode:o}")


def taken_over(world):
    """given to root by an administrator, with all that the attacker had put inside"""
    for kind in ("links", "dangling links", "FIFOs", "second names"):
        world.reset()
        world.as_account(lambda kind=kind: (LOCKS.mkdir(), fill(kind)))
        victims = []
        if kind == "second names":
            # Made by root: fs.protected_hardlinks keeps the attacker from making them.
            for name in NAMES:
                victims.append(Path("/run/lock") / f"victim{name}")
                victims[-1].write_bytes(b"precious")
                os.link(victims[-1], LOCKS / name)
        os.chown(LOCKS, 0, 0)
        LOCKS.chmod(0o700)
        refused(world, kind)
        for victim in victims:
            world.expect(victim.read_bytes() == b"precious", f"{victim} has changed")
            victim.unlink()


def taken_over_with_locks_held(world):
    """given to root while the attacker holds the locks of files of its own"""
    world.reset()
    world.as_account(lambda: (LOCKS.mkdir(), [(LOCKS / name).touch(0o644) for name in NAMES]))
    with Holder(world, True):
        os.chown(LOCKS, 0, 0)
        LOCKS.chmod(0o700)
        refused(world, "held")


class Holder:
    """A process of another account that opens lock files for reading, and holds their locks,
    or takes them again and again."""

    def __init__(self, world, take):
        self.ready, ready = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            os.setgroups([])
            os.setresuid(STRANGER, STRANGER, STRANGER)
            opened = [os.open(LOCKS / name, os.O_RDONLY) for name in NAMES]
            if take:
                for fd in opened:
                    fcntl.flock(fd, fcntl.LOCK_EX)
            os.write(ready, b"1")
            while not take:
                for fd in opened:
                    try:
                        fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    except BlockingIOError:
                        pass
            signal.pause()
        os.close(ready)
        world.expect(os.read(self.ready, 1) == b"1", "the holder could not open the lock files")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.kill(self.pid, 9)
        os.waitpid(self.pid, 0)
        os.close(self.ready)


def held_through_a_reading_descriptor(world):
    """an earlier version's, readable for all: the locks are held, or taken again and again"""
    for take in (True, False):
        world.reset()
        LOCKS.mkdir(mode=0o755)
        for name in NAMES:
            (LOCKS / name).touch(0o644)
        with Holder(world, take):
            ended = world.run()
            world.expect_complete(ended)
        world.expect_unharmed()


def opened_by_others(world):
    """lock files of a finished run, opened by others"""
    world.reset()
    world.expect_complete(world.run())

    def attack():
        for name in NAMES:
            try:
                os.open(LOCKS / name, os.O_RDONLY)
            except PermissionError:
                continue
            raise OSError("a lock file can be opened")
    world.as_account(attack)
    world.tried += len(NAMES)


def race(world):
    """made, removed, replaced by links in a loop, while root makes it and locks"""
    world.reset()
    script = """
import os, sys
lock, other = sys.argv[1:3]
while True:
    for step in (lambda: os.mkdir(lock), lambda: os.symlink(sys.argv[3], lock + "/_etc_postfix_main.cf"),
                 lambda: os.rename(lock, other), lambda: os.symlink(other, lock), lambda: os.unlink(lock),
                 lambda: os.rename(other, lock), lambda: os.unlink(lock + "/_etc_postfix_main.cf"),
                 lambda: os.rmdir(lock), lambda: os.rmdir(other)):
        try:
            step()
        except OSError:
            pass
"""
    words = ["setpriv", "--reuid", STRANGER, "--regid", STRANGER, "--clear-groups", "--", sys.executable, "-c", script,
             LOCKS, "/run/lock/attacker", VICTIM]
    with subprocess.Popen([str(word) for word in words]) as attacker:
        try:
            for _ in range(world.count(50, 1000)):
                world.library("lock")
                world.expect_unharmed()
                found = state(LOCKS)
                if found and found[1] == 0:
                    remove(LOCKS)  # as a boot would
        finally:
            attacker.kill()
    remove(LOCKS)
    remove("/run/lock/attacker")


def semaphore(world):
    """the semaphore file and its directories: links, FIFOs, somebody else's, open to others"""
    cases = {
        "link": lambda: SEMAPHORE.symlink_to(VICTIM),
        "dangling link": lambda: SEMAPHORE.symlink_to(MISSING),
        "FIFO": lambda: os.mkfifo(SEMAPHORE),
    }
    for what, attack in cases.items():
        for hostile in ("", "open", "theirs"):
            world.reset()
            remove(SEMAPHORE)
            SEMAPHORE.parent.mkdir(parents=True, exist_ok=True)
            os.chown(SEMAPHORE.parent, STRANGER if hostile == "theirs" else 0, 0)
            SEMAPHORE.parent.chmod(0o777 if hostile == "open" else 0o755)
            attack()
            ended = world.library("semaphore")
            world.expect(b"failed to open semaphore file" in ended.text, f"{what} {hostile}: {ended}")
            world.expect_unharmed()
    remove(SEMAPHORE)
    os.chown(SEMAPHORE.parent, 0, 0)
    SEMAPHORE.parent.chmod(0o755)


ATTACKS = [("lock directory", attack) for attack in (
    made_first, link_in_its_place, open_to_all, taken_over, taken_over_with_locks_held,
    held_through_a_reading_descriptor, opened_by_others, race)]
ATTACKS.append(("semaphore file", semaphore))
