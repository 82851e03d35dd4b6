"""Why our reader and Postfix's own may differ about a master.cf.

A reason has a cure, which removes the reason from a text, and does not change a text
without it. So which reasons a text has depends on the text, not on the readers; and a
reason explains a difference only if the readers agree without it. If it concerns only
one of the two, the other must read the same with and without it. The texts are parsed
here as master(5) describes, by a third reader that uses neither of the two.
"""

import re
from collections import namedtuple

BLANKS = b" \t\r"
TYPES = (b"inet", b"unix", b"fifo")
OTHER_TYPES = (b"unix-dgram", b"pass")

# Which difference a reason can make.
WE_REFUSE, POSTFIX_REFUSES, DIFFER = "we refuse", "postfix refuses", "differ"

# Who reads the same with and without the reason.
OURS, POSTFIX, NOBODY = "ours", "postfix", None

Reason = namedtuple("Reason", "name differences unmoved cure")


class Block:
    """Lines that belong together: an entry with its continuation lines, a note (a
    comment or an empty line), or an orphan, which continues nothing."""

    def __init__(self, kind, line):
        self.kind = kind
        self.lines = [line]


def is_note(line):
    return line.strip(BLANKS) == b"" or line.strip(BLANKS).startswith(b"#")


def blocks_of(text):
    blocks, notes = [], []
    for line in text.split(b"\n"):
        if is_note(line):
            notes.append(line)
        elif line[:1] in (b" ", b"\t", b"\r"):
            if blocks and blocks[-1].kind != "note":
                blocks[-1].lines += notes + [line]
            else:
                blocks += [Block("note", note) for note in notes] + [Block("orphan", line)]
            notes = []
        else:
            blocks += [Block("note", note) for note in notes] + [Block("entry", line)]
            notes = []
    return blocks + [Block("note", note) for note in notes]


def text_of(blocks):
    return b"\n".join(line for block in blocks for line in block.lines)


def per_entry(change):
    """A cure that changes the lines of each entry."""

    def cure(text):
        blocks = blocks_of(text)
        for block in blocks:
            if block.kind == "entry":
                block.lines = change(block.lines)
        return text_of(blocks)

    return cure


def per_line(change):
    """A cure that changes each line of each entry, except notes."""
    return per_entry(lambda lines: [line if is_note(line) else change(line) for line in lines])


def per_field(change):
    """A cure that changes each field of each entry, given its position; the blanks between
    fields stay."""

    def change_lines(lines):
        position, changed = 0, []
        for line in lines:
            if not is_note(line):
                pieces = re.split(rb"([ \t\r]+)", line)
                for i in range(0, len(pieces), 2):
                    if pieces[i]:
                        pieces[i] = change(position, pieces[i])
                        position += 1
                line = b"".join(pieces)
            changed.append(line)
        return changed

    return per_entry(change_lines)


def fields_of(lines):
    plain = b" ".join(line for line in lines if not is_note(line))
    return [field for field in re.split(rb"[ \t\r]+", plain) if field]


# ---- the cures; REASONS, below, has the reason that each removes


def cure_empty(text):
    return text or b"\n"


def cure_feeds(text):
    """To Postfix, a line of such bytes alone is empty, and with "#" after them a comment."""
    return b"\n".join(
        re.sub(rb"^[ \t\r\v\f]+", lambda feeds: re.sub(rb"[\v\f]", b" ", feeds[0]), line)
        if re.fullmatch(rb"[ \t\r\v\f]*(#.*)?", line, re.DOTALL)
        else line
        for line in text.split(b"\n")
    )


def cure_orphans(text):
    return text_of([block for block in blocks_of(text) if block.kind != "orphan"])


def cure_null(lines):
    """Postfix sees nothing of an entry after a NUL."""
    for i, line in enumerate(lines):
        if not is_note(line) and b"\0" in line:
            return lines[:i] + [line[: line.index(b"\0")]]
    return lines


def cure_inner_comment(lines):
    return [line if is_note(line) else line.split(b"#")[0] for line in lines[:-1]] + lines[-1:]


def cure_last_comment(lines):
    return lines[:-1] + [lines[-1].split(b"#")[0].rstrip(BLANKS)] if b"#" in lines[-1] else lines


def cure_bytes(line):
    line = re.sub(rb"^[\v\f]", b" ", line)
    return re.sub(rb"[^\t\r -~\0]", b"x", line)


def cure_type(position, field):
    return b"unix" if position == 1 and field in OTHER_TYPES else field


def cure_upper_case(position, field):
    return field.lower() if position == 0 else field


def cure_name(position, field):
    return re.sub(rb"[^-A-Za-z0-9_:.]", b"_", field) if position == 0 else field


def cure_wakeup(position, field):
    return b"-" if position == 5 and field in (b"-?", b"?") else field


def number_cure(low, high):
    """A cure that replaces numbers from low to high - 1 by low - 1."""

    def cure(position, field):
        digits = field.rstrip(b"?")
        if position in (5, 6) and re.fullmatch(rb"[0-9]+\??", field) and low <= int(digits) < high:
            return str(low - 1).encode() + field[len(digits) :]
        return field

    return cure


