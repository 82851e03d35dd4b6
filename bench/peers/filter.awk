# What the filter chain does with a listing when the domain d.net goes: records whose
# key is the domain or an address of it, its addresses in the values of the others,
# and records that lose their last value. For scripts/bench, beside that chain.
function inside(text) { return text == "d.net" || text ~ /@d\.net$/ }
{
    separator = match($0, /[ \t]+/)
    if (!separator || inside(substr($0, 1, separator - 1))) next
    head = substr($0, 1, separator + RLENGTH - 1)
    value = substr($0, separator + RLENGTH)
    count = split(value, elements, /[, \t]+/)
    kept = ""
    dropped = 0
    for (i = 1; i <= count; i++) {
        if (elements[i] == "") continue
        if (inside(elements[i])) dropped = 1
        else kept = kept == "" ? elements[i] : kept ", " elements[i]
    }
    if (kept != "") print head (dropped ? kept : value)
}
