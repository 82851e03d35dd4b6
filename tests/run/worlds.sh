# shellcheck shell=bash
# The two worlds of scripts/sandbox, and what each must keep out. Sourced, never run.
source "${BASH_SOURCE[0]%/*}/shell_test.sh"

# Giving up the capability that a plain container lacks imitates one.
in_namespaces() { "$sandbox" "$@"; }
in_plain_container() {
    if "$sandbox" --loopback-only -- true 2>/dev/null; then
        setpriv --bounding-set -sys_admin --inh-caps -sys_admin -- "$sandbox" "$@"
    else
        "$sandbox" "$@"
    fi
}
in_chroot() { in_plain_container --or-chroot "$@"; }

# status_of COMMAND...: prints its exit status, and nothing else on this stream.
status_of() {
    local status=0
    "$@" >/dev/null || status=$?
    printf '%s\n' "$status"
}

# machine_state: what must not change: files with contents, modes, owners and times,
# the directories of the spool (not its mail, which may be on its way), the mounts,
# the names, the network.
machine_state() {
    find /etc /usr/sbin -xdev -printf '%p %y %m %U %G %s %T@ %i %l\n' | sort
    find /etc -xdev -type f -exec sha256sum {} + | sort
    find /var/spool -xdev -maxdepth 2 -printf '%p %y %m %U %G %i\n' | sort
    ls -d /usr/lib/torva-9.0 /usr/local/kra /var/qmail /run/vandal /dev/shm/vandal /dev/vandal 2>&1
    cut -d' ' -f3- /proc/self/mountinfo
    hostname
    if [[ -x $(command -v ip) ]]; then ip -o link; fi
}

# What a careless test does; its daemon holds a lock on a file that both worlds see.
vandal='
    echo "vandal = yes" >>/etc/postfix/main.cf
    rm -f /etc/hosts /etc/passwd
    mkdir -p /usr/lib/torva-9.0 /usr/local/kra
    printf "#!/bin/sh\n" >/usr/sbin/postconf
    mkdir -p /var/spool/postfix/torva && echo x >/var/spool/postfix/torva/x
    echo x >/run/vandal; echo x >/dev/shm/vandal; echo x >/dev/vandal
    hostname vandal 2>/dev/null
    mount -t tmpfs none /home 2>/dev/null
    exit 0
'

check_vandal() { # IN_WORLD...
    local before after
    before=$(machine_state)
    "$@" -- bash -c "$vandal" || fail "the vandal failed"
    after=$(machine_state)
    [[ $before == "$after" ]] || fail "$(diff <(echo "$before") <(echo "$after"))"
}

# lock_is_free FILE: whether nobody holds a lock on FILE any more; an ended process
# may need a moment to be gone.
lock_is_free() { flock --timeout 20 "$1" true; }

check_no_survivor() { # SHARED_DIR IN_WORLD...
    local shared=$1
    shift
    "$@" -- bash -c "
        trap '' TERM HUP INT
        exec 9>$shared/lock && flock 9
        setsid sleep 600 </dev/null >/dev/null 2>&1 &
        disown"
    flock --nonblock "$shared/lock" true || fail "a process outlived the world"
}

check_ended_by() { # SIGNAL SHARED_DIR IN_WORLD...
    local signal=$1 shared=$2 pid
    shift 2
    "$@" -- bash -c "
        exec 9>$shared/lock && flock 9
        setsid sleep 600 &
        : >$shared/started
        wait" &
    pid=$!
    await "$shared/started"
    kill "-$signal" "$pid"
    wait "$pid" || true
    lock_is_free "$shared/lock" || fail "SIG$signal left a process behind"
}
