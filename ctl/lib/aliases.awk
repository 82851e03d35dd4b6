# The elements of alias_maps and alias_database that a run creates and rebuilds: path
# and whole text, with a tab between. Input: default_database_type, then a line for
# each of the two. Variable: own, the element that the run leaves alone.
BEGIN { FS = "," }
NR == 1 { default_type = $0; next }
{
    for (i = 1; i <= NF; i++) {
        element = $i
        gsub(/^[ \t]+|[ \t]+$/, "", element)
        type = path = element
        if (sub(/:.*/, "", type)) sub(/^[^:]*:/, "", path); else type = default_type
        if (path !~ /^\//) path = "/" path # the run stands there
        if (type ~ /^(hash|btree|dbm|sdbm|cdb)$/ && element != own) print path "\t" element
    }
}
