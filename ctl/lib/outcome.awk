# What Postfix's master stumbles over, or leaves out without a word, in the
# configuration after a run. Findings, a line each: LEVEL, SUBJECT, TEXT, ACTION with
# tabs between. Input: the services of the run, with "replace" or "keep" for what it
# does to an entry that it finds; "==", getent services; "==", postconf -M; "==",
# parameters with their values. Variables: programs, tables (directories).
BEGIN { OFS = "\t" }
$0 == "==" { part++; next }
part == 0 { key = $2 "/" $3; entry[key] = $4 " " $5; replaced[key] = $6 == "replace" }
part == 1 { split($2, port, "/"); number[$1] = port[1]; for (i = 3; i <= NF; i++) number[$i] = port[1] }
part == 2 { key = $1 "/" $2; if (!replaced[key]) entry[key] = $3 " " $8 }
part == 3 && !/^alias_(maps|database) =/ {
    while (match($0, /(hash|btree|lmdb|cdb|s?dbm|pcre|regexp|cidr|texthash):\/[^ \t,}]+/)) {
        maps[substr($0, RSTART, RLENGTH)]
        $0 = substr($0, RSTART + RLENGTH)
    }
}

function is_missing(file, line, result) {
    result = (getline line < file)
    close(file)
    return result < 0
}

# The address and the port number that the name of an inet service stands for.
function endpoint(name, host, port) {
    host = port = name
    sub(/:?[^:]*$/, "", host); gsub(/[][]/, "", host)
    sub(/.*:/, "", port)
    return host ":" (port in number ? number[port] : port)
}

function check_service(key, field, name, at) {
    split(entry[key], field, " ")
    if (field[2] !~ /^\// && is_missing(programs "/" field[2]))
        print "warning", "service", key ": there is no " programs "/" field[2], "install it; until then the service fails"
    if (key !~ /\/inet$/) return
    if (field[1] != "n")
        print "warning", "service", key " is private: Postfix will not start", "postconf -F " key "/private=n"
    name = key; sub(/\/inet$/, "", name)
    at = endpoint(name)
    if (at in named)
        print "warning", "service", key " and " named[at] " are one endpoint: Postfix starts one of them only", "postconf -MX " key
    named[at] = key
}

function check_map(map, type, file) {
    type = file = map
    sub(/:.*/, "", type); sub(/^[a-z]*:/, "", file)
    if (index(file, tables "/") == 1) return
    file = file (type ~ /^(hash|btree)$/ ? ".db" : type ~ /^(cdb|lmdb)$/ ? "." type : type ~ /dbm$/ ? ".dir" : "")
    if (is_missing(file))
        print "warning", "map", map ": there is no " file, "postmap " map ", or take it out of the configuration"
}

END {
    for (key in entry) check_service(key)
    for (map in maps) check_map(map)
}
