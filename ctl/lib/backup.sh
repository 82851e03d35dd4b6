# shellcheck shell=bash disable=SC2154 # the variables of torva-postfixctl
# Which files a run may change; backups of them, each a copy with a manifest; the lock;
# the marker of what has begun and not ended. Sourced, never run.

exists() { [[ -e $1 || -L $1 ]]; }

# ask_postfix: sets `config` and `queue`, to what is built in where Postfix reads nothing.
ask_postfix() {
    config=$(postconf -h config_directory 2>/dev/null || echo "${MAIL_CONFIG:-/etc/postfix}")
    queue=$(postconf -h queue_directory 2>/dev/null || echo /var/spool/postfix)
}

# alias_elements: path and whole text of each alias database that the run rebuilds.
alias_elements() {
    local names=(default_database_type alias_maps alias_database)
    { postconf -h "${names[@]}" || postconf -dh "${names[@]}" || true; } 2>/dev/null |
        awk -v own="hash:$tables/aliases" -f "$lib/aliases.awk" | sort -u
}

# touched_paths: what a run, a killed one too, may change or leave behind, with what links
# lead to; a path a line, itself through no link; a directory stands for all in it.
touched_paths() {
    local path parent
    {
        printf '%s\n' "$config"/{main,master}.cf{,.tmp,.torva-new} "$tables"
        alias_elements | cut -f 1 | while read -r path; do
            printf '%s\n' "$path"{,.db,.dir,.pag,.cdb,.cdb.tmp} "${path%/*}/__db.${path##*/}.db"
        done
    } | while read -r path; do
        parent=$(realpath -m -- "${path%/*}/")
        printf '%s\n' "${parent%/}/${path##*/}" "$(realpath -m -- "$path")"
    done | sort -u
}

# describe ROOT PATH...: contents, modes, owners, times and links of all at PATH.
describe() (
    cd "$1" || exit
    for path in "${@:2}"; do
        exists ".$path" || { printf 'absent %s\n' "$path" && continue; }
        find ".$path" -print0 | sort -z | xargs -0 stat -c '%a %u:%g %Y %F %N' &&
            find ".$path" -type f -print0 | sort -z | xargs -0r sha256sum || exit
    done
)

# matches ROOT BACKUP: what stands below ROOT is what the manifest says.
matches() { mapfile -t paths <"$2/paths" && [[ $(describe "$1" "${paths[@]}") == "$(<"$2/manifest")" ]]; }

# intact BACKUP: neither its copy nor its lists have changed.
intact() { (cd "$1" && sha256sum --status --strict -c sums 2>/dev/null) && matches "$1/tree" "$1"; }

# make_backup REASON [FILE]: also of the paths in FILE; sets `made` to its stamp, its name
# once it is complete, equal to the host, and on disk.
make_backup() {
    local new=$state/.partial path paths
    while made=$(date -u +%Y%m%dT%H%M%SZ) && exists "$state/$made"; do sleep 0.2; done
    rm -rf "$new" && install -d -m 700 "$state" "$new" "$new/tree" && printf '%s\n' "$1" >"$new/reason" &&
        { touched_paths && cat "${2:-/dev/null}"; } | sort -u >"$new/paths" &&
        find -H "$config" "$queue" -mindepth 1 -maxdepth 1 >"$new/present" &&
        while read -r path; do ! exists "$path" || printf '.%s\0' "$path"; done <"$new/paths" |
        (cd / && xargs -0r cp -a --parents -t "$new/tree") &&
        mapfile -t paths <"$new/paths" && describe / "${paths[@]}" >"$new/manifest" &&
        (cd "$new" && sha256sum reason paths present manifest >sums) && intact "$new" &&
        find "$new" \( -type f -o -type d \) -exec sync {} + && mv -T "$new" "$state/$made" && sync "$state"
}

