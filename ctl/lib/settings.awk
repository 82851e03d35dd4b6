# Two outputs of postconf -n: NAME, old value, new value of each setting that differs,
# each ended by \001.
FILENAME == ARGV[1] { old[$1] = $0; next }
old[$1] != $0 { print_pair(old[$1], $0) }
{ delete old[$1] }
END { for (name in old) print_pair(old[name], "") }
function print_pair(before, after, name) {
    name = $1
    if (after == "") { name = before; sub(/ .*/, "", name) }
    sub(/^[^=]*= */, "", before); sub(/^[^=]*= */, "", after)
    printf "%s\001%s\001%s\001\n", name, before, after
}
