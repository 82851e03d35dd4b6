#!/bin/bash
# What scripts/sandbox promises: a private world; nothing changed outside, nothing left. The
# chroot is in chroot_test.sh.
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/worlds.sh"

test_namespaces_exit_status_is_that_of_the_command() {
    need_namespaces
    expect_equal "success" 0 "$(status_of in_namespaces -- true)"
    expect_equal "failure" 9 "$(status_of in_namespaces -- sh -c 'exit 9')"
    expect_equal "killed by a signal" 137 "$(status_of in_namespaces -- bash -c 'kill -KILL $$')"
    expect_equal "missing command" 127 "$(status_of in_namespaces -- /no/such/command 2>/dev/null)"
    expect_equal "a command named as a function of the script" 127 \
        "$(status_of in_namespaces -- usage 2>/dev/null)"
}

test_namespaces_change_nothing_on_the_machine() {
    need_namespaces
    check_vandal in_namespaces --panel-accounts
}

test_namespaces_leave_no_process() {
    need_namespaces
    make_scratch
    check_no_survivor "$scratch" in_namespaces
}

test_namespaces_end_with_a_signal_to_the_script() {
    need_namespaces
    local signal
    for signal in TERM HUP KILL; do
        make_scratch
        check_ended_by "$signal" "$scratch" "$sandbox"
        rm -rf "$scratch"
    done
}

test_host_name_is_answered_without_a_network() {
    need_namespaces
    local ask='hostname; hostname -f; cat /etc/hostname'
    expect_equal "default" $'sandbox.example.net\nsandbox.example.net\nsandbox.example.net' \
        "$(in_namespaces -- sh -c "$ask")"
    expect_equal "a name without a domain" $'plain\nplain\nplain' \
        "$(in_namespaces --hostname plain -- sh -c "$ask")"
    expect_equal "loopback only" $'mail.example.org\nmail.example.org\nmail.example.org' \
        "$(in_namespaces --loopback-only --hostname mail.example.org -- sh -c "$ask")"
}

test_namespaces_say_which_world_it_is() {
    need_namespaces
    expect_equal "message and environment" $'sandbox: world: private namespaces\nnamespaces' \
        "$(in_namespaces --or-chroot -- sh -c 'echo $TORVA_SANDBOX' 2>&1)"
}

test_one_address_beside_the_loopback_ones() {
    need_namespaces
    expect_equal "addresses" "lo 127.0.0.1/8 eth0 192.0.2.10/24" \
        "$(in_namespaces -- ip -4 -o address | awk '{print $2, $4}' | xargs)"
    expect_equal "loopback only" "lo 127.0.0.1/8" \
        "$(in_namespaces --loopback-only -- ip -4 -o address | awk '{print $2, $4}' | xargs)"
}

test_each_world_has_the_same_ipv6_address() {
    need_namespaces
    expect_equal "addresses" "lo ::1/128 eth0 fe80::ff:fe00:10/64" \
        "$(in_namespaces -- ip -6 -o address | awk '{print $2, $4}' | xargs)"
}

test_outside_client_reaches_eth0_from_its_own_address() {
    need_namespaces
    # "Connection refused" is the answer of a host that was reached.
    expect_contains "connect" "Connection refused" "$(in_namespaces -- nsenter \
        --net=/run/netns/outside bash -c ': </dev/tcp/192.0.2.10/9' 2>&1 || true)"
    expect_contains "source address" "src 192.0.2.20" "$(in_namespaces -- nsenter \
        --net=/run/netns/outside ip route get 192.0.2.10)"
}

test_working_directory_below_a_private_one_is_the_private_one() {
    need_namespaces
    cd /etc
    expect_equal "directory" /etc "$(in_namespaces -- pwd)"
    in_namespaces -- sh -c 'echo x >torva-sandbox-test'
    [[ ! -e /etc/torva-sandbox-test ]] || fail "the file is on the machine"
}

test_removed_working_directory() {
    need_namespaces
    make_scratch
    mkdir "$scratch/gone"
    cd "$scratch/gone"
    rmdir "$scratch/gone"
    expect_equal "directory" / "$(in_namespaces -- pwd)"
}

test_closed_standard_streams() {
    need_namespaces
    make_scratch
    in_namespaces -- sh -c "echo all >$scratch/all" <&- >&- 2>&-
    expect_equal "all closed" all "$(cat "$scratch/all")"
    expect_equal "closed input reads as empty" "" "$(in_namespaces -- cat <&-)"
}

