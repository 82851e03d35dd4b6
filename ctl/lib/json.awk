# One JSON object from the fields KEY, VALUE, KEY, VALUE..., each of which ends in
# \001. Values are strings, but for the keys that hold numbers.
BEGIN {
    RS = "\001"
    for (i = 1; i < 256; i++) {
        character = sprintf("%c", i)
        spelled[character] = i < 32 || i > 126 ? sprintf("\\u%04x", i) : character
    }
    spelled["\""] = "\\\""
    spelled["\\"] = "\\\\"
}
function quote(text, i) {
    printf "\""
    for (i = 1; i <= length(text); i++) printf "%s", spelled[substr(text, i, 1)]
    printf "\""
}
NR % 2 {
    printf "%s", NR == 1 ? "{" : ","
    quote($0)
    printf ":"
    number = /^(bytes|status)$/
    next
}
number { printf "%d", $0; next }
{ quote($0) }
END { print "}" }
