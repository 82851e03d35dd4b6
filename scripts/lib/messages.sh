# shellcheck shell=bash
# What the scripts say and how they stop. Messages go to standard error, so that
# standard output stays what a command produced. Sourced, never run.

# The name in front of every message.
program=${0##*/}

# warn TEXT: one line on standard error.
warn() { printf '%s: %s\n' "$program" "$1" >&2; }

# die TEXT: one line, then exit status 1.
die() {
    warn "$1"
    exit 1
}

# skip TEXT: "SKIP: TEXT", then exit status 77. Only for what this machine's
# kernel does not permit; CTest counts such a test as skipped.
skip() {
    printf 'SKIP: %s\n' "$1" >&2
    exit 77
}

# need_root: stops in one line unless the caller is root.
need_root() { ((EUID == 0)) || die "must run as root, for example: sudo scripts/$program"; }

# open_standard_streams: a closed descriptor of 0 to 2 becomes /dev/null; otherwise the
# next file opened would get its number, and messages would be written into it.
open_standard_streams() {
    { true 3<&0; } 2>/dev/null || exec </dev/null
    { true 3>&1; } 2>/dev/null || exec >/dev/null
    true 3>&2 || exec 2>/dev/null
}
