#!/bin/bash
# What scripts/prove packages finds and says, with a small program in place of each of
# Debian's.
#     proof_test.sh TEST
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/../run/shell_test.sh"

# stand_in NAME TEXT: a program of that name in front of PATH.
stand_in() {
    mkdir -p "$scratch/bin"
    printf '#!/bin/bash\n%s\n' "$2" >"$scratch/bin/$1"
    chmod 755 "$scratch/bin/$1"
}

# make_proof: a repository with the scripts in it, one commit with debian/ and one without;
# Debian's programs succeed.
make_proof() {
    need_root_here
    command -v git >/dev/null || skip_test "git is not installed"
    make_scratch
    PATH=$scratch/bin:$PATH
    mkdir "$scratch/tree"
    cp -a "$checkout/scripts" "$checkout/prove" "$scratch/tree/"
    commit first
    mkdir "$scratch/tree/debian"
    touch "$scratch/tree/debian/control"
    commit second
    stand_in dpkg-query 'printf "%s installed\n" "$@"'
    stand_in lintian ''
    stand_in dpkg-buildpackage 'echo one >../torva-postfix_1.deb; touch ../torva-postfix_1.changes'
    # What follows looks into packages, which these are not.
    stand_in dpkg-deb 'echo "looked inside" >&2; exit 1'
}

commit() {
    git -C "$scratch/tree" init --quiet
    git -C "$scratch/tree" add --all
    git -C "$scratch/tree" -c user.name=test -c user.email=test@example.net commit --quiet --message "$1"
}

# proof [ARGUMENT...]: what it says; it cannot succeed here.
proof() {
    if "$scratch/tree/scripts/prove" packages "$@" 2>&1; then fail "the proof succeeds"; fi
}

test_builds_that_differ_are_told() {
    make_proof
    stand_in dpkg-buildpackage 'pwd >../torva-postfix_1.deb; touch ../torva-postfix_1.changes'
    expect_contains "output" "two builds of one commit differ: torva-postfix_1.deb" "$(proof)"
}

test_equal_builds_and_a_commit_before_without_packaging_are_told() {
    make_proof
    local text
    text=$(proof)
    expect_contains "the same" "ok  two builds, the same bytes" "$text"
    expect_contains "no upgrade" "--  no upgrade: the commit before this one (" "$text"
    expect_contains "no upgrade" ") has no debian/" "$text"
    expect_contains "the next step" "looked inside" "$text"
}

test_packages_of_the_commit_before_are_built() {
    make_proof
    touch "$scratch/tree/third"
    commit third
    expect_contains "the build" "building $(git -C "$scratch/tree" rev-parse HEAD~1) in $scratch/tree/build/packages/before" "$(proof)"
}

test_short_form_builds_once() {
    make_proof
    expect_equal "builds" 1 "$(proof --short | grep -c 'building ')"
}

test_complaint_of_lintian_is_told() {
    make_proof
    stand_in lintian 'echo "W: torva-postfix: some-tag"; exit 0'
    expect_contains "output" "lintian: W: torva-postfix: some-tag" "$(proof)"
}

test_failed_build_shows_the_end_of_its_log() {
    make_proof
    stand_in dpkg-buildpackage 'echo "error: no such header"; exit 2'
    expect_contains "output" "error: no such header" "$(proof)"
}

test_build_takes_neither_flags_nor_cache_of_the_caller() {
    make_proof
    stand_in dpkg-buildpackage 'echo "flags:${CXXFLAGS-none}:${CMAKE_CXX_COMPILER_LAUNCHER-none}:${CCACHE_DISABLE-none}"; exit 2'
    expect_contains "environment" "flags:none:none:1" "$(CXXFLAGS=-O0 CMAKE_CXX_COMPILER_LAUNCHER=ccache proof)"
}

test_help_installs_nothing() {
    make_proof
    stand_in dpkg-query 'exit 1'
    stand_in apt-get 'echo "apt-get $*" >&2; exit 1'
    local text
    text=$("$scratch/tree/scripts/prove" packages --help 2>&1)
    expect_contains "help" "usage: sudo scripts/prove packages" "$text"
    [[ $text != *apt-get* ]] || fail "$text"
}

run_tests "$@"
