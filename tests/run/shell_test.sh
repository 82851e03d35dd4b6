# shellcheck shell=bash
# The frame of a test script: every function named test_* is one promise and one
# CTest test. A script sources this first and ends with `run_tests "$@"`:
#     NAME_test.sh TEST ARGUMENT...   runs that test, ended by its first failure
#     NAME_test.sh all ARGUMENT...    runs them all and prints a line for each
# Exit status 77 means skipped; the reason is printed. Sourced, never run.
set -euo pipefail

tests=$(cd -P "${BASH_SOURCE[0]%/*}/.." && pwd)
checkout=${tests%/*}
sandbox=$checkout/scripts/sandbox

# fail TEXT: ends the test.
fail() {
    printf 'FAILED: %s\n' "$1" >&2
    exit 1
}

# skip_test REASON: ends the test as skipped.
skip_test() {
    printf 'SKIP: %s\n' "$1"
    exit 77
}

# expect_equal WHAT WANTED GOT
expect_equal() {
    [[ $2 == "$3" ]] || fail "$1"$'\n'"  wanted: $2"$'\n'"  got:    $3"
}

# expect_contains WHAT PART TEXT
expect_contains() {
    [[ $3 == *"$2"* ]] || fail "$1"$'\n'"  wanted in it: $2"$'\n'"  got:          $3"
}

# need_root_here: skips unless the test runs as root.
need_root_here() { ((EUID == 0)) || skip_test "needs root"; }

# need_namespaces: skips where root may make none, with the sandbox's own reason.
need_namespaces() {
    need_root_here
    local reason
    reason=$("$sandbox" --loopback-only -- true 2>&1) || skip_test "${reason#SKIP: }"
}

# need_chroot: skips where root may not make the devices of a chroot.
need_chroot() {
    need_root_here
    local node
    node=$(mktemp -u)
    mknod "$node" c 1 3 2>/dev/null || skip_test "root may not make device nodes here"
    rm -f "$node"
}

# make_scratch: sets `scratch` to a new directory that goes with the test.
make_scratch() {
    scratch=$(mktemp -d "${TMPDIR:-/tmp}/torva-test.XXXXXX")
    trap 'rm -rf "$scratch"' EXIT
}

# await FILE: waits until FILE exists, for at most twenty seconds.
await() {
    local i
    for ((i = 0; i < 400; i++)); do
        [[ -e $1 ]] && return
        sleep 0.05
    done
    fail "$1 never appeared"
}

# run_tests TEST|all ARGUMENT...
run_tests() {
    local wanted=${1:?a test, or all} name status failures=0
    shift
    if [[ $wanted != all ]]; then
        declare -F "$wanted" >/dev/null || fail "no such test: $wanted"
        "$wanted" "$@"
        return
    fi
    for name in $(declare -F | sed -n 's/^declare -f \(test_\)/\1/p'); do
        status=0
        "$0" "$name" "$@" || status=$?
        case $status in
            0) printf 'ok      %s\n' "$name" ;;
            77) printf 'skipped %s\n' "$name" ;;
            *)
                printf 'FAILED  %s\n' "$name"
                failures=$((failures + 1))
                ;;
        esac
    done
    ((failures == 0))
}
