#!/usr/bin/env python3
"""Builds a bare Debian system of each suite and runs scripts/demo, scripts/check and
scripts/prove packages --short in it, from a fresh clone of the last commit. Prints a table of
the results. Exit status 0: every suite that could be installed is green; 77: none could."""

import argparse
import fcntl
import re
import shutil
import subprocess
import sys
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
TREE = HERE.parents[1]
PLACE = TREE / "build/releases"
SUITES = ["bookworm", "trixie", "forky"]
# When this ends, however it does, the command ends, too, and its mounts are gone.
ENDS_WITH_US = ["setpriv", "--pdeathsig", "KILL", "--", "unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc",
                "--propagation", "private", "--"]
# debootstrap knows only the suites of its own time; a later one is made like this one.
NEWEST_KNOWN = "sid"
SKIPPED = 77
SCRIPTS = Path("/usr/share/debootstrap/scripts")
HEADING = "| Suite | Postfix | Compiler | Boost | `scripts/demo` | Passed | Failed | Skipped | Packages |\n|---|---|---|---|---|---|---|---|---|"
MARKS = "<!-- releases: scripts/prove releases writes this -->\n", "<!-- end of the releases -->\n"


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/prove releases", description=__doc__.replace("\n", " "))
    parser.add_argument("suites", nargs="*", metavar="SUITE", help=f"of Debian ({' '.join(SUITES)})")
    parser.add_argument("--short", action="store_true", help="scripts/check --short in place of all tests")
    parser.add_argument("--output", type=Path, metavar="FILE", help="replaces the table in FILE, too")
    options = parser.parse_args()
    for suite in options.suites:
        # It becomes the name of directories, which are removed as a whole.
        if not re.fullmatch("[a-z][a-z0-9-]*", suite):
            parser.error(f"not the name of a suite: '{suite}'")
    return options


def say(text):
    print(text, flush=True)


class Unavailable(Exception):
    """The suite is not available here; the text says why."""


def archive():
    """The address from which this machine installs Debian's own packages."""
    release = Path("/etc/os-release").read_text()
    codename = re.search(r"^VERSION_CODENAME=(\w+)$", release, re.MULTILINE)
    targets = subprocess.run(["apt-get", "indextargets", "--format", "$(CODENAME) $(REPO_URI)", "Created-By: Packages"],
                             stdout=subprocess.PIPE, text=True).stdout
    for line in targets.splitlines():
        name, _, address = line.partition(" ")
        if codename and name == codename[1]:
            return address
    raise Unavailable("apt has no package source of this machine's own release")


def bare_system(suite):
    """The path of the bare system, made when it is not there yet."""
    system = PLACE / suite
    if (system / "etc/os-release").exists():
        return system
    unfinished = PLACE / f"{suite}.unfinished"
    shutil.rmtree(unfinished, ignore_errors=True)
    command = [*ENDS_WITH_US, "debootstrap", "--variant=minbase", suite, unfinished, archive()]
    if not (SCRIPTS / suite).exists():
        command.append(SCRIPTS / NEWEST_KNOWN)
    log = PLACE / f"{suite}.debootstrap.log"
    with log.open("w") as output:
        if subprocess.run(command, stdout=output, stderr=output).returncode != 0:
            raise Unavailable(f"debootstrap: {log.read_text().strip().splitlines()[-1]}")
    unfinished.rename(system)
    return system


def fresh_copy(suite):
    """A copy of the bare system with a clone of the last commit in it."""
    system = bare_system(suite)
    copy = PLACE / f"{suite}.run"
    subprocess.run(["rm", "-rf", "--one-file-system", copy], check=True)
    subprocess.run(["cp", "-a", "--reflink=auto", system, copy], check=True)
    subprocess.run(["git", "clone", "--quiet", "--no-local", TREE, copy / "root/torva-postfix"], check=True)
    for name in ("enter", "inside"):
        shutil.copy(HERE / name, copy / "root" / name)
    return copy


def try_out(suite, short):
    """What happened in one suite: the fields of the file that `inside` writes, by name."""
    copy = fresh_copy(suite)
    archives = PLACE / "archives" / suite
    archives.mkdir(parents=True, exist_ok=True)
    log = PLACE / f"{suite}.log"
    say(f"{suite}: running, see {log}")
    begin = time.monotonic()
    with log.open("w") as output:
        subprocess.run([HERE / "enter", copy, archives, "--short" if short else "--whole"], stdin=subprocess.DEVNULL,
                       stdout=output, stderr=output)
    results = copy / "root/results"
    fields = dict(line.split("\t", 1) for line in results.read_text().splitlines()) if results.exists() else {}
    fields["minutes"] = f"{(time.monotonic() - begin) / 60:.0f}"
    return fields


def row(suite, fields):
    cells = [suite] + [fields.get(name, "?") for name in ("postfix", "compiler", "boost", "demo", "passed", "failed", "skipped", "packages")]
    return "| " + " | ".join(cells) + " |"


def is_green(fields):
    return fields.get("demo") == "works" and fields.get("failed") == "0" and fields.get("passed", "0") != "0" and fields.get("packages") == "pass"


def write_table(path, table):
    text = path.read_text()
    begin, end = text.index(MARKS[0]) + len(MARKS[0]), text.index(MARKS[1])
    path.write_text(text[:begin] + "\n" + table + "\n\n" + text[end:])


def take_place():
    """The file that keeps a second proof from removing the systems under this one, while it is open."""
    PLACE.mkdir(parents=True, exist_ok=True)
    lock = (PLACE / "lock").open("w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        sys.exit(f"prove releases: another proof of the releases is running in {PLACE}")
    return lock


def main():
    options = arguments()
    lock = take_place()
    rows, outcomes = [HEADING], []
    for suite in options.suites or SUITES:
        try:
            fields = try_out(suite, options.short)
        except Unavailable as reason:
            say(f"SKIP: {suite}: {reason}")
            rows.append(f"| {suite} | skipped: {reason} | | | | | | | |")
            continue
        outcomes.append(is_green(fields))
        rows.append(row(suite, fields))
        say(f"{suite}: {'green' if is_green(fields) else 'NOT GREEN'}, {fields['minutes']} minutes")
    table = "\n".join(rows)
    say(table)
    if options.output:
        write_table(options.output, table)
    lock.close()
    if not outcomes:
        return SKIPPED
    return 0 if all(outcomes) else 1


if __name__ == "__main__":
    sys.exit(main())
