#!/bin/bash
# Compiles the installed headers with nothing but the installed copy at hand: as C++17 and
# C++20, and those of plain functions as C11 too.
#
#   headers_test.sh BUILD_DIR g++      each alone: it includes what it needs
#   headers_test.sh BUILD_DIR clang++  all in one, in both orders: what each gets from the
#                                      others does not depend on the compiler
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

# A header is plain when its name is in lower case, see CONTRIBUTING.md.
find torva -name '*.h' | LC_ALL=C sort >"$work/headers"
grep -E '/[a-z][^/]*$' "$work/headers" >"$work/plain" || {
    echo "FAILED: no header of plain functions is installed"
    exit 1
}

# compile COMPILER LANGUAGE STANDARD HEADER...: all are included twice, as through others.
compile() {
    local headers=("${@:4}") warnings=(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
    [[ $2 == c ]] || warnings+=(-Wold-style-cast -Wnon-virtual-dtor)
    {
        printf '#include <%s>\n' "${headers[@]}" "${headers[@]}"
        echo 'int main(void) { return 0; }'
    } | "$1" -x "$2" "-std=$3" "${warnings[@]}" -fsyntax-only -I. - || {
        echo "FAILED: ${headers[*]}, $1 -std=$3"
        return 1
    }
}
export -f compile

# compilations HEADER-LIST COMPILER LANGUAGE STANDARD: a line for each, for compile.
compilations() {
    if [[ $compiler == g++ ]]; then
        sed "s|^|$2 $3 $4 |" "$1"
    else
        echo "$2 $3 $4 $(xargs <"$1")"
        echo "$2 $3 $4 $(tac "$1" | xargs)"
    fi
}

{
    compilations "$work/headers" "$compiler" c++ c++17
    compilations "$work/headers" "$compiler" c++ c++20
    compilations "$work/plain" "$c_compiler" c c11
} >"$work/compilations"
xargs -P "$(nproc)" -L 1 bash -c 'compile "$@"' compile <"$work/compilations" || exit 1
echo "$(wc -l <"$work/compilations") compilations of $(wc -l <"$work/headers") headers with $compiler," \
    "$(grep -c ' c11 ' "$work/compilations") of them as C11"
