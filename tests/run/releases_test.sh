#!/bin/bash
# What scripts/prove releases promises before any suite is installed.
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
    stand_in dpkg-query 'echo installed'
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

run_tests "$@"
