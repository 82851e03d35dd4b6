#!/usr/bin/env python3
"""Compares the DIAGNOSTICS of torva-postfix-setup(8) with the sources, in both directions."""

import re
import shlex
import sys
from pathlib import Path

# Sources of the messages that a run can end or report with.
SOURCES = ("app/*.cpp", "torva/postfix/*/*.cpp", "torva/process/*.cpp", "torva/util/*.cpp",
           "torva/libc/*.cpp", "torva/maildb/panel_db.cpp", "torva/maildb/panel_db_session.cpp")
LITERAL = r'"(?:[^"\\]|\\.)*"'
# Where a text is thrown or printed; one entry is for all bare operations ("select").
SPOKEN = re.compile(r"(?:throw (?:\w+::)*(?:Postfix\w+Error|runtime_error)\(|filesystemError\(|std::cerr\s*<<|"
                    r"torva_log\(\s*\w+,|report_error\(\s*\w+,)\s*((?:" + LITERAL + r"\s*)+)")
# Written in the manual as they are printed, in the sources in pieces.
COMPOSED = {"user popusernot found": ("user ", "popuser", "not found")}
NO_LITERAL = {"std::bad_alloc": "the name of a type", "other operations": "stands for the names of all"}
# Messages of the sources that a run does not print.
NOT_IN_A_RUN = {
    "Unable to get domain aliases from database for": "the run asks for no domain aliases",
    "Unable to get domain by domainalias": "likewise",
    "unable to form record cache": "the listing is of a table that the run itself has made",
    "variable '": "the run asks for variables of the table only",
    "TmpFile autoclean failed": "printed beside the error that the entry is about",
    "Internal error: bad escape_chars value": "all command lines are fixed, but for checked elements",
    "failed to open semaphore file": "the run takes no semaphore",
    "sem_lock() failed for semnum": "likewise",
    "sem_unlock() failed for semnum": "likewise",
    "shutdown_sem(): failed to close semaphore file": "likewise",
}


def literals(text):
    for run in re.findall(rf"{LITERAL}(?:\s*{LITERAL})*", text):
        yield joined(run)


def joined(run):
    return "".join(part[1:-1].replace('\\"', '"') for part in re.findall(LITERAL, run))


def words_of(line):
    """A line of the manual as it is displayed."""
    text = line.replace(r"\(dq", "\0").replace(r"\-", "-")
    text = re.sub(r"\\f[BIRP]", "", text)
    if text.startswith("."):
        macro, _, rest = text.partition(" ")
        lexer = shlex.shlex(rest, posix=True)
        lexer.quotes, lexer.escape, lexer.whitespace_split, lexer.commenters = '"', "", True, ""
        text = ("" if macro in (".BR", ".RI", ".IB") else " ").join(lexer)
    return text.replace("\0", '"')


def entries(manual):
    """The messages: the lines after .TP in the section."""
    lines = manual.split(".SH DIAGNOSTICS\n")[1].split(".SH ")[0].splitlines()
    return [words_of(lines[n + 1]) for n, line in enumerate(lines) if line == ".TP"]


def fixed_parts(entry):
    """The constant pieces of an entry: variables are in capitals, messages joined by commas."""
    if entry.startswith(("Detected problems", "UNSPECIFIED")) or entry in COMPOSED:
        return [entry]
    parts = re.split(r', "|, | and (?=[A-Z"]|other)| or (?=chmod)|(?<!\w)(?:FILE|REASON|OPERATION)(?!\w)', entry)
    return [part.strip(' :"') for part in parts if part.strip(' :"')]


def complaints(root):
    sources = [path for pattern in SOURCES for path in sorted(root.glob(pattern))]
    texts = {path: path.read_text() for path in sources}
    known = [literal for text in texts.values() for literal in literals(text)]
    told = entries((root / "man/torva-postfix-setup.8").read_text())
    for entry in told:
        for part in fixed_parts(entry):
            pieces = COMPOSED.get(part, (part,))
            if part not in NO_LITERAL and not all(any(piece in one for one in known) for piece in pieces):
                yield f"man/torva-postfix-setup.8: no source says: {part}"
    for path, text in texts.items():
        for run in SPOKEN.findall(text):
            said = re.split(r"%\w+|\\n|\"", joined(run))[0].strip(" :(")
            if said and said not in NOT_IN_A_RUN and not any(said in entry for entry in told):
                yield f"{path.relative_to(root)}: not in the DIAGNOSTICS of torva-postfix-setup(8): {said}"


def main(root):
    found = list(complaints(root))
    print("\n".join(found) or "the manual and the sources have the same messages")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
