#!/bin/bash
# What scripts/demo promises, with the real program and the machine's own Postfix.
#     demo_test.sh TEST PROGRAM
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/shell_test.sh"

demo=$checkout/scripts/demo

# need_postfix: skips without what the demo would install, and where neither world
# can be had.
need_postfix() {
    need_chroot
    [[ -x /usr/sbin/postconf ]] || skip_test "no Postfix on this machine"
}

# shown HEADING TEXT: the part of the demo's output below that heading.
shown() {
    awk -v heading="=== $1" '/^===/ { inside = index($0, heading) == 1; next } inside' <<<"$2"
}

# stand_in TEXT: makes $scratch/bin/tool, a shell script in place of the program.
stand_in() {
    make_scratch
    mkdir "$scratch/bin"
    printf '#!/bin/bash\n%s\n' "$1" >"$scratch/bin/tool"
    chmod 755 "$scratch/bin/tool"
}

# check_shown OUTPUT: everything that a whole run shows.
check_shown() {
    local run difference settings tables
    run=$(shown torva-postfix-setup "$1")
    expect_contains "run" "Torva-specific configuration of Postfix completed successfully" "$run"
    difference=$(shown master.cf "$1")
    expect_contains "difference" $'--- before\n+++ after\n@@ ' "$difference"
    expect_contains "difference" $'\n+127.0.0.1:10026 inet ' "$difference"
    [[ $difference != *postlog* ]] || fail "the sheltered line shows as changed: $difference"
    settings=$(shown main.cf "$1")
    expect_contains "settings" "+virtual_transport = torva_virtual" "$settings"
    [[ $settings != *$'\n '* ]] || fail "settings that are the same: $settings"
    tables=$(shown tables "$1")
    expect_contains "tables" "-rw-r--r-- 1 root root" "$tables"
    expect_contains "tables" " virtual_domains.db" "$tables"
    expect_contains "verdict" "passed, exit status 0" "$(shown "postfix check" "$1")"
    expect_contains "status" "=== exit status of torva-postfix-setup: 0" "$1"
}

test_shows_a_whole_run() {
    need_postfix
    check_shown "$("$demo" --binary "$1" 2>&1)"
}

test_shows_a_whole_run_in_a_plain_container() {
    need_postfix
    local text
    text=$(setpriv --bounding-set -sys_admin --inh-caps -sys_admin -- \
        "$demo" --binary "$1" 2>&1)
    expect_contains "world" "world: a chroot on a copied tree" "$text"
    check_shown "$text"
}

test_exit_status_and_text_are_those_of_the_program() {
    need_postfix
    stand_in 'echo "Fatal error: X(y)" >&2; exit 2'
    local text status=0
    text=$("$demo" --binary "$scratch/bin/tool" 2>&1) || status=$?
    expect_equal "exit status" 2 "$status"
    expect_contains "text" "Fatal error: X(y)" "$text"
    expect_equal "master.cf" "(no difference)" "$(shown master.cf "$text")"
    expect_equal "settings" "(no difference)" "$(shown main.cf "$text")"
    expect_equal "tables" "(none)" "$(shown tables "$text")"
    expect_contains "status" "=== exit status of torva-postfix-setup: 2" "$text"
}

test_program_gets_progress_no_input_and_no_foreign_services() {
    need_postfix
    need_namespaces
    stand_in 'echo "debug $TORVA_INSTALLER_DEBUG, input $(wc -c)" >&2
        postconf -M | awk "{ print \"type \" \$2 }" | sort -u >&2; exit 0'
    expect_equal "seen" $'debug 1, input 0\ntype fifo\ntype inet\ntype unix' \
        "$(echo input | "$sandbox" -- bash -c '
            postconf -Me "f/fifo = f fifo n - - - - pickup"
            "$0" --binary "$1" 2>&1' "$demo" "$scratch/bin/tool" | grep -e ^debug -e ^type)"
}

test_main_cf_without_a_last_line_end() {
    need_postfix
    need_namespaces
    stand_in 'postconf -e virtual_transport=x'
    expect_contains "settings" "+virtual_transport = x" "$("$sandbox" -- bash -c '
        printf "biff = no" >>/etc/postfix/main.cf
        "$0" --binary "$1" 2>&1' "$demo" "$scratch/bin/tool")"
}

test_failed_postfix_check_is_shown() {
    need_postfix
    stand_in 'postconf -e "queue_directory = /no/such/directory"'
    local verdict
    verdict=$(shown "postfix check" "$("$demo" --binary "$scratch/bin/tool" 2>&1)")
    expect_contains "verdict" "failed, exit status 1" "$verdict"
    expect_contains "text" "/no/such/directory" "$verdict"
}

test_changes_nothing_on_the_machine() {
    need_postfix
    local before after
    before=$(find /etc /var/spool/postfix -xdev -printf '%p %y %m %U %G %s %T@ %i\n' | sort)
    "$demo" --binary "$1" >/dev/null 2>&1
    after=$(find /etc /var/spool/postfix -xdev -printf '%p %y %m %U %G %s %T@ %i\n' | sort)
    [[ $before == "$after" ]] || fail "$(diff <(echo "$before") <(echo "$after"))"
}

test_not_root_is_told_in_one_line() {
    need_root_here
    make_scratch
    chmod 755 "$scratch"
    cp -a "$checkout/scripts" "$scratch/" # the checkout may be out of reach
    local text status=0
    text=$(setpriv --reuid 65534 --regid 65534 --clear-groups -- \
        "$scratch/scripts/demo" 2>&1) || status=$?
    expect_equal "exit status" 1 "$status"
    expect_equal "text" "demo: must run as root, for example: sudo scripts/demo" "$text"
}

run_tests "$@"
