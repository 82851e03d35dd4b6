# The grammar of torva-postfix-setup for master.cf: prints "line N: REASON" where it
# gives the file up, and nothing for a file that it takes. Stricter than master(5).
BEGIN {
    fields = split("type private unpriv chroot wakeup maxproc", field, " ")
    form["type"] = "inet|unix|fifo"; wanted["type"] = "inet, unix or fifo"
    form["private"] = form["unpriv"] = form["chroot"] = "[yn-]"
    wanted["private"] = wanted["unpriv"] = wanted["chroot"] = "y, n or -"
    form["wakeup"] = "-|[0-9]+[?]?"; form["maxproc"] = "-|[0-9]+"
    wanted["wakeup"] = wanted["maxproc"] = "a number or -"
    word = "[!-\"$-~]+"; words = word "([ \t\r]+" word ")*"
}

function bad(reason) { print "line " at ": " reason; exit }

# The word at which the grammar stands.
function here(text) {
    text = rest
    sub(/[ \t\r].*/, "", text); gsub(/[^ -~]/, "?", text)
    return text == "" ? "the end of the entry" : "\"" text "\""
}

function take(pattern) {
    if (!match(rest, "^(" pattern ")")) return 0
    got = substr(rest, 1, RLENGTH); rest = substr(rest, RLENGTH + 1)
    return 1
}

# White space between two fields: blanks, a comment; and line breaks, empty lines and
# comments when the next other line begins with a blank.
function skip(next_line) {
    sub(/^[ \t\r]+/, "", rest); sub(/^#.*/, "", rest)
    if (rest != "") return
    next_line = at + 1
    while (next_line <= NR && line[next_line] ~ /^[ \t\r]*(#.*)?$/) next_line++
    if (next_line > NR || line[next_line] !~ /^[ \t\r]/) return
    at = next_line; rest = line[at]; sub(/^[ \t\r]+/, "", rest)
}

function service(i, end, left) {
    if (rest ~ /^[ \t\r]/) { skip(); bad(here() " continues no entry") }
    if (!take("[-a-z0-9_:.]+") || rest ~ /^[^ \t\r#]/)
        bad(here() " in a service name, which holds a-z, 0-9 and -_:. only")
    for (i = 1; i <= fields; i++) {
        skip()
        if (!take(form[field[i]])) bad(field[i] " must be " wanted[field[i]] ", not " here())
        sub(/[?]/, "", got); sub(/^0+/, "", got)
        if (length(got) > 10 || got + 0 > 4294967295) bad(field[i] " " got " is too great")
    }
    skip()
    if (!take(words)) bad("a command must follow maxproc, not " here())
    do {
        end = at; left = rest
        skip()
    } while (take(words))
    at = end; rest = left
    sub(/^[ \t\r]+/, "", rest)
    if (rest ~ /^#/) bad("a comment behind the last word of an entry")
    if (rest != "") bad(here() " holds a character that is not printable ASCII")
}

{ line[NR] = $0 }

END {
    for (at = 1; at <= NR; at++) {
        rest = line[at]
        if (rest !~ /^[ \t\r]*(#.*)?$/) service()
    }
}
