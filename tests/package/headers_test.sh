#!/bin/bash
# Compiles every installed header alone, with nothing but the installed copy at hand: as
# C++17 and C++20, and those of plain functions as C11 too.
#
#   headers_test.sh BUILD_DIR g++|clang++
set -euo pipefail

build=$1
compiler=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

command -v "$compiler" >/dev/null || {
    echo "SKIP: $compiler is not installed"
    exit 77
}
case $compiler in
    g++) c_compiler=gcc ;;
    clang++) c_compiler=clang ;;
esac

cmake --install "$build" --prefix "$work/prefix" --component dev >"$work/install.log"
cd "$work/prefix/include"

# Each line is one compilation: compiler, language, standard, header. A header is plain
# when its name is in lower case, see CONTRIBUTING.md.
find torva -name '*.h' | LC_ALL=C sort >"$work/headers"
while read -r header; do
    for standard in c++17 c++20; do
        echo "$compiler c++ $standard $header"
    done
    case ${header##*/} in
        [a-z]*) echo "$c_compiler c c11 $header" ;;
    esac
done <"$work/headers" >"$work/compilations"

# compile COMPILER LANGUAGE STANDARD HEADER: included twice, as through two others.
compile() {
    local warnings=(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
    [[ $2 == c ]] || warnings+=(-Wold-style-cast -Wnon-virtual-dtor)
    printf '#include <%s>\n#include <%s>\nint main(void) { return 0; }\n' "$4" "$4" |
        "$1" -x "$2" "-std=$3" "${warnings[@]}" -fsyntax-only -I. - || {
        echo "FAILED: $4 alone, $1 -std=$3"
        return 1
    }
}
export -f compile

count=$(wc -l <"$work/compilations")
plain=$(grep -c ' c11 ' "$work/compilations") || true
((plain > 0)) || {
    echo "FAILED: no header of plain functions is installed"
    exit 1
}
xargs -P "$(nproc)" -L 1 bash -c 'compile "$@"' compile <"$work/compilations" || exit 1
echo "$count compilations with $compiler, $plain of them as C11"
