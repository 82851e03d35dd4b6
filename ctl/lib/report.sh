# shellcheck shell=bash disable=SC2154 # the variables of torva-postfixctl
# What the verbs print: lines for people, or one JSON object a line. Sourced, never run.

stops=0                # findings of the level "stop" so far
declare -A troubled=() # subjects with a finding that is not "ok"
declare -A colours=([ok]=32 [done]=32 [warning]=33 [stop]=31 [failed]=31 [next]=1)

# emit FORMAT KEY VALUE [KEY VALUE]...: an object of the keys and values, or the values
# by FORMAT, see printf(1).
emit() {
    local format=$1 values=()
    shift
    if [[ $json == yes ]]; then
        printf '%s\001' verb "${verb%_inside}" "$@" | awk -f "$lib/json.awk" || true
    else
        for ((; $# > 1; )); do values+=("$2") && shift 2; done
        # shellcheck disable=SC2059
        printf "$format" "${values[@]}" || true
    fi 2>/dev/null
}

# report LEVEL SUBJECT TEXT [ACTION]: a finding or an event, and what to do about it.
report() {
    local on=''
    [[ $1 != stop ]] || stops=$((stops + 1))
    [[ $1 == ok ]] || troubled[$2]=yes
    [[ ! -t 1 || -n ${NO_COLOR:-} ]] || on="\e[${colours[$1]}m"
    emit "$on%-8s${on:+\e[m} %-11s %s\n${4:+                     -> %s\n}" level "$1" subject "$2" \
        text "${3//$'\n'/; }" ${4:+action "$4"}
}

# fine SUBJECT TEXT: the finding that all is well, unless another said otherwise.
fine() { [[ -n ${troubled[$1]:-} ]] || report ok "$1" "$2"; }

# heading TEXT: above a part of a longer report, for people.
heading() { [[ $json == yes ]] || printf '\n=== %s\n' "$1" 2>/dev/null || true; }
