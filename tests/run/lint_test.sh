#!/bin/bash
# When tests/tools/lint.sh takes a linter and when it does not, with a fake one.
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/shell_test.sh"

# lint VERSION: the output of a clang-format that says VERSION and complains of every
# file, and "status N".
lint() {
    local status=0
    make_scratch
    cat >"$scratch/clang-format" <<END
#!/bin/sh
[ "\$1" = --version ] || exit 1
echo "Debian clang-format version $1"
END
    chmod +x "$scratch/clang-format"
    PATH=$scratch:$PATH "$checkout/tests/tools/lint.sh" clang-format "$checkout" "$scratch" || status=$?
    echo "status $status"
}

test_linter_of_another_version_is_skipped_with_the_reason() {
    expect_equal "output" "SKIP: clang-format is version 19, and the sources follow version 14
status 77" "$(lint '19.1.7 (3+b1)')"
}

test_linter_of_the_right_version_is_believed() {
    expect_equal "output" "status 123" "$(lint 14.0.6)"
}

run_tests "$@"
