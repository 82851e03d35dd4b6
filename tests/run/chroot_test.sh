#!/bin/bash
# What scripts/sandbox promises where root may make no namespaces: the same, in a chroot on a
# copied tree.
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/worlds.sh"

test_chroot_changes_nothing_on_the_machine() {
    need_chroot
    check_vandal in_chroot --panel-accounts
}

test_chroot_leaves_no_process_and_no_file() {
    need_chroot
    make_scratch
    local copy
    TMPDIR=$scratch in_chroot -- bash -c 'setsid sleep 600 </dev/null >/dev/null 2>&1 & disown'
    copy=$(find "$scratch" -mindepth 1)
    expect_equal "files left of the copy" "" "$copy"
    for link in /proc/[0-9]*/root; do
        [[ $(readlink "$link" 2>/dev/null) != "$scratch"* ]] || fail "$link still runs in the copy"
    done
}

test_terminated_chroot_removes_its_copy() {
    need_chroot
    make_scratch
    local pid status=0
    TMPDIR=$scratch setpriv --bounding-set -sys_admin --inh-caps -sys_admin -- \
        "$sandbox" --or-chroot -- bash -c ': >/run/tmp/started; sleep 600' &
    pid=$!
    for ((i = 0; i < 600; i++)); do
        [[ -e $(echo "$scratch"/torva-sandbox.*/root/run/tmp/started) ]] && break
        sleep 0.1
    done
    kill -TERM "$pid"
    wait "$pid" || status=$?
    expect_equal "exit status" 143 "$status"
    expect_equal "files left of the copy" "" "$(find "$scratch" -mindepth 1)"
}

# These look at several things in one world, because making one takes seconds.

test_chroot_is_the_world_that_was_asked_for() {
    need_chroot
    make_scratch
    echo text >"$scratch/f"
    local text status=0
    text=$(in_chroot --hostname mail.example.org --with "$scratch" -- sh -c "
        echo kind \$TORVA_SANDBOX, name \$(hostname -f), copy \$(cat $scratch/f)
        echo changed >$scratch/f
        exit 9" 2>&1) || status=$?
    expect_equal "exit status of a command that fails" 9 "$status"
    expect_contains "message" "sandbox: world: a chroot on a copied tree" "$text"
    expect_contains "answers" "kind chroot, name mail.example.org, copy text" "$text"
    expect_equal "original of what --with copies" text "$(cat "$scratch/f")"
}

test_chroot_ends_with_the_status_of_a_killed_command() {
    need_chroot
    expect_equal "killed by a signal" 137 \
        "$(status_of in_chroot -- bash -c 'kill -KILL $$' 2>/dev/null)"
}

test_chroot_has_a_postfix_that_works_and_the_libraries_that_it_and_a_shell_need() {
    need_chroot
    [[ -x /usr/sbin/postconf ]] || skip_test "no Postfix on this machine"
    expect_equal "value, and libraries that are not found" "chroot works" "$(in_chroot -- sh -c '
        postconf -e "mail_name = chroot works" && postfix check >&2 && postconf -h mail_name
        cd /usr/bin
        ldd awk bash cat cmp cp diff find grep hostname ls mount sed sort stat tar tr \
            /usr/sbin/post* /usr/lib/postfix/sbin/* /usr/lib/postfix/*.so* 2>&1 |
            grep -i -e "not found" -e "no such file" | sort -u' 2>/dev/null || true)"
}

run_tests "$@"
