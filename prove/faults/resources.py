"""What the sweep takes away from the tool as a whole: descriptors, processes, disk space."""

import os
import resource
import subprocess
from pathlib import Path

from faultworld import POSTFIX, remove

SPOOL = Path("/var/spool/postfix")
LOCK = Path("/run/lock")
PAGE = 4096
# RLIMIT_NPROC never limits root in the initial user namespace: clone(2) checks the account
# before the capabilities. So the tool runs as another account, with the capabilities to write
# the configuration, but without CAP_SYS_RESOURCE and CAP_SYS_ADMIN.
MORTAL = ["setpriv", "--reuid", "31990", "--regid", "31990", "--clear-groups",
          "--inh-caps", "-all,+dac_override,+chown,+fowner", "--ambient-caps", "-all,+dac_override,+chown,+fowner",
          "--bounding-set", "-all,+dac_override,+chown,+fowner"]


def resource_points():
    """[(kind, what, amount, where, ...)], in the fields of a point."""
    descriptors = [("RLIMIT_NOFILE", n, "") for n in (16, *range(4, 16), *range(17, 24))]
    processes = [("RLIMIT_NPROC", n, "") for n in (1, 2)]
    full = [("full", free, str(where)) for where in (POSTFIX, SPOOL) for free in (0, 1, 2, 3, 4, 6, 9, 12)]
    full += [("full", 0, str(LOCK))] + [("inodes", n, str(LOCK)) for n in range(2, 14)]
    return [("resources", what, amount, "", "resources", "", where) for what, amount, where in descriptors + processes + full]


def start(sweep, point, start_command):
    program = [sweep.program]
    how = {}
    if point.call == "RLIMIT_NOFILE":
        how["preexec_fn"] = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (point.nth, point.nth))
    elif point.call == "RLIMIT_NPROC":
        program = [*MORTAL, "--", "prlimit", f"--nproc={point.nth}", "--", *program]
    else:
        fill(sweep.world, Path(point.argument), point.nth, point.call == "inodes")
    return start_command(program, **how)._replace(hit=True)


def fill(world, where, left, inodes):
    """A file system of 64 KiB in place of a directory, with so many free pages or inodes."""
    remove("/run/capture/kept")
    world.mount_small(where, "size=64k" + (f",nr_inodes={left}" if inodes else ""), keep=not inodes)
    if not inodes:
        world.extra.add("filler")
        free = os.statvfs(where).f_bfree * PAGE
        (where / "filler").write_bytes(b"\0" * max(0, free - left * PAGE))


def give_back(point):
    """The disk has space again, and the files belong to root, for the next run."""
    if point.call in ("full", "inodes"):
        subprocess.run(["mount", "-o", "remount,size=16m,nr_inodes=10000", point.argument], check=True)
    elif point.call == "RLIMIT_NPROC":
        made = [path for path in (POSTFIX, SPOOL / "torva", LOCK / "files") if path.exists()]
        subprocess.run(["chown", "-R", "root:root", *made], check=True)