test_empty_environment() {
    need_namespaces
    expect_equal "environment" "/run/tmp namespaces" \
        "$(env -i PATH=/usr/bin "$sandbox" -- sh -c 'echo $TMPDIR $TORVA_SANDBOX')"
}

test_command_gets_input_mask_and_signals_as_they_were() {
    need_namespaces
    expect_equal "input" hello "$(echo hello | in_namespaces -- cat)"
    expect_equal "file mode mask" 0027 "$(umask 027 && in_namespaces -- bash -c umask)"
    expect_equal "signals" "$(grep -E '^Sig(Blk|Ign|Cgt)' /proc/self/status)" \
        "$(in_namespaces -- grep -E '^Sig(Blk|Ign|Cgt)' /proc/self/status)"
}

test_command_is_not_process_one_and_orphans_are_reaped() {
    need_namespaces
    expect_equal "zombies" 0 "$(in_namespaces -- bash -c '
        (($$ > 1)) || exit
        for i in 1 2 3; do (sleep 0.1 &) ; done
        sleep 0.6
        grep -l "^State:.Z" /proc/[0-9]*/status 2>/dev/null | wc -l')"
}

# The mode of a device that is the machine's own would be changed on the machine.
test_devices_are_none_of_the_machines_own() {
    need_namespaces
    need_chroot
    local name machine
    machine=$(cd /dev && stat -c '%n %d:%i' null zero full random urandom tty)
    expect_equal "devices of the machine" "" \
        "$(in_namespaces -- sh -c 'cd /dev && stat -c "%n %d:%i" null zero full random urandom tty' |
            grep -Fx "$machine" || true)"
    for name in null zero full random urandom; do
        in_namespaces -- head -c 0 "/dev/$name" || fail "/dev/$name cannot be opened"
    done
}

test_link_among_the_devices_leads_to_no_change_of_one() {
    need_namespaces
    # The machine is a world here, in which another one is made.
    expect_equal "mode of the device, and kind of what is made of the link" "600
character special file" "$(in_namespaces -- sh -c "
        chmod 600 /dev/urandom && ln -sf /dev/urandom /dev/random
        kind=\$('$sandbox' --loopback-only -- stat -c %F /dev/random)
        stat -c %a /dev/urandom
        echo \"\$kind\"")"
}

test_private_directories_start_empty_and_with_their_modes() {
    need_namespaces
    expect_equal "modes" "1777 1777 1777 1777" \
        "$(in_namespaces -- stat -c %a /run/lock /var/lock/ /dev/shm /run/tmp | xargs)"
    expect_equal "syslog socket" "" "$(in_namespaces -- find /dev -name log)"
}

test_panel_accounts() {
    need_namespaces
    expect_equal "homes" "/var/qmail/popuser /nonexistent /nonexistent" \
        "$(in_namespaces --panel-accounts -- sh -c \
            'getent passwd popuser mhandlers-user mailman | cut -d: -f6' | xargs)"
    expect_equal "owner" popuser:popuser \
        "$(in_namespaces --panel-accounts -- stat -c %U:%G /var/qmail/mailnames)"
    in_namespaces --panel-accounts -- runuser -u mhandlers-user -- true ||
        fail "nothing runs as mhandlers-user"
    # Made once, however often they are asked for.
    expect_equal "entries" 1 "$(in_namespaces --panel-accounts -- \
        "$sandbox" --panel-accounts -- grep -c '^popuser:' /etc/passwd)"
}

test_mounts_below_a_private_directory_are_seen_and_private() {
    need_namespaces
    # Made in an outer world, so that the machine gets no mounts.
    expect_equal "texts" "inner text file text inner text file text" "$(in_namespaces -- sh -c '
        mkdir "/var/with blank" && mount -t tmpfs none "/var/with blank" &&
        mkdir "/var/with blank/deep" && mount -t tmpfs none "/var/with blank/deep" &&
        echo inner text >"/var/with blank/deep/f" &&
        echo file text >/run/f && echo covered >/etc/f && mount --bind /run/f /etc/f &&
        "$0" -- sh -c "
            cat \"/var/with blank/deep/f\" /etc/f
            echo changed >\"/var/with blank/deep/f\"; echo changed >/etc/f" &&
        cat "/var/with blank/deep/f" /etc/f' "$sandbox" | xargs)"
}

