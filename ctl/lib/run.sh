# shellcheck shell=bash disable=SC2154 # the variables of torva-postfixctl
# The run itself, and the verbs round it: apply, rollback, backups. Sourced, never run.

# perform_run: needs make_backup first; sets `status` to the exit status of the tool, which
# runs with what it cannot take out of its way.
perform_run() {
    local file
    : >>"$config/main.cf" # the tool, too, begins with that
    ends_its_line "$config/main.cf" || echo >>"$config/main.cf"
    touch -d '10 seconds ago' "$config/main.cf" # Postfix waits for a younger one to age
    shelter_services "$scratch/shelter"
    make_locks
    status=0
    TORVA_INSTALLER_DEBUG=1 flock "$locks/run" "$tool" </dev/null 2>&"$progress" >/dev/null || status=$?
    restore_services "$scratch/shelter"
    for file in "$(realpath "$config")"/{main,master}.cf; do settle "$state/$made/tree$file" "$file"; done
}

# settle KEPT FILE: gives FILE the attributes of KEPT, or the link its place back that it was.
settle() {
    if [[ -L $1 && ! -L $2 ]]; then
        cp -P -- "$1" "$2.torva-new"
        cp -- "$2" "$(realpath -m -- "$2.torva-new")" # the contents alone
        mv -fT -- "$2.torva-new" "$2"
    elif [[ -f $1 && ! -L $1 ]]; then
        cp --attributes-only --preserve=mode,ownership,xattr -- "$1" "$2"
    fi
}

# postfix_check: prints what "postfix check" says, which it says to terminals only.
postfix_check() {
    { if [[ -e /dev/ptmx ]]; then script -qec 'postfix check' /dev/null; else postfix check 2>&1; fi } </dev/null |
        tr -d '\r' | awk '!seen[$0]++'
}

# reload_postfix: if it runs. It must not inherit the lock.
reload_postfix() { [[ $reload == no ]] || ! postfix status >/dev/null 2>&1 || postfix reload 2>&1 {lock}>&-; }

# next_step: what makes Postfix take up what has changed.
next_step() {
    if ! postfix status >/dev/null 2>&1; then echo "postfix start"; elif [[ $reload == no ]]; then echo "postfix reload"; fi
}

# give_up SUBJECT TEXT ACTION [STATUS]: ends an apply or a rollback.
give_up() { report failed "$1" "$2" "$3" && exit "${4:-1}"; }

apply() {
    local text
    take_lock 0.3 # "check" may hold it for an instant
    [[ -z $marked_stamp || $marked_stamp == - ]] || exit 2
    check_host || true
    ((stops == 0)) || give_up apply "nothing was changed" "follow the lines above that say stop"
    trap take_back EXIT
    { mark apply - && make_backup "before apply" && mark apply "$made"; } ||
        give_up backup "it cannot be made" "see the messages above; is there room in $state?"
    report "done" backup "$state/$made" "to take the run back: torva-postfixctl rollback $made"
    perform_run
    ((status == 0)) || give_up run "torva-postfix-setup ended with status $status" "see its message above"
    text=$(postfix_check) || give_up postfix-check "failed: $text" "correct it"
    [[ -z $text ]] || report warning postfix-check "$text" "correct it"
    text=$(reload_postfix) || give_up reload "failed: $text" "see the mail log"
    sync -f "$config" "$tables"
    unmark
    trap 'rm -rf -- "$scratch"' EXIT
    check_outcome
    report "done" apply "torva-postfix-setup has configured Postfix" "$(next_step)"
}

# take_back: the end of a failed apply, whatever ended it; status 1, or 2 with the host
# half changed.
take_back() {
    trap '' HUP INT TERM
    rm -rf -- "$scratch"
    if [[ -z ${made:-} || ! -d $state/$made ]]; then
        unmark
    elif restore_backup "$made" apply; then
        rm -rf -- "${state:?}/$made" # the host is its copy
        reload_postfix >/dev/null || true
    else
        give_up rollback "the backup $made could not be restored whole" "make room, then torva-postfixctl rollback" 2
    fi
    give_up apply "everything is as it was before" "remove the cause, then torva-postfixctl apply"
}

rollback() {
    local stamp made=''
    take_lock 60
    ask_postfix
    if [[ $marked_stamp == - && -z ${1:-} ]]; then
        unmark && report "done" rollback "the apply that was killed had changed nothing" "torva-postfixctl apply" && return
    fi
    # Backups of a rollback are for those who name them.
    stamp=$(grep -lx "before apply" "$state"/[0-9]*/reason 2>/dev/null | sort | tail -n 1) || true
    stamp=${stamp%/reason} stamp=${1:-${marked_stamp:-${stamp##*/}}}
    { [[ -d $state/$stamp/tree ]] && intact "$state/$stamp"; } || give_up rollback \
        "no backup ${stamp:-of an apply}, or not what its manifest says; nothing was done" "torva-postfixctl backups"
    [[ -n $marked_stamp ]] || make_backup "before rollback to $stamp" "$state/$stamp/paths" ||
        give_up rollback "what there is now cannot be backed up; nothing was done" "is there room in $state?"
    { mark "${marked_verb:-rollback}" "$stamp" && restore_backup "$stamp" "$marked_verb"; } || give_up rollback \
        "the backup $stamp could not be restored whole" "make room, then torva-postfixctl rollback"
    report "done" rollback "everything is as it was at $stamp${made:+; what was there is backup $made}" "$(next_step)"
}

backups() {
    local stamp
    for stamp in "$state"/[0-9]*; do
        [[ ! -d $stamp ]] || emit '%s  %s  %9s bytes  %s\n' stamp "${stamp##*/}" date "$(date -r "$stamp/manifest" '+%F %T')" \
            bytes "$(du -sb "$stamp" | cut -f 1)" reason "$(<"$stamp/reason")"
    done
}
