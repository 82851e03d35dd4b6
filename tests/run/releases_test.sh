#!/bin/bash
# What scripts/prove releases makes of what happens in a suite: the systems are stand-ins.
#     releases_test.sh TEST
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/shell_test.sh"

# stand_in NAME TEXT: a program of that name in front of PATH.
stand_in() {
    [[ -n ${scratch:-} ]] || make_scratch
    mkdir -p "$scratch/bin"
    printf '#!/bin/bash\n%s\n' "$2" >"$scratch/bin/$1"
    chmod 755 "$scratch/bin/$1"
    PATH=$scratch/bin:$PATH
}

# copy_of_scripts: what the proof consists of, in a place where it may write.
copy_of_scripts() {
    stand_in dpkg-query 'printf "%s installed\n" "$@"'
    mkdir "$scratch/tree"
    cp -a "$checkout/scripts" "$checkout/prove" "$scratch/tree/"
    releases=$scratch/tree/scripts/prove
}

test_suite_that_cannot_be_installed_is_skipped_with_the_reason() {
    need_root_here
    copy_of_scripts
    stand_in apt-get 'echo "$(sed -n "s/^VERSION_CODENAME=//p" /etc/os-release) http://archive.example/debian"'
    stand_in debootstrap 'echo "E: no such suite: $2"; exit 1'
    local text status=0
    text=$("$releases" releases nosuch 2>&1) || status=$?
    expect_equal "exit status" 77 "$status"
    expect_contains "reason" "SKIP: nosuch: debootstrap: E: no such suite: nosuch" "$text"
    expect_contains "table" "| nosuch | skipped: debootstrap: E: no such suite: nosuch |" "$text"
    [[ ! -e $scratch/tree/build/releases/nosuch ]] || fail "a system that was not installed is kept"
}

test_help_installs_nothing() {
    copy_of_scripts
    stand_in dpkg-query 'exit 1'
    stand_in apt-get 'echo "apt-get $*" >&2; exit 1'
    expect_contains "help" "usage: scripts/prove releases" "$("$releases" releases --help 2>&1)"
}

# suite_that_writes TEXT: from now on, a run in any suite leaves these results.
suite_that_writes() {
    command -v git >/dev/null || skip_test "git is not installed"
    copy_of_scripts
    stand_in apt-get 'echo "$(sed -n "s/^VERSION_CODENAME=//p" /etc/os-release) http://archive.example/debian"'
    # shellcheck disable=SC2016 # expanded by the stand-in
    stand_in debootstrap 'mkdir -p "$3/etc" "$3/root" && touch "$3/etc/os-release"'
    printf '%s' "$1" >"$scratch/results"
    printf '#!/bin/bash\ncp "%s" "$1/root/results"\n' "$scratch/results" >"$scratch/tree/prove/releases/enter"
    git -C "$scratch/tree" init --quiet
    git -C "$scratch/tree" add scripts
    git -C "$scratch/tree" -c user.name=test -c user.email=test@example.org commit --quiet -m test
}

green_results() {
    printf '%s\t%s\n' demo works passed 1034 failed 0 skipped 8 packages pass \
        postfix 3.10.13-0 compiler "g++ 14.2.0" boost 1.83.0.2
}

test_green_suites_are_a_row_each_and_status_0() {
    need_root_here
    suite_that_writes "$(green_results)"
    local text status=0
    text=$("$releases" releases --short bookworm trixie 2>&1) || status=$?
    expect_equal "exit status" 0 "$status"
    expect_contains "trixie" "trixie: green" "$text"
    local row="3.10.13-0 | g++ 14.2.0 | 1.83.0.2 | works | 1034 | 0 | 8 | pass |"
    expect_contains "rows" "| bookworm | $row"$'\n'"| trixie | $row" "$text"
}

