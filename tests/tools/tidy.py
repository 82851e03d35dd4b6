#!/usr/bin/env python3
"""Runs clang-tidy on the product's sources: tidy.py CHECKOUT BUILD [--analyzer]

Where the build compiles the sources of a folder together, they are joined into one text for
most checks: these look through everything that is included, and the common headers are most of
the work. Places in that text are translated back. With --analyzer only the static analyzer runs,
on each source alone, which takes minutes. Exit status 0: no finding."""

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
NOT_ANALYZED = "torva/postfix/mastercf/MasterCfParser.cpp"
CHECKS = "--checks=-clang-analyzer-*"
ANALYZER = "--checks=-*,clang-analyzer-*,-clang-analyzer-cplusplus.NewDeleteLeaks"


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
    """One text of all, and for each of its lines the file and the line where it comes from."""
    text, places = [], []
    for source in sources:
        for number, line in enumerate(source.read_text().splitlines(), 1):
            text.append(line)
            places.append(f"{source}:{number}")
    return "\n".join(text) + "\n", places


def check(checkout, sources, entry, option):
    """What clang-tidy says of sources that it reads as one, and whether it finds nothing."""
    text, places = joined(sources)
    with tempfile.TemporaryDirectory() as scratch:
        copy = Path(scratch, sources[0].name)
        copy.write_text(text)
        run = subprocess.run(["clang-tidy", "--quiet", f"--config-file={checkout}/.clang-tidy", option, str(copy), "--",
                              *flags(entry["command"]), f"-I{sources[0].parent}"],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    said = re.sub(re.escape(str(copy)) + r":(\d+)", lambda place: places[int(place[1]) - 1], run.stdout)
    return re.sub(r"^\d+ warnings? .*generated\.\n", "", said, flags=re.M), run.returncode == 0


def main():
    checkout, build = Path(sys.argv[1]).resolve(), Path(sys.argv[2])
    analyze = sys.argv[3:] == ["--analyzer"]
    folders = tuple(f"{checkout}/{folder}/" for folder in PRODUCT)
    entries = [entry for entry in json.loads((build / "compile_commands.json").read_text())
               if all(str(source).startswith(folders) for source in sources_of(Path(entry["file"])))]
    if not entries:
        sys.exit(f"tidy.py: {build}/compile_commands.json names no source of the product")
    tasks = []
    for entry in entries:
        sources = sources_of(Path(entry["file"]))
        if analyze:
            tasks += [(checkout, [one], entry, ANALYZER) for one in sources if one != checkout / NOT_ANALYZED]
        else:
            tasks.append((checkout, sources, entry, CHECKS))
    # The longest first, so that none is alone at the end.
    tasks.sort(key=lambda task: sum(source.stat().st_size for source in task[1]), reverse=True)
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        results = list(pool.map(lambda task: check(*task), tasks))
    for said, _ in results:
        print(said, end="")
    sys.exit(0 if all(good for _, good in results) else 1)


main()
