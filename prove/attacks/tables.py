"""Attacks in the tables directory: by the account "postfix", to which it belongs once the
mail-authentication database exists.
"""

import os
from pathlib import Path

from attackworld import (DISABLED, MASTER_CF, MISSING, STRANGER, TABLES, TORVA, VICTIM, LockHolder, Swapper, remove,
                         state)

TABLE = TORVA / "virtual"
INDEX = TORVA / "virtual.db"
ALIASES = Path("/etc/aliases.db")
VERBS = ("create", "put", "delete", "rebuild", "rewrite")


def swapped(world, verb, prefix, count):
    """Root works on a file in the directory while each name that appears is swapped."""
    world.reset()
    if verb != "store":
        world.library("create")
        world.tried -= 1
    with Swapper(world, prefix, VICTIM) as swapper:
        ended = world.library(verb, count, limit=600)
    world.expect_unharmed()
    world.expect(swapper.swapped > 0, f"nothing was swapped: {ended}")
    return f"{swapper.swapped} names swapped, {ended.text.decode().strip().splitlines()[-1]}"


def swapped_scratch_of_create(world):
    """the scratch file of a table's creation is swapped for a link"""
    return swapped(world, "create", "virtual.", world.count(60, 1000))


def swapped_scratch_of_rewrite(world):
    """the scratch files of a table's rewrite are swapped for links"""
    return swapped(world, "rewrite", "virtual.", world.count(60, 1000))


def swapped_scratch_of_store(world):
    """the scratch file of the disabled store is swapped for a link"""
    return swapped(world, "store", "master.cf.disabled.", world.count(200, 1000))


def plant(path, kind, world):
    """One hostile file, made by the account, or by root if it is a hard link, which
    fs.protected_hardlinks would refuse to the account."""
    remove(path)
    if kind == "second name":
        os.link(VICTIM, path)
    elif kind == "FIFO":
        world.as_postfix(lambda: os.mkfifo(path, 0o666))
    else:
        world.as_postfix(lambda: path.symlink_to(VICTIM if kind == "link" else MISSING))


def planted(world, path):
    for verb in VERBS:
        for kind in ("link", "dangling link", "FIFO", "second name"):
            world.reset()
            world.library("create")
            plant(path, kind, world)
            ended = world.library(verb)
            try:
                world.expect_unharmed()
            except AssertionError as broken:
                raise type(broken)(f"{verb}, {kind}: {broken}; {ended}") from None
            if kind == "second name":
                # Where it still is the victim, only root may read it.
                world.expect(not path.exists() or not path.samefile(VICTIM) or path.stat().st_mode & 0o077 == 0,
                             f"{verb}: the victim is open to others")


def planted_index(world):
    """the index of a table is a link, a FIFO or a second name of a file"""
    planted(world, INDEX)


def planted_source(world):
    """the source of a table is a link, a FIFO or a second name of a file"""
    planted(world, TABLE)


def planted_before_a_run(world):
    """every index, then every source, is hostile before the tool runs"""
    for suffix in (".db", ""):
        for kind in world.some("link", rest=["dangling link", "FIFO", "second name"]):
            world.reset()
            for name in TABLES:
                plant(TORVA / f"{name}{suffix}", kind, world)
            ended = world.run()
            world.expect_unharmed()
            world.expect_complete(ended)


def locks_held(world):
    """the lock of every index is held, and of each new one as soon as it can be opened"""
    indexes = [TORVA / f"{name}.db" for name in TABLES] + [ALIASES]
    taken = 0
    for who in (STRANGER, world.postfix.pw_uid):
        for before in ("no index", "indexes"):
            world.reset()
            if who == STRANGER:  # as it is without the mail-authentication database
                os.chown(TORVA, 0, 0)
                TORVA.chmod(0o755)
            if before == "indexes":
                world.expect_complete(world.run())
            with LockHolder(world, who, (TORVA, "/etc")) as holder:
                world.expect_complete(world.run())
            world.expect_unharmed()
            world.expect(holder.taken >= len(indexes), f"{before}: only {holder.taken} locks were taken")
            for index in indexes:
                world.expect(state(index)[:2] == ("0o100644", 0), f"{index}: {state(index)[:3]}")
            names = sorted(path.name for path in TORVA.glob("*db*"))
            world.expect(names == sorted(f"{name}.db" for name in TABLES), f"left: {names}")
            taken += holder.taken
    return f"{taken} locks taken"


def planted_store(world):
    """the disabled-services store is a link or a FIFO"""
    for kind in ("link", "dangling link", "FIFO"):
        world.reset()
        plant(DISABLED, kind, world)
        before = state(MASTER_CF)
        ended = world.run()
        world.expect_unharmed()
        world.expect(ended.status == 0 or state(MASTER_CF) == before, f"{kind}: master.cf has changed: {ended}")


ATTACKS = [("tables directory", attack) for attack in (
    swapped_scratch_of_create, swapped_scratch_of_rewrite, planted_index, planted_source, planted_before_a_run)]
ATTACKS.append(("locks of indexes", locks_held))
ATTACKS += [("disabled store", attack) for attack in (swapped_scratch_of_store, planted_store)]
