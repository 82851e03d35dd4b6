#!/bin/bash
# What scripts/lib/shelter.sh promises, with the real postconf in the sandbox.
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/shell_test.sh"

# A master.cf with everything that makes sheltering hard: a comment that looks like
# a sheltered line, continuation lines with comments, blank lines and a service of
# a known type between and after them, odd white space, no newline at the end.
hard_master_cf() {
    cat <<'END'
# head
#postlog   unix-dgram n  -       n       -       1       postlogd
smtp       inet  n       -       y       -       -       smtpd
postlog   unix-dgram n  -       n       -       1       postlogd
# between two lines of one service
  -o syslog_name=one
	  
   # an indented comment
	-o syslog_name={two words}

#postlog   unix-dgram n  -       n       -       1       postlogd
pickup    unix  n       -       y       60      1       pickup
second	unix-dgram	n - n - 1 postlogd   
 -o syslog_name=two
tlsmgr    unix  -       -       y       1000?   1       tlsmgr
END
    printf 'last unix-dgram n - n - 1 postlogd\n  -o syslog_name=three'
}

need_postfix() {
    need_namespaces
    [[ -x /usr/sbin/postconf ]] || skip_test "no Postfix on this machine"
}

# in_sandbox TEXT: runs TEXT there, with the functions under test at hand, the hard
# file in place and a copy of it in /run/original.
in_sandbox() {
    local file
    file=$(hard_master_cf && echo .)
    "$sandbox" --loopback-only -- bash -euo pipefail -c '
        source "$0/lib/messages.sh"; source "$0/lib/shelter.sh"
        file=/etc/postfix/master.cf
        printf %s "${1%.}" >$file
        cp $file /run/original
        '"$1" "$checkout/scripts" "$file" 2>&1
}

test_types_that_the_tool_does_not_know_are_found() {
    need_postfix
    expect_equal "services" "postlog/unix-dgram second/unix-dgram last/unix-dgram" \
        "$(in_sandbox 'foreign_services 2>/dev/null' | xargs)"
}

test_sheltered_file_has_no_active_line_of_another_type() {
    need_postfix
    expect_equal "what is left" "smtp/inet pickup/unix tlsmgr/unix" "$(in_sandbox '
        shelter_services /run/store 2>/dev/null
        postconf -M | awk "{ print \$1 \"/\" \$2 }"' | xargs)"
}

test_untouched_file_comes_back_byte_for_byte() {
    need_postfix
    expect_equal "difference" "" "$(in_sandbox '
        shelter_services /run/store 2>/dev/null
        ! cmp -s $file /run/original
        restore_services /run/store
        cmp $file /run/original')"
}

test_lines_come_back_among_lines_that_changed() {
    need_postfix
    # What a run does: a service replaced, lines added above and below.
    expect_equal "difference" "" "$(in_sandbox '
        edit="s/^smtp .*/smtp inet n - - - - smtpd\n  -o smtpd_proxy_filter=x/; 1i# new first line"
        shelter_services /run/store 2>/dev/null
        sed -i "$edit" $file && printf "\nnew unix - - n - - pipe\n" >>$file
        restore_services /run/store
        sed -i "$edit" /run/original && printf "\nnew unix - - n - - pipe\n" >>/run/original
        cmp $file /run/original')"
}

test_mode_and_owner_survive() {
    need_postfix
    expect_equal "mode and owner" "640 postfix:root" "$(in_sandbox '
        chown postfix $file; chmod 640 $file
        shelter_services /run/store 2>/dev/null
        restore_services /run/store
        stat -c "%a %U:%G" $file')"
}

test_file_without_such_services_is_left_alone() {
    need_postfix
    expect_equal "inode and difference" "" "$(in_sandbox '
        sed -i "/unix-dgram/d; /^[ \t].*syslog_name/d" $file
        cp $file /run/original
        inode=$(stat -c %i $file)
        shelter_services /run/store
        restore_services /run/store
        [[ $inode == $(stat -c %i $file) ]] || echo "another file"
        cmp $file /run/original')"
}

test_lost_line_is_an_error_and_the_file_stays() {
    need_postfix
    local text
    text=$(in_sandbox '
        shelter_services /run/store 2>/dev/null
        sed -i "/^#second/d" $file
        cp $file /run/changed
        (restore_services /run/store) || echo "status $?"
        cmp $file /run/changed')
    expect_contains "message" "master.cf: a sheltered line is gone" "$text"
    expect_contains "status" "status 1" "$text"
}

run_tests "$@"
