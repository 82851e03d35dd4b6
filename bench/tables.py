"""Lookup tables: feeding a postmap and reading its listing, compared with a postmap that
reads a file, or whose listing goes through a shell's pipe."""

import shutil
import statistics
from pathlib import Path

from rounds import BENCH, NotMeasured, by_turns, compare, memory, note, timed, values_of

POSTMAP = "/usr/sbin/postmap"
TABLE = f"hash:{BENCH}/table"
FILTER = Path(__file__).resolve().parent / "peers" / "filter.awk"


class Tables:
    """One table below /run/bench that every side finds in the same state."""

    def __init__(self, programs):
        self.timer = programs / "table_timer"
        self.grown = []

    def make(self, count):
        self.records = BENCH / f"records.{count}"
        timed(self.timer, "write", count, self.records)
        self.empty()
        timed(POSTMAP, "-r", "-i", TABLE, stdin=self.records)
        self.keep()

    def empty(self):
        (BENCH / "table").write_bytes(b"")
        timed(POSTMAP, TABLE)

    def keep(self):
        shutil.copy(BENCH / "table.db", BENCH / "kept.db")

    def restore(self):
        shutil.copy(BENCH / "kept.db", BENCH / "table.db")

    def ours(self, *words):
        values = values_of(self.timer, *words)
        self.grown.append(values["grown_kb"])
        return values["seconds"]

    def ours_with(self, *words):
        return lambda: (self.restore(), self.ours(*words))[1]

    def postmap_with(self, *words, stdin):
        return lambda: (self.restore(), timed(POSTMAP, *words, stdin=stdin))[1]


def put_records(programs, quick):
    for count, rounds, bar in ((10**3, 101, 1.10), (10**5, 15, 1.15), (10**6, 7, 1.10)):
        tables = Tables(programs)
        tables.make(count)
        tables.empty()
        tables.keep()
        ours, theirs = by_turns(3 if quick else rounds, tables.ours_with("put", TABLE, count),
                                tables.postmap_with("-r", "-i", TABLE, stdin=tables.records))
        compare(f"putRecords of {count:,}", "postmap -r -i from a file", ours, theirs, at_most=bar)
        memory(f"putRecords of {count:,}: growth of the peak memory", max(tables.grown), 1)


def delete_keys(programs, quick):
    tables = Tables(programs)
    tables.make(10**5)
    keys = BENCH / "keys"
    keys.write_text("".join(line.split(" ", 1)[0] + "\n" for line in tables.records.read_text().splitlines()))
    ours, theirs = by_turns(3 if quick else 15, tables.ours_with("delete", TABLE, 10**5),
                            tables.postmap_with("-d", "-", TABLE, stdin=keys))
    compare("deleteKeys of 100,000", "postmap -d - from a file", ours, theirs, at_most=1.15)


def listing(programs, quick):
    tables = Tables(programs)
    tables.make(10**5 if quick else 10**6)
    count = "100,000" if quick else "1,000,000"
    out, kept, listed = BENCH / "filtered", BENCH / "filtered.gawk", BENCH / "listed"
    gawk = ("/bin/sh", "-c", f"{POSTMAP} -s {TABLE} | gawk -f {FILTER} >{kept}")
    cat = ("/bin/sh", "-c", f"{POSTMAP} -s {TABLE} | cat >{listed}")
    tables.ours("filter", TABLE, out)
    timed(*gawk)
    if out.read_bytes() != kept.read_bytes():
        raise NotMeasured("gawk does not filter what we filter")
    note("gawk and the filter chain keep the same")
    tables.grown = []
    rounds = 3 if quick else 7
    filtered, list_, cats, gawks = by_turns(
        rounds, lambda: tables.ours("filter", TABLE, out), lambda: values_of(tables.timer, "list", TABLE)["seconds"],
        lambda: timed(*cat), lambda: timed(*gawk))
    compare(f"listing of {count} through the filter chain into a file", "postmap -s | cat", filtered, cats, at_most=1.10)
    compare("the same", "postmap -s | gawk with the same filter", filtered, gawks, at_most=1.0)
    memory("the same: growth of the peak memory, chunks of a pipe", max(tables.grown), 1 + 1 / 16)
    compare(f"dumpTable of {count}", "postmap -s | cat", list_, cats, at_most=1.10)
    chunks(tables, listed, rounds)


def chunks(tables, listed, rounds):
    """The chain alone, on a listing in a file."""
    def side(size):
        def run():
            values = values_of(tables.timer, "chunks", size, listed)
            grown[size] = max(grown.get(size, 0), values["grown_kb"])
            return values["seconds"]
        return run

    grown = {}
    large, small = by_turns(rounds, side(2**20), side(2**12))
    compare("the filter chain alone, chunks of 1 MB", "chunks of 4 KB", large, small, at_most=2.0)
    memory("the same: growth of the peak memory beyond the chunk", max(grown.values()), 1)
    note(f"{listed.stat().st_size / statistics.median(large) / 1e6:.0f} MB a second")