# restore_backup STAMP VERB: brings the host to what the manifest says, after VERB had
# begun to change it, and takes the marker away. May be killed and called again.
restore_backup() {
    local backup=$state/$1 paths path
    flock -w 60 "$locks/run" true || return # a killed run may have left a child at work
    mapfile -t paths <"$backup/paths"
    for path in "${paths[@]}"; do restore_path "$backup/tree" "$path" || return; done
    for path in "$config"/master.cf.??????; do # the tool's own scratch file
        [[ $2 != apply || ! -f $path ]] || grep -qxF -- "$path" "$backup/present" ||
            { mkdir -p "$backup/set-aside" && mv -- "$path" "$backup/set-aside/"; } || return
    done
    for path in "$queue"/*/; do # made by "postfix check"; a running Postfix needs them
        grep -qxF -- "${path%/}" "$backup/present" || postfix status >/dev/null 2>&1 || rmdir -- "$path" 2>/dev/null || true
    done
    matches / "$backup" && for path in "${paths[@]}"; do [[ ! -d ${path%/*}/ ]] || printf '%s\0' "${path%/*}/"; done |
        sort -zu | xargs -0 sync -f && unmark
}

restore_path() {
    rm -rf -- "$2".torva-{new,old} || return
    [[ $(describe / "$2") != "$(describe "$1" "$2")" ]] || return 0
    ! exists "$1$2" || cp -a -- "$1$2" "$2.torva-new" || { rm -rf -- "$2.torva-new" && return 1; }
    [[ ! -d $2 || -L $2 ]] || mv -T -- "$2" "$2.torva-old" || return
    if exists "$1$2"; then mv -fT -- "$2.torva-new" "$2"; else rm -f -- "$2"; fi && rm -rf -- "$2.torva-old"
}

# mark VERB STAMP: on disk before the first change; STAMP is "-" up to the backup.
mark() {
    install -d -m 700 "$state" && printf '%s\n' "$*" >"$state/.unfinished" && sync "$state/.unfinished" &&
        mv -fT "$state/.unfinished" "$state/unfinished" && sync "$state"
}
unmark() { rm -rf "$state"/{unfinished,.unfinished,.partial} && sync "$state"; }
read_mark() { { read -r marked_verb marked_stamp <"$state/unfinished"; } 2>/dev/null || marked_verb='' marked_stamp=''; }

# note_unfinished: for every verb, before it begins.
note_unfinished() {
    if own_locks && [[ -f $locks/lock ]] && ! flock -n -s "$locks/lock" true; then
        report warning lock "$(<"$locks/lock") is at work" "wait for its end"
    elif read_mark && [[ $marked_stamp == - ]]; then
        report warning unfinished "apply was killed before it changed anything" "torva-postfixctl rollback, or apply"
    elif [[ -n $marked_stamp ]]; then
        report stop unfinished "$marked_verb was killed half-way; its backup is $marked_stamp" "torva-postfixctl rollback"
    fi
}

# own_locks: whether the lock directory is there, is root's, and nobody else may write to it.
# /run/lock is open to every user: a link, a FIFO or a lock held for ever may wait in it.
own_locks() { [[ -d $locks && ! -L $locks && $(stat -c '%u %a' -- "$locks") =~ ^0\ [0-7]?[0-7][0145][0145]$ ]]; }

# make_locks: with mode 0700, which an earlier version's, open for others to read, gets, too.
make_locks() {
    mkdir -m 700 -- "$locks" 2>/dev/null || true
    own_locks || die "$locks is not root's alone: see who made it, and remove it"
    [[ $(stat -c %a -- "$locks") == 700 ]] || chmod 700 -- "$locks" || die "$locks: its mode cannot be changed"
}

# take_lock SECONDS: waits that long, then says who holds it and ends; what a killed apply
# has started holds it, too. Reads the marker.
take_lock() {
    make_locks
    exec {lock}<>"$locks/lock"
    flock -w "$1" "$lock" || give_up lock "$(<"$locks/lock") is at work; nothing was done" "wait for its end"
    printf 'process %s, since %s,\n' $$ "$(date '+%F %T')" >"$locks/lock"
    read_mark
}