test_table_replaces_the_one_of_a_file_and_nothing_else() {
    need_root_here
    suite_that_writes "$(green_results)"
    local marks=("<!-- releases: scripts/prove releases writes this -->" "<!-- end of the releases -->")
    printf '%s\n' before "${marks[0]}" old "${marks[1]}" after >"$scratch/page"
    "$releases" releases --output "$scratch/page" trixie >/dev/null 2>&1
    local page
    page=$(<"$scratch/page")
    expect_equal "first line" before "${page%%$'\n'*}"
    expect_equal "last line" after "${page##*$'\n'}"
    expect_contains "row" "| trixie | 3.10.13-0 |" "$page"
    [[ $page != *old* ]] || fail "the old table is still there"
    expect_contains "marks" "${marks[0]}"$'\n\n'"| Suite |" "$page"
    expect_contains "marks" "|"$'\n\n'"${marks[1]}" "$page"
}

# expect_not_green RESULTS PART: the suite fails, and its row has PART.
expect_not_green() {
    printf '%s' "$1" >"$scratch/results"
    local text status=0
    text=$("$releases" releases trixie 2>&1) || status=$?
    expect_equal "exit status with $2" 1 "$status"
    expect_contains "suite with $2" "trixie: NOT GREEN" "$text"
    expect_contains "row" "$2" "$text"
}

test_suite_in_which_anything_fails_is_not_green() {
    need_root_here
    suite_that_writes ""
    local good
    good=$(green_results)
    expect_not_green "${good/failed$'\t'0/failed$'\t'1}" "| 1034 | 1 | 8 |"
    expect_not_green "${good/works/ends with 3}" "| ends with 3 |"
    expect_not_green "${good/pass$'\n'/end with 2$'\n'}" "| end with 2 |"
    expect_not_green "${good/passed$'\t'1034/passed$'\t'0}" "| 0 | 0 | 8 |"
    # It did not get as far as the tests.
    expect_not_green "demo"$'\t'"works" "| trixie | ? | ? | ? | works | ? | ? | ? | ? |"
}

# start_installation: begins a proof, as process $proof, whose debootstrap mounts what a real
# one does, and takes its time; waits until it does.
start_installation() {
    copy_of_scripts
    stand_in apt-get 'echo "$(sed -n "s/^VERSION_CODENAME=//p" /etc/os-release) http://archive.example/debian"'
    # shellcheck disable=SC2016 # expanded by the stand-in
    stand_in debootstrap 'mkdir -p "$3" && mount -t tmpfs tmpfs "$3" && exec 9>"${0%/*}/alive" && flock 9 &&
touch "${0%/*}/mounted" && sleep 60'
    "$releases" releases nosuch >/dev/null 2>&1 &
    proof=$!
    await "$scratch/bin/mounted"
}

test_proof_that_is_ended_while_it_installs_a_system_leaves_neither_a_process_nor_a_mount() {
    need_namespaces
    start_installation
    kill -TERM "$proof"
    wait "$proof" || true
    local mounted
    mounted=$(grep "$scratch" /proc/self/mounts || true)
    [[ -z $mounted ]] || umount "$scratch/tree/build/releases/nosuch.unfinished"
    expect_equal "mounts" "" "$mounted"
    flock --timeout 20 "$scratch/bin/alive" true || fail "debootstrap goes on"
}

test_second_proof_at_the_same_time_is_refused_and_leaves_the_first_alone() {
    need_namespaces
    start_installation
    local text status=0
    text=$(timeout 20 "$releases" releases nosuch 2>&1) || status=$?
    kill -TERM "$proof" || fail "the first one has ended"
    wait "$proof" || true
    expect_equal "exit status" 1 "$status"
    expect_contains "message" "another proof of the releases is running" "$text"
}

test_suite_whose_name_is_a_path_is_refused_before_anything_is_installed() {
    need_root_here
    copy_of_scripts
    stand_in apt-get 'echo "apt-get $*" >&2; exit 1'
    local name status
    for name in ../x . "" a/b; do
        status=0
        "$releases" releases -- "$name" >/dev/null 2>&1 || status=$?
        expect_equal "exit status with '$name'" 2 "$status"
    done
    [[ ! -e $scratch/tree/build ]] || fail "there is a build folder"
}

run_tests "$@"
