#!/bin/bash
# One linter over everything that it concerns:
#     lint.sh shellcheck|clang-format|man CHECKOUT
#     lint.sh clang-tidy CHECKOUT BUILD_DIR
# Exit status 77: the linter is not installed, or of another version than the sources.
set -euo pipefail

# Each version of these two formats, and complains, in a way of its own.
clang_version=14

linter=$1
cd "$2"
command -v "$linter" >/dev/null || {
    echo "SKIP: $linter is not installed"
    exit 77
}
if [[ $linter == clang-* ]]; then
    version=$("$linter" --version | sed -n 's/.*version \([0-9]*\)\..*/\1/p' | head -n 1)
    [[ $version == "$clang_version" ]] || {
        echo "SKIP: $linter is version $version, and the sources follow version $clang_version"
        exit 77
    }
fi

# files FIND-EXPRESSION...: the files of the checkout, each ended by a null byte.
files() { find . \( -name .git -o -path ./build \) -prune -o -type f "$@" -print0; }

case $linter in
    shellcheck)
        # Scripts without a suffix are known by their first line.
        { files -name '*.sh' && files ! -name '*.*' -exec grep -qE '^#! ?/bin/(ba)?sh' {} \;; } |
            xargs -0 shellcheck
        ;;
    clang-format)
        files \( -name '*.h' -o -name '*.cpp' \) | xargs -0 clang-format --dry-run -Werror
        ;;
    man)
        # Its exit status does not tell of warnings.
        complaints=$(for page in man/*; do LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null; done)
        [[ -z $complaints ]] || {
            printf '%s\n' "$complaints"
            exit 1
        }
        ;;
    clang-tidy)
        sources=$(sed -n 's/^ *"file": "\(.*\)".*/\1/p' "$3/compile_commands.json" | sort -u |
            grep -E "^$PWD/(app|ctl|torva)/")
        grammar=$PWD/torva/postfix/mastercf/MasterCfParser.cpp
        # Following every path through the templates of the grammar would take minutes.
        clang-tidy --quiet -p "$3" --checks='-clang-analyzer-*' "$grammar" 2>&1 |
            sed '/warnings generated\.$/d'
        grep -vxF "$grammar" <<<"$sources" | tr '\n' '\0' |
            xargs -0 -n 1 -P "$(nproc)" clang-tidy --quiet -p "$3" 2>&1 |
            sed '/warnings generated\.$/d'
        ;;
esac
