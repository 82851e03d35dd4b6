#!/usr/bin/env python3
"""Runs clang-tidy on the product's sources: tidy.py CHECKOUT BUILD [CLANG-TIDY-OPTION...]

Where the build compiles the sources of a folder together, they are checked together, too:
their common headers are most of the work. They are joined to one text, for the static
analyzer looks into no included file; places in it are translated back. Exit status 0: no
finding."""

import concurrent.futures
import json
import os
import re
import shlex
import subprocess
import sys
import tempfile
from pathlib import Path

PRODUCT = ("app", "ctl", "torva")
# Following every path through the templates of the grammar would take minutes.
GRAMMAR = "torva/postfix/mastercf/MasterCfParser.cpp"


def sources_of(unit):
    """The sources that a unit of the build consists of."""
    included = re.findall(r'^#include "(/.*\.cpp)"$', unit.read_text(), re.M) if unit.suffix == ".cxx" else []
    return [Path(name) for name in included] or [unit]


def flags(command):
    """The options of a compiler's command that clang needs, too."""
    words = shlex.split(command)[1:]
    wanted = []
    for option, argument in zip(words, words[1:] + [""]):
        if option == "-isystem":
            wanted += [option, argument]
        elif option.startswith(("-I", "-D", "-std=")):
            wanted.append(option)
    return wanted


def joined(sources):
    """One text of all, and for each of its lines the file and the line that it was."""
    text, places = [], []
    for source in sources:
        for number, line in enumerate(source.read_text().splitlines(), 1):
            text.append(line)
            places.append(f"{source}:{number}")
    return "\n".join(text) + "\n", places


def check(checkout, entry, number, scratch, options):
    """What clang-tidy says of one unit, and whether it finds nothing."""
    sources = sources_of(Path(entry["file"]))
    text, places = joined(sources)
    copy = Path(scratch, f"unit{number}.cpp")
    copy.write_text(text)
    if sources == [checkout / GRAMMAR]:
        options = options + ["--checks=-clang-analyzer-*"]
    run = subprocess.run(["clang-tidy", "--quiet", f"--config-file={checkout}/.clang-tidy", *options, str(copy), "--",
                          *flags(entry["command"]), f"-I{sources[0].parent}"],
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    said = re.sub(re.escape(str(copy)) + r":(\d+)", lambda place: places[int(place[1]) - 1], run.stdout)
    return re.sub(r"^\d+ warnings? .*generated\.\n", "", said, flags=re.M), run.returncode == 0


def main():
    checkout, build = Path(sys.argv[1]).resolve(), Path(sys.argv[2])
    folders = tuple(f"{checkout}/{folder}/" for folder in PRODUCT)
    entries = [entry for entry in json.loads((build / "compile_commands.json").read_text())
               if all(str(source).startswith(folders) for source in sources_of(Path(entry["file"])))]
    if not entries:
        sys.exit(f"tidy.py: {build}/compile_commands.json names no source of the product")
    with tempfile.TemporaryDirectory() as scratch, \
            concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        results = list(pool.map(lambda unit: check(checkout, unit[1], unit[0], scratch, sys.argv[3:]),
                                enumerate(entries)))
    for said, _ in results:
        print(said, end="")
    sys.exit(0 if all(good for _, good in results) else 1)


main()
