#!/usr/bin/env python3
"""Takes the programs out of docs/library.md, each with the output that the page tells.

    guide.py PAGE DIRECTORY

A block of code whose first line is "// NAME.cpp" or "// NAME.c" is a program; the next
block of text is what it prints. Makes DIRECTORY/NAME.cpp and DIRECTORY/NAME.wanted, and
DIRECTORY/CMakeLists.txt from the page's block of CMake. Prints the names of the files.
"""

import re
import sys
from pathlib import Path

BLOCK = re.compile(r"^```(\w+)\n(.*?)^```$", re.DOTALL | re.MULTILINE)
FIRST_LINE = re.compile(r"// (\w+)\.(cpp|c)\n")


def main(page, directory):
    program = None
    for language, text in BLOCK.findall(page.read_text()):
        if language in ("c", "cpp"):
            name = FIRST_LINE.match(text)
            if not name or name[2] != language or program:
                sys.exit(f"no name, another language, or no output before:\n{text}")
            program = name[1]
            (directory / f"{program}.{language}").write_text(text)
            print(f"{program}.{language}")
        elif language == "text":
            if not program:
                sys.exit(f"an output without a program:\n{text}")
            (directory / f"{program}.wanted").write_text(text)
            program = None
        elif language == "cmake":
            (directory / "CMakeLists.txt").write_text(text)
    if program:
        sys.exit(f"{program} has no output")


if __name__ == "__main__":
    main(Path(sys.argv[1]), Path(sys.argv[2]))
