"""Single operations: master.cf in process, one child, the mail-authentication database."""

import os
import time
from pathlib import Path

from rounds import BENCH, NotMeasured, by_turns, compare, emit, memory, seconds_text, timed, values_of

AUGTOOL_LIMIT = 60


def master_cf(programs, quick):
    timer = programs / "mastercf_timer"
    file, written = BENCH / "master.cf", BENCH / "written"
    main_cf = BENCH / "main.cf"
    main_cf.write_text("")
    os.utime(main_cf, (time.time() - 60, time.time() - 60))  # or Postfix's programs sleep
    script = BENCH / "script"
    script.write_text(f"print /files{file}/service1/command\n")
    augtool = ("/usr/bin/augtool", "--noautoload", "-t", f"Postfix_Master incl {file}", "-f", script)
    peaks = []

    def ours_of(count):
        values = values_of(timer, count, written)
        peaks.append(values["peak_kb"])
        return values["seconds"]

    for count, rounds in ((10**3, 31), (10**4, 9), (10**5, 3)):
        name = f"master.cf of {count:,} services: read, edit, write"
        timed(timer, "write", count, file)
        if timed(*augtool, limit=AUGTOOL_LIMIT) and b"flags=R" not in Path("/run/bench.said").read_bytes():
            raise NotMeasured("augtool has not read the services")
        ours, theirs = by_turns(3 if quick else rounds, lambda: ours_of(count),
                                lambda: timed(*augtool, limit=AUGTOOL_LIMIT))
        if None in theirs:
            emit(name, seconds_text(ours[0]), "augtool loading it", f"not done after {AUGTOOL_LIMIT} s")
        else:
            compare(name, "augtool loading it", ours, theirs, at_least=8)
        if count == 10**3:
            compare(name, "postconf -M", *by_turns(3 if quick else rounds, lambda: ours_of(count),
                                                   lambda: timed("/usr/sbin/postconf", "-c", BENCH, "-M")), at_least=25)
    compare("the same of 100,000 services", "of 10,000",
            *by_turns(3 if quick else 9, lambda: ours_of(10**5), lambda: ours_of(10**4)), at_most=12)
    memory("peak memory with 100,000 services", max(peaks), 110)


def child(programs, quick):
    for megabytes in (20, 1024):
        for descriptors in (20, 10000):
            values = values_of(programs / "child_timer", programs / "stub_tool", megabytes, descriptors,
                               40 if quick else 400)
            parent = f"parent of {megabytes:,} MB with {descriptors:,} descriptors"
            for what, key in (("launch() and waitForExit()", "launch"), ("a Pipe of one process", "pipe")):
                emit(f"one child by {what}, {parent}", seconds_text(values[key]), "fork, execve, waitpid",
                     seconds_text(values["bare"]), values[key + "_ratio"], at_most=1.15)


def auth(programs, quick):
    values = values_of(programs / "auth_timer")
    for what, alone, beside in (("look-up in the mail-authentication database beside a writer", "lookup", "lookup_beside"),
                                ("change of it beside a reader", "change", "change_beside")):
        emit(what, seconds_text(values[beside]), "alone", seconds_text(values[alone]), values[beside] / values[alone])