test_where_overlays_do_not_stack_copies_take_their_place() {
    need_namespaces
    # Two overlays on each other are the kernel's limit.
    expect_equal "file systems and texts" "tmpfs tmpfs tmpfs inside outside outside" \
        "$(in_namespaces -- "$sandbox" -- sh -c '
            echo outside >/etc/f; echo outside >/usr/sbin/f; mkdir /usr/lib/d
            "$0" -- sh -c "
                stat -f -c %T /etc /var /usr
                echo inside >/etc/f; echo inside >/usr/sbin/f; cat /usr/sbin/f
                mkdir -p /usr/lib/torva-9.0 /usr/local/kra
                ! touch /usr/lib/d/f 2>/dev/null || echo written" &&
            cat /etc/f /usr/sbin/f' "$sandbox" | xargs)"
}

test_checkout_below_a_private_directory_stays_writable() {
    need_namespaces
    expect_equal "output" output "$(in_namespaces -- sh -c '
        mkdir -p /usr/src/checkout && cp -a "$0/scripts" /usr/src/checkout/ &&
        cd /usr/src/checkout && scripts/sandbox -- sh -c "echo output >result" &&
        cat /usr/src/checkout/result' "$checkout")"
    expect_equal "output below /run" output "$(in_namespaces -- sh -c '
        mkdir -p /run/checkout && cp -a "$0/scripts" /run/checkout/ &&
        cd /run/checkout && scripts/sandbox -- sh -c "echo output >result" &&
        cat /run/checkout/result' "$checkout")"
}

test_with_keeps_a_directory_the_machines_own() {
    need_namespaces
    expect_equal "kept and private" "kept" "$(in_namespaces -- sh -c '
        mkdir /var/kept /var/private &&
        "$0" --with /var/kept -- sh -c "echo kept >/var/kept/f; echo x >/var/private/f" &&
        cat /var/kept/f && ls /var/private' "$sandbox")"
}

test_with_keeps_a_file_the_machines_own() {
    need_namespaces
    expect_equal "kept, also where nothing was" "kept kept" "$(in_namespaces -- sh -c '
        mkdir /run/deep && echo x >/var/f && echo x >/run/deep/f &&
        "$0" --with /var/f --with /run/deep/f -- sh -c "echo kept | tee /var/f >/run/deep/f" &&
        cat /var/f /run/deep/f' "$sandbox" | xargs)"
}

test_without_namespaces_one_line_and_status_77() {
    need_root_here
    local text status=0
    text=$(in_plain_container -- true 2>&1) || status=$?
    expect_equal "exit status" 77 "$status"
    [[ $text == "SKIP: root may not make namespaces here ("*")" && $text != *$'\n'* ]] ||
        fail "not one line with a reason: $text"
}

test_not_root_one_line_and_status_1() {
    need_root_here
    make_scratch
    chmod 755 "$scratch"
    cp -a "$checkout/scripts" "$scratch/" # the checkout may be out of reach
    local text status=0
    text=$(setpriv --reuid 65534 --regid 65534 --clear-groups -- \
        "$scratch/scripts/sandbox" -- true 2>&1) || status=$?
    expect_equal "exit status" 1 "$status"
    expect_equal "text" "sandbox: must run as root, for example: sudo scripts/sandbox" "$text"
}

test_misuse_is_told() {
    need_root_here
    expect_equal "no command" "1 sandbox: no command (see --help)" "$(misuse)"
    expect_equal "unknown option" "1 sandbox: unknown option --no (see --help)" \
        "$(misuse --no -- true)"
    expect_equal "missing argument" "1 sandbox: --with: an argument is missing" "$(misuse --with)"
    expect_equal "missing path" "1 sandbox: --with /no/such: no such path" \
        "$(misuse --with /no/such -- true)"
    expect_equal "host name" "1 sandbox: --hostname a b: not a host name" \
        "$(misuse --hostname 'a b' -- true)"
}

test_inner_stage_refuses_to_be_called_by_hand() {
    need_root_here
    local before after
    before=$(machine_state)
    expect_equal "answer" "1 sandbox: --inside is for this script's own use" \
        "$(misuse --inside -- true)"
    after=$(machine_state)
    [[ $before == "$after" ]] || fail "$(diff <(echo "$before") <(echo "$after"))"
}

misuse() { # ARGUMENT...
    local text status=0
    text=$("$sandbox" "$@" 2>&1) || status=$?
    printf '%s %s\n' "$status" "$text"
}

run_tests "$@"
