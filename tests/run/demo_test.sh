#!/bin/bash
# What scripts/demo promises, with the real program and the machine's own Postfix.
#     demo_test.sh TEST PROGRAM COMPANION
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/shell_test.sh"

# make_checkout PROGRAM COMPANION: a copy of the scripts in $scratch/checkout, and in front
# of PATH a cmake that tells its arguments to $scratch/asked and "builds" the two.
make_checkout() {
    need_chroot
    [[ -x /usr/sbin/postconf ]] || skip_test "no Postfix on this machine"
    [[ -n ${scratch:-} ]] || make_scratch
    mkdir "$scratch/checkout" "$scratch/bin"
    cp -a "$checkout/scripts" "$scratch/checkout/"
    cat >"$scratch/bin/cmake" <<END
#!/bin/bash
printf '%s\n' "\$*" >>"$scratch/asked"
[[ \$1 == --build ]] || exit 0
mkdir -p build/release/bin && cp "$1" build/release/bin/torva-postfix-setup
cp "$2" build/release/bin/torva-postfixctl
END
    chmod 755 "$scratch/bin/cmake"
    PATH=$scratch/bin:$PATH
    demo=$scratch/checkout/scripts/demo
}

# stand_in TEXT: makes $scratch/tool, a shell script in place of the program.
stand_in() {
    make_scratch
    tool=$scratch/tool
    printf '#!/bin/bash\n%s\n' "$1" >"$tool"
    chmod 755 "$tool"
}

# shown HEADING TEXT: the part of the demo's output below that heading.
shown() {
    awk -v heading="=== $1" '/^===/ { inside = index($0, heading) == 1; next } inside' <<<"$2"
}

test_builds_the_program_alone_and_shows_a_whole_run() {
    make_checkout "$1" "$2"
    local text
    text=$("$demo" 2>&1)
    expect_equal "asked for" "--preset release -DTORVA_TESTS=OFF -DTORVA_BENCH=OFF
--build --preset release --target torva-postfix-setup torva-postfixctl" "$(<"$scratch/asked")"
    expect_contains "run" "Torva-specific configuration of Postfix completed successfully" \
        "$(shown torva-postfix-setup "$text")"
    expect_contains "difference" $'\n+127.0.0.1:10026 inet ' "$(shown master.cf "$text")"
    expect_contains "settings" "+ virtual_transport = torva_virtual" "$(shown main.cf "$text")"
    expect_contains "tables" "created  -rw-r--r-- root:root" "$(shown "files created" "$text")"
    expect_contains "verdict" "exit status 0" "$(shown "postfix check" "$text")"
    expect_contains "status" "=== exit status of torva-postfix-setup: 0" "$text"
}

test_takes_a_build_folder_that_is_there_as_it_is() {
    make_checkout "$1" "$2"
    mkdir -p "$scratch/checkout/build/release"
    : >"$scratch/checkout/build/release/build.ninja"
    "$demo" >/dev/null 2>&1
    expect_equal "asked for" "--build --preset release --target torva-postfix-setup torva-postfixctl" "$(<"$scratch/asked")"
}

test_exit_status_and_text_are_those_of_the_program() {
    stand_in 'echo "Fatal error: X(y), input $(wc -c)" >&2; exit 2'
    make_checkout "$tool" "$2"
    local text status=0
    text=$(echo input | "$demo" 2>&1) || status=$?
    expect_equal "exit status" 2 "$status"
    expect_contains "text" "Fatal error: X(y), input 0" "$text"
    expect_equal "master.cf" "(no difference)" "$(shown master.cf "$text" | sed '/^$/d')"
    expect_contains "status" "=== exit status of torva-postfix-setup: 2" "$text"
}

test_changes_nothing_on_the_machine() {
    make_checkout "$1" "$2"
    local before after
    before=$(find /etc /var/spool/postfix -xdev -printf '%p %y %m %U %G %s %T@ %i\n' | sort)
    "$demo" >/dev/null 2>&1
    after=$(find /etc /var/spool/postfix -xdev -printf '%p %y %m %U %G %s %T@ %i\n' | sort)
    [[ $before == "$after" ]] || fail "$(diff <(echo "$before") <(echo "$after"))"
}

test_argument_is_refused_in_one_line() {
    local text status=0
    text=$("$checkout/scripts/demo" --now 2>&1) || status=$?
    expect_equal "exit status" 1 "$status"
    expect_equal "text" "demo: unknown argument --now (see --help)" "$text"
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
