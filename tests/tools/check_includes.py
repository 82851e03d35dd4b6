#!/usr/bin/env python3
"""Fails on an include that does not point down the layers, or not from the root."""

import re
import sys
from pathlib import Path

ALLOWED = {
    "torva/libc": (),
    "torva/util": ("torva/libc",),
    "torva/process": ("torva/util",),
    "torva/maildb": ("torva/libc",),
    "torva/postfix/params": ("torva/process", "torva/util", "torva/libc"),
    "torva/postfix/mastercf": ("torva/postfix/params", "torva/util", "torva/libc"),
    "torva/postfix/tables": ("torva/maildb", "torva/postfix/params", "torva/process", "torva/util", "torva/libc"),
    "app": ("torva/postfix/tables", "torva/postfix/mastercf", "torva/postfix/params", "torva/maildb", "torva/process", "torva/util", "torva/libc"),
}
LIBRARY = ("torva/postfix/tables", "torva/postfix/mastercf", "torva/postfix/params", "torva/process", "torva/util",
           "torva/libc")
ALLOWED.update({
    "ctl/report": LIBRARY,
    "ctl/host": ("ctl/report", *LIBRARY),
    "ctl/backup": ("ctl/host", "ctl/report", *LIBRARY),
    "ctl/findings": ("ctl/backup", "ctl/host", "ctl/report", *LIBRARY),
    "ctl/rehearsal": ("ctl/report", "torva/process", "torva/util", "torva/libc"),
    "ctl/verbs": ("ctl/rehearsal", "ctl/findings", "ctl/backup", "ctl/host", "ctl/report", *LIBRARY),
    "ctl": ("ctl/verbs", "ctl/host", "ctl/report"),
})
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]', re.MULTILINE)


def violations(root, folder):
    for path in sorted((root / folder).glob("*.*")):
        for quote, name in INCLUDE.findall(path.read_text()):
            target = name.rpartition("/")[0]
            wrong = target in ALLOWED if quote == "<" else target not in (folder, *ALLOWED[folder])
            if wrong:
                end = '"' if quote == '"' else ">"
                yield f"{path.relative_to(root)}: {folder}/ may not include {quote}{name}{end}"


def main(root):
    found = [text for folder in ALLOWED for text in violations(root, folder)]
    print("\n".join(found) or f"{len(ALLOWED)} layers, every include points down")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
