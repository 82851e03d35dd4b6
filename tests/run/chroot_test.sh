#!/bin/bash
# What scripts/sandbox promises where root may make no namespaces: the same, in a chroot on a
# copied tree.
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/worlds.sh"

test_chroot_exit_status_is_that_of_the_command() {
    need_chroot
    expect_equal "failure" 9 "$(status_of in_chroot -- sh -c 'exit 9' 2>/dev/null)"
    expect_equal "killed by a signal" 137 \
        "$(status_of in_chroot -- bash -c 'kill -KILL $$' 2>/dev/null)"
}

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

test_chroot_answers_a_qualified_host_name() {
    need_chroot
    expect_equal "hostname -f" "mail.example.org" \
        "$(in_chroot --hostname mail.example.org -- hostname -f 2>/dev/null)"
}

test_chroot_says_which_world_it_is() {
    need_chroot
    local text
    text=$(in_chroot -- sh -c 'echo $TORVA_SANDBOX' 2>&1)
    expect_contains "message" "sandbox: world: a chroot on a copied tree" "$text"
    expect_contains "environment" $'\nchroot' "$text"
}

test_chroot_gets_a_copy_of_a_with_directory() {
    need_chroot
    make_scratch
    echo text >"$scratch/f"
    expect_equal "copy" text "$(in_chroot --with "$scratch" -- sh -c \
        "cat $scratch/f; echo changed >$scratch/f" 2>/dev/null)"
    expect_equal "original" text "$(cat "$scratch/f")"
}

test_chroot_has_a_postfix_that_works() {
    need_chroot
    [[ -x /usr/sbin/postconf ]] || skip_test "no Postfix on this machine"
    expect_equal "value" "chroot works" "$(in_chroot -- sh -c '
        postconf -e "mail_name = chroot works" && postfix check >&2 && postconf -h mail_name' \
        2>/dev/null)"
}

test_chroot_has_every_library_that_postfix_and_a_shell_need() {
    need_chroot
    [[ -x /usr/sbin/postconf ]] || skip_test "no Postfix on this machine"
    expect_equal "not found" "" "$(in_chroot -- sh -c '
        cd /usr/bin
        ldd awk bash cat cmp cp diff find grep hostname ls mount sed sort stat tar tr \
            /usr/sbin/post* /usr/lib/postfix/sbin/* /usr/lib/postfix/*.so* 2>&1 |
            grep -i -e "not found" -e "no such file" | sort -u' 2>/dev/null || true)"
}

run_tests "$@"