def cure_zeros(position, field):
    return re.sub(rb"^0+(?=[0-9])", b"", field) if position in (5, 6) else field


COLUMNS = re.compile(
    rb"([-a-z0-9_:.]+) (inet|unix|fifo) ?([-yn]) ?([-yn]) ?([-yn]) ?(-|[0-9]+\??) ?(-|[0-9]+) ?(.+)", re.DOTALL
)


def cure_run_together(lines):
    columns = COLUMNS.fullmatch(b" ".join(fields_of(lines)))
    if columns is None or fields_of(lines)[:7] == list(columns.groups()[:7]):
        return lines
    return [b" ".join(columns.groups())]


def cure_twice(text):
    blocks, places = [], {}
    for block in blocks_of(text):
        key = tuple(fields_of(block.lines)[:2])
        if block.kind == "entry" and key in places:
            places[key].lines = block.lines
            continue
        if block.kind == "entry":
            places[key] = block
        blocks.append(block)
    return text_of(blocks)


def cure_braces(lines):
    """Those in the command and its arguments: elsewhere they explain nothing."""
    if b"{" not in b"".join(fields_of(lines)[7:]):
        return lines
    return [line if is_note(line) else re.sub(rb"[{}]", b"", line) for line in lines]


def cure_dollar(lines):
    if b"$" not in b"".join(fields_of(lines)[8:]):
        return lines
    return [line if is_note(line) else line.replace(b"$", b"S") for line in lines]


def is_option(word):
    return word.startswith(b"-") and word != b"--"


def cure_options(lines):
    """Makes each -o of the command a word of its own, followed by its value."""
    fields = fields_of(lines)
    changed, words = fields[:8], fields[8:]
    while words and is_option(words[0]):
        letters, o, value = words.pop(0).partition(b"o")
        changed += [letters] if letters != b"-" or not o else []
        if o:
            changed += [b"-o"] + ([value] if value else words[:1])
            words = words if value else words[1:]
    return lines if fields == changed + words else [b" ".join(changed + words)]


def cure_hyphen(lines):
    """Those among the arguments: in the columns, a hyphen is a regular value."""
    fields = fields_of(lines)
    if b"-" not in fields[8:]:
        return lines
    return [b" ".join(fields[:8] + [b"-v" if field == b"-" else field for field in fields[8:]])]


# In this order, one after the other, until the readers agree.
REASONS = [
    Reason("file of no bytes", [WE_REFUSE], POSTFIX, cure_empty),
    Reason("form feed in an empty line", [WE_REFUSE, POSTFIX_REFUSES, DIFFER], POSTFIX, cure_feeds),
    Reason("continuation of nothing", [WE_REFUSE], POSTFIX, cure_orphans),
    Reason("NUL in an entry", [WE_REFUSE, POSTFIX_REFUSES, DIFFER], POSTFIX, per_entry(cure_null)),
    Reason("comment within an entry", [WE_REFUSE, POSTFIX_REFUSES, DIFFER], OURS, per_entry(cure_inner_comment)),
    Reason("comment after the last word", [WE_REFUSE], NOBODY, per_entry(cure_last_comment)),
    Reason("type beyond inet, unix, fifo", [WE_REFUSE], NOBODY, per_field(cure_type)),
    Reason("name in upper case", [WE_REFUSE], NOBODY, per_field(cure_upper_case)),
    Reason("other character in a name", [WE_REFUSE], NOBODY, per_field(cure_name)),
    Reason("byte outside printable ASCII", [WE_REFUSE], NOBODY, per_line(cure_bytes)),
    Reason("wake-up time without a number", [WE_REFUSE], NOBODY, per_field(cure_wakeup)),
    Reason("number beyond 32 bits", [WE_REFUSE], NOBODY, per_field(number_cure(2**32, float("inf")))),
    Reason("number beyond 31 bits", [DIFFER], NOBODY, per_field(number_cure(2**31, 2**32))),
    Reason("leading zeros", [DIFFER], OURS, per_field(cure_zeros)),
    Reason("columns run together", [POSTFIX_REFUSES], OURS, per_entry(cure_run_together)),
    Reason("dollar sign of no parameter", [POSTFIX_REFUSES], NOBODY, per_entry(cure_dollar)),
    Reason("entry of the same name and type", [DIFFER], OURS, cure_twice),
    Reason("braces", [DIFFER], NOBODY, per_entry(cure_braces)),
    Reason("option letters in one word with -o", [DIFFER], NOBODY, per_entry(cure_options)),
    Reason("hyphen as an argument", [DIFFER], NOBODY, per_entry(cure_hyphen)),
]


def first_reason(text, difference):
    """The first reason of the text that can make the difference, and the text
    without it; (None, text) when there is none."""
    for reason in REASONS:
        if difference in reason.differences:
            cured = reason.cure(text)
            if cured != text:
                return reason, cured
    return None, text
