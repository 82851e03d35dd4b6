#!/bin/bash
# What is installed of torva/ is public, and only that: every header is either installed or
# says that it is not, no installed one includes one that is not, or sends its reader there,
# and the manual names them all.
#
#   public_test.sh BUILD_DIR
set -euo pipefail

tree=$(cd -P "${BASH_SOURCE[0]%/*}/../.." && pwd)
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
private='// Private to the library: not installed.'

failures=0
fail() {
    printf 'FAILED: %s\n' "$*" >&2
    failures=$((failures + 1))
}

cmake --install "$build" --prefix "$work/prefix" --component dev >"$work/install.log"
(cd "$work/prefix/include" && find . -type f -printf '%P\n') | LC_ALL=C sort >"$work/installed"
(cd "$tree" && find torva -name '*.h') | LC_ALL=C sort >"$work/headers"
# The one header that the build makes.
echo torva/version.h >"$work/made"

while read -r header; do
    [[ -e $work/prefix/include/$header ]] && installed=yes || installed=no
    # In the opening comment: up to the first line that is none.
    sed '/^\/\//!q' "$tree/$header" | grep -qxF "$private" && says=private || says=public
    case $installed,$says in
        yes,private) fail "$header is installed and says that it is not" ;;
        no,public) fail "$header is not installed and does not say so: $private" ;;
    esac
    [[ $installed == yes ]] || basename "$header" >>"$work/private"
done <"$work/headers"

if mentions=$(cd "$work/prefix/include" && grep -rnwF -f "$work/private" .); then
    fail "a user of these has no such header:
$mentions"
fi

while read -r header; do
    fail "$header is installed, and nothing of that name is in the tree"
done < <(LC_ALL=C sort "$work/headers" "$work/made" | LC_ALL=C comm -13 - "$work/installed")

while read -r header; do
    while read -r included; do
        case $included in
            \"torva/* | \<torva/*)
                [[ -e $work/prefix/include/${included:1:-1} ]] ||
                    fail "$header is installed and includes $included, which is not"
                ;;
            \"*) fail "$header includes $included, which a header beside the program could replace" ;;
        esac
    done < <(sed -nE 's/^[[:blank:]]*#[[:blank:]]*include[[:blank:]]*(["<][^">]*[">]).*/\1/p' \
        "$work/prefix/include/$header")
done <"$work/installed"

# Whoever has children of their own must read what becomes of them in each header whose
# operations start a tool: those that run one, and those that are built on them.
for header in params/{PostfixParameters,PostfixTool,RelayPolicy} mastercf/MasterCf \
    tables/{Blacklist,CreateTable,DomainManager,Postmap,RecordCache,TableRewrite}; do
    grep -qF 'every child of the process is reaped' "$tree/torva/postfix/$header.h" ||
        fail "torva/postfix/$header.h does not tell that children are reaped"
done

sed -n 's/^\.B #include <\(.*\)>$/\1/p' "$tree/man/torva-mail.3" | LC_ALL=C sort >"$work/manual"
difference=$(diff "$work/manual" "$work/installed") ||
    fail "the headers that man/torva-mail.3 names (<) and the installed ones (>):
$difference"

((failures == 0)) || exit 1
echo "$(wc -l <"$work/installed") headers installed, $(grep -c . "$work/headers") in the tree"
