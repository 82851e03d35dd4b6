#!/bin/bash
# Each linter is used in one version only; in any other it is skipped, with the reason.
#     lint_test.sh TEST
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/shell_test.sh"

# stand_in NAME VERSION-TEXT: a linter that prints this as its version, and finds a fault in
# whatever it is given.
stand_in() {
    [[ -n ${scratch:-} ]] || make_scratch
    mkdir -p "$scratch/bin" "$scratch/tree/man"
    printf '#!/bin/bash\n[[ $* != --version ]] || { printf "%%s\\n" "%s"; exit; }\necho fault >&2; exit 1\n' \
        "$2" >"$scratch/bin/$1"
    chmod 755 "$scratch/bin/$1"
    printf 'int x;\n' >"$scratch/tree/x.cpp"
    printf '#!/bin/bash\n' >"$scratch/tree/x.sh"
    printf '.TH x 1\n' >"$scratch/tree/man/x.1"
    PATH=$scratch/bin:$PATH
}

# expect_skip LINTER REASON
expect_skip() {
    local text status=0
    text=$("$tests/tools/lint.sh" "$1" "$scratch/tree" "$scratch" 2>&1) || status=$?
    expect_equal "output" "SKIP: $2" "$text"
    expect_equal "exit status" 77 "$status"
}

# expect_fault LINTER: it was run, and its fault counts.
expect_fault() {
    local text status=0
    text=$("$tests/tools/lint.sh" "$1" "$scratch/tree" "$scratch" 2>&1) || status=$?
    expect_contains "output" fault "$text"
    ((status != 0 && status != 77)) || fail "exit status $status"
}

test_clang_format_of_another_version_is_skipped() {
    stand_in clang-format "Debian clang-format version 19.1.7 (3+b1)"
    expect_skip clang-format "clang-format is version 19.1.7; the sources are written for 14"
    stand_in clang-format "Debian clang-format version 140.0.0"
    expect_skip clang-format "clang-format is version 140.0.0; the sources are written for 14"
}

test_clang_tidy_of_another_version_is_skipped() {
    stand_in clang-tidy $'Debian LLVM version 19.1.7\n  Optimized build.'
    expect_skip clang-tidy "clang-tidy is version 19.1.7; the sources are written for 14"
}

test_shellcheck_of_another_version_is_skipped() {
    stand_in shellcheck $'ShellCheck - shell script analysis tool\nversion: 0.10.0'
    expect_skip shellcheck "shellcheck is version 0.10.0; the sources are written for 0.9"
}

test_manuals_are_judged_by_one_version_of_groff() {
    stand_in man "man 2.13.1"
    stand_in groff "GNU groff version 1.23.0"
    expect_skip man "groff is version 1.23.0; the sources are written for 1.22"
}

test_linter_that_is_not_installed_is_skipped() {
    make_scratch
    mkdir -p "$scratch/tree" "$scratch/bin"
    ln -s /bin/bash "$scratch/bin/bash"
    PATH=$scratch/bin expect_skip clang-format "clang-format is not installed"
}

test_linter_that_tells_no_version_is_skipped() {
    stand_in shellcheck "a beta"
    expect_skip shellcheck "shellcheck does not tell its version"
}

test_linters_of_the_one_version_judge() {
    stand_in clang-format "Debian clang-format version 14.0.6"
    expect_fault clang-format
    stand_in shellcheck $'ShellCheck - shell script analysis tool\nversion: 0.9.0'
    expect_fault shellcheck
    stand_in man "man 2.11.2"
    stand_in groff "GNU groff version 1.22.4"
    expect_fault man
}

test_clang_tidy_judges_every_header_of_the_product_and_no_other() {
    local filter missed
    filter=$(sed -n "s/^HeaderFilterRegex: '\(.*\)'$/\1/p" "$checkout/.clang-tidy")
    [[ -n $filter ]] || fail "no filter"
    cd "$checkout"
    missed=$(find app ctl torva -name '*.h' -printf '/a/checkout/%p\n' | grep -vE "$filter" || true)
    expect_equal "headers that are not judged" "" "$missed"
    expect_equal "headers of others" "" \
        "$(printf '%s\n' /usr/include/boost/process/util/x.h /a/checkout/tests/support/x.h | grep -E "$filter" || true)"
}

# tidy ARGUMENT...: the output of tidy.py on a checkout of two sources, both with a finding,
# whose build compiles them together.
tidy() {
    command -v clang-tidy >/dev/null || skip_test "clang-tidy is not installed"
    make_scratch
    mkdir -p "$scratch/app" "$scratch/build"
    cp "$checkout/.clang-tidy" "$scratch/"
    printf 'int read(int* p) {\n    p = nullptr;\n    return *p;\n}\n' >"$scratch/app/a.cpp"
    printf '\nint* none() {\n    return 0;\n}\n' >"$scratch/app/b.cpp"
    printf '#include "%s"\n\n' "$scratch/app/a.cpp" "$scratch/app/b.cpp" >"$scratch/build/unity_0_cxx.cxx"
    printf '[{"file": "%s", "command": "c++ -std=c++17 -c"}]' "$scratch/build/unity_0_cxx.cxx" \
        >"$scratch/build/compile_commands.json"
    local text status=0
    text=$("$tests/tools/tidy.py" "$scratch" "$scratch/build" "$@" 2>&1) || status=$?
    expect_equal "exit status" 1 "$status"
    printf '%s\n' "$text"
}

test_findings_in_sources_that_are_compiled_together_have_their_own_lines() {
    expect_contains "finding" "/app/b.cpp:3:12: error: use nullptr" "$(tidy)"
}

test_sources_of_several_folders_whose_names_clash_are_each_looked_at() {
    command -v clang-tidy >/dev/null || skip_test "clang-tidy is not installed"
    make_scratch
    mkdir -p "$scratch/app" "$scratch/torva/util" "$scratch/build"
    cp "$checkout/.clang-tidy" "$scratch/"
    printf '\nstatic int* none() {\n    return 0;\n}\nint a() { return *none(); }\n' | tee "$scratch/app/a.cpp" >"$scratch/torva/util/b.cpp"
    printf '[{"file": "%s", "command": "c++ -std=c++17"}, {"file": "%s", "command": "c++ -std=c++17"}]' \
        "$scratch/app/a.cpp" "$scratch/torva/util/b.cpp" >"$scratch/build/compile_commands.json"
    local text status=0
    text=$("$tests/tools/tidy.py" "$scratch" "$scratch/build" 2>&1) || status=$?
    expect_equal "exit status" 1 "$status"
    expect_contains "finding" "/app/a.cpp:3:12: error: use nullptr" "$text"
    expect_contains "finding" "/torva/util/b.cpp:3:12: error: use nullptr" "$text"
    [[ $text != *redefinition* ]] || fail "$text"
}

test_analyzer_looks_into_sources_that_are_compiled_together() {
    expect_contains "finding" "/app/a.cpp:3:12: error: Dereference of null pointer" "$(tidy --analyzer)"
}

run_tests "$@"
