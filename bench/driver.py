"""Runs the benchmarks of scripts/bench, each in a private world of its own, and
writes what they found: as a table to standard output, as Markdown to a file.

usage: driver.py PROGRAMS [--quick] [--output FILE] [NAME...]
       driver.py --inside PROGRAMS NAME full|quick

PROGRAMS: the directory of the programs that the preset release has built. The second
form is the driver's own.
"""

import argparse
import json
import os
import subprocess
import sys
import time
from pathlib import Path

import report
from rounds import BENCH, NotMeasured

HERE = Path(__file__).resolve().parent


def functions():
    """The benchmarks by name, in the order in which they are run."""
    import tables
    import texts
    import units
    import whole_runs

    return {"whole-run": whole_runs.whole_run, "stub-run": whole_runs.stub_run, "peers": whole_runs.peers,
            "descriptors": whole_runs.descriptors, "memory": whole_runs.peak_memory,
            "put-records": tables.put_records, "delete-keys": tables.delete_keys, "filter": tables.listing,
            "master-cf": units.master_cf, "child": units.child, "auth": units.auth, "texts": texts.inner}


def inside(programs, name, quick):
    if "TORVA_SANDBOX" not in os.environ:
        sys.exit("--inside is for the driver's own use")
    BENCH.mkdir()
    # In memory, nothing waits for the disk writes of other programs.
    subprocess.run(["mount", "-t", "tmpfs", "bench", str(BENCH)], check=True)
    os.chdir(BENCH)
    try:
        functions()[name](programs, quick)
    except (NotMeasured, OSError, subprocess.SubprocessError) as error:
        sys.exit(f"{name}: {error}")


def measure(programs, name, quick):
    """The rows of one benchmark, and None, or why it ended early."""
    print(f"{name} ...", file=sys.stderr, flush=True)
    command = [HERE.parent / "scripts" / "sandbox", "--with", programs, "--", sys.executable, "-B", __file__,
               "--inside", programs, name, "quick" if quick else "full"]
    run = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    out, errors = run.communicate()
    sys.stderr.write(errors)
    rows = [{"name": name, **json.loads(line)} for line in out.splitlines()]
    if run.returncode == 0:
        return rows, None
    return rows, (errors.strip().splitlines() or [f"{name}: exit status {run.returncode}"])[-1]


def main():
    if sys.argv[1:2] == ["--inside"]:
        inside(Path(sys.argv[2]), sys.argv[3], sys.argv[4] == "quick")
        return
    parser = argparse.ArgumentParser()
    parser.add_argument("programs", type=Path)
    parser.add_argument("names", nargs="*")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--output", type=Path)
    words = parser.parse_intermixed_args()
    known = list(functions())
    unknown = [name for name in words.names if name not in known]
    if unknown:
        sys.exit(f"no benchmark {', '.join(unknown)}; there are: {' '.join(known)}")

    start = time.monotonic()
    rows, reasons = [], []
    for name in words.names or known:
        found, reason = measure(words.programs.resolve(), name, words.quick)
        report.show(found)
        rows += found
        if reason:
            reasons.append(reason)
    if words.output:
        report.write(words.output, rows, reasons, words.quick, time.monotonic() - start)
    for reason in reasons:
        print(f"not measured: {reason}")
    sys.exit(1 if reasons else 0)


if __name__ == "__main__":
    main()
