#!/usr/bin/env python3
"""Runs clang-tidy on the product's sources: tidy.py CHECKOUT BUILD [--analyzer]

The sources of several folders are joined into one text for most checks: these look through
everything that is included, and the common headers are most of the work. Places in that text are
translated back. With --analyzer only the static analyzer and the checks for what is not used run,
on each source alone, which takes minutes. Exit status 0: no finding."""

import collections
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
ANALYZER = "--checks=-*,clang-analyzer-*,-clang-analyzer-cplusplus.NewDeleteLeaks,misc-unused-*"
# The folders whose sources are joined; those of others are joined where the build does so.
JOINED = (("torva/util", "torva/process", "torva/postfix", "app", "ctl/rehearsal"), ("ctl",))
# The headers for the command line are as much work as all others of the companion.
ALONE = "ctl/verbs/CommandLine.cpp"


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
            wanted.append(option + argument)
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


def ask(checkout, entries):
    """What clang-tidy says of the sources of some entries, which it reads as one."""
    sources = [source for entry in entries for source in entry["sources"]]
    text, places = joined(sources)
    options = dict.fromkeys(option for entry in entries for option in entry["flags"])
    with tempfile.TemporaryDirectory() as scratch:
        copy = Path(scratch, sources[0].name)
        copy.write_text(text)
        run = subprocess.run(["clang-tidy", "--quiet", f"--config-file={checkout}/.clang-tidy", entries[0]["checks"], str(copy),
                              "--", *options, f"-I{sources[0].parent}"],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    said = re.sub(re.escape(str(copy)) + r":(\d+)", lambda place: places[int(place[1]) - 1], run.stdout)
    return re.sub(r"^\d+ warnings? .*generated\.\n", "", said, flags=re.M), run.returncode == 0


def check(checkout, entries):
    """As ask(), but of each entry alone if what the sources declare clashes."""
    said, good = ask(checkout, entries)
    if "[clang-diagnostic-error" in said and len(entries) > 1:
        answers = [ask(checkout, [entry]) for entry in entries]
        return "".join(said for said, _ in answers), all(good for _, good in answers)
    return said, good


def group_of(name):
    """The number of the first group of folders that a source belongs to, or its own name."""
    return next((number for number, group in enumerate(JOINED)
                 if name != ALONE and name.startswith(tuple(folder + "/" for folder in group))), name)


def tasks_of(checkout, build, analyze):
    """What is to be asked at once, each a list of entries with their sources, flags and checks."""
    folders = tuple(f"{checkout}/{folder}/" for folder in PRODUCT)
    alone, groups = [], collections.defaultdict(list)
    for command in json.loads((build / "compile_commands.json").read_text()):
        sources = sources_of(Path(command["file"]))
        if not all(str(source).startswith(folders) for source in sources):
            continue
        if analyze:
            alone += [[{"sources": [one], "flags": flags(command["command"]), "checks": ANALYZER}]
                      for one in sources if one != checkout / NOT_ANALYZED]
            continue
        name = str(sources[0].relative_to(checkout))
        groups[group_of(name)].append({"sources": sources, "flags": flags(command["command"]), "checks": CHECKS})
    return alone + list(groups.values())


def main():
    checkout, build = Path(sys.argv[1]).resolve(), Path(sys.argv[2])
    analyze = sys.argv[3:] == ["--analyzer"]
    tasks = tasks_of(checkout, build, analyze)
    if not tasks:
        sys.exit(f"tidy.py: {build}/compile_commands.json names no source of the product")
    # The longest first, so that none is alone at the end.
    tasks.sort(key=lambda entries: sum(source.stat().st_size for entry in entries for source in entry["sources"]), reverse=True)
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        results = list(pool.map(lambda entries: check(checkout, entries), tasks))
    for said, _ in results:
        print(said, end="")
    sys.exit(0 if all(good for _, good in results) else 1)


main()
