#!/bin/bash
# The output of scripts/lib/test_summary.py for the results of real CTest runs.
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/shell_test.sh"

# results NAME LINE...: runs CTest over the add_test() lines; results in
# $scratch/NAME.xml.
results() {
    local name=$1
    shift
    mkdir "$scratch/$name"
    printf '%s\n' "$@" >"$scratch/$name/CTestTestfile.cmake"
    ctest --test-dir "$scratch/$name" --output-junit "$scratch/$name.xml" \
        --test-output-size-passed 1000000 >/dev/null 2>&1 || true
}

# summary NAME...: prints the summary of these results, and its exit status.
summary() {
    local status=0
    "$checkout/scripts/lib/test_summary.py" "${@/#/$scratch/}" || status=$?
    echo "status $status"
}

test_two_runs_are_added_up() {
    make_scratch
    results one 'add_test(a "/bin/true")' 'add_test(b "/bin/true")'
    results two 'add_test(a "/bin/true")'
    expect_equal "summary" $'3 passed, 0 failed, 0 skipped\nstatus 0' "$(summary one.xml two.xml)"
}

test_failed_test_is_named_and_fails_the_whole() {
    make_scratch
    results one 'add_test(good "/bin/true")' 'add_test(bad "/bin/false")' \
        'add_test(dead "/bin/sh" "-c" "kill -SEGV $$")'
    expect_equal "summary" $'failed: bad\nfailed: dead\n1 passed, 2 failed, 0 skipped\nstatus 1' \
        "$(summary one.xml)"
}

test_skipped_test_is_named_with_its_reason() {
    make_scratch
    results one 'add_test(good "/bin/true")' \
        'add_test(script "/bin/sh" "-c" "echo SKIP: no namespaces; exit 77")' \
        'set_tests_properties(script PROPERTIES SKIP_RETURN_CODE 77)' \
        'add_test(mute "/bin/sh" "-c" "exit 77")' \
        'set_tests_properties(mute PROPERTIES SKIP_RETURN_CODE 77)' \
        'add_test(gtest "printf" "a.cpp:3: Skipped\nneeds root\n\n[  SKIPPED ] A.B (0 ms)\n")' \
        'set_tests_properties(gtest PROPERTIES SKIP_REGULAR_EXPRESSION "SKIPPED")'
    expect_equal "summary" "skipped: script: no namespaces
skipped: mute: no reason given
skipped: gtest: needs root
1 passed, 0 failed, 3 skipped
status 0" "$(summary one.xml)"
}

test_tests_skipped_inside_a_passed_program_are_counted() {
    make_scratch
    results one \
        'add_test(gtest "printf" "[ RUN      ] A.B\na.cpp:3: Skipped\nneeds root\n\n[  SKIPPED ] A.B (0 ms)\n[  SKIPPED ] 1 test, listed below:\n[  SKIPPED ] A.B\n")' \
        "add_test(unittest \"printf\" \"test_x (a.B) ... skipped 'no MariaDB'\\n\")"
    expect_equal "summary" "skipped: gtest: A.B: needs root
skipped: unittest: test_x: no MariaDB
2 passed, 0 failed, 2 skipped
status 0" "$(summary one.xml)"
}

test_test_without_its_program_has_failed() {
    make_scratch
    results one 'add_test(good "/bin/true")' 'add_test(gone "/no/such/program")'
    expect_contains "summary" "1 passed, 1 failed, 0 skipped
status 1" "$(summary one.xml)"
}

test_nothing_but_skipped_tests_is_no_success() {
    make_scratch
    results one 'add_test(mute "/bin/sh" "-c" "exit 77")' \
        'set_tests_properties(mute PROPERTIES SKIP_RETURN_CODE 77)'
    expect_contains "summary" $'0 passed, 0 failed, 1 skipped\nstatus 1' "$(summary one.xml)"
}

run_tests "$@"
