#!/bin/bash
# One linter over everything that it concerns:
#     lint.sh shellcheck|clang-format|man CHECKOUT
#     lint.sh clang-tidy CHECKOUT BUILD_DIR
# Exit status 77, after a line that says why: the linter is not installed, or not in the
# version that the sources are written for. Other versions find other things, and format
# the same text in another way.
set -euo pipefail

linter=$1
cd "$2"

skip() {
    echo "SKIP: $1"
    exit 77
}

# The program on which the linter's findings depend, and its one version, or the beginning
# of it. These are Debian 12's; whoever changes one corrects what the new one finds.
program=$linter
case $linter in
    clang-format | clang-tidy) version=14 ;;
    shellcheck) version=0.9 ;;
    man) program=groff version=1.22 ;;
esac
for needed in "$linter" "$program"; do
    command -v "$needed" >/dev/null || skip "$needed is not installed"
done
said=$("$program" --version)
[[ $said =~ version:?\ ([0-9.]+) ]] || skip "$program does not tell its version"
[[ ${BASH_REMATCH[1]}. == "$version".* ]] ||
    skip "$program is version ${BASH_REMATCH[1]}; the sources are written for $version"

# files FIND-EXPRESSION...: the files of the checkout, each ended by a null byte; without
# what a build of it or of its packages has made.
files() {
    find . \( -name .git -o -path ./build -o -path './obj-*' -o -path ./debian/.debhelper -o -path ./debian/tmp \
        -o -path ./debian/torva-postfix -o -path ./debian/libtorva-mail-dev \) -prune -o -type f "$@" -print0
}

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
        complaints=$(for page in man/*; do
            LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null || echo "$page: not shown"
        done)
        [[ -z $complaints ]] || {
            printf '%s\n' "$complaints"
            exit 1
        }
        ;;
    clang-tidy)
        tests/tools/tidy.py "$2" "$3"
        ;;
esac
