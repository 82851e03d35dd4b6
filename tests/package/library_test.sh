#!/bin/bash
# Installs the library, builds every program of docs/library.md against the
# installed copy as that page says, and runs them in the sandbox.
#
#   library_test.sh BUILD_DIR
set -euo pipefail

tree=$(cd -P "${BASH_SOURCE[0]%/*}/../.." && pwd)
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# code_block LANGUAGE N: the Nth block of the page in that language.
code_block() {
    awk -v fence="\`\`\`$1" -v wanted="$2" '
        $0 == fence { inside = ++block == wanted; next }
        $0 == "```" { inside = 0 }
        inside' "$tree/docs/library.md"
}

expect() {
    [[ $2 == "$3" ]] || {
        printf 'FAILED: %s\n--- wanted:\n%s\n--- got:\n%s\n' "$1" "$2" "$3" >&2
        exit 1
    }
}

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log"
for n in 1 2 3; do
    mkdir "$work/$n"
    code_block cmake 1 >"$work/$n/CMakeLists.txt"
    code_block cpp "$n" >"$work/$n/consumer.cpp"
    grep -q 'int main' "$work/$n/consumer.cpp" || {
        echo "FAILED: docs/library.md has no program $n" >&2
        exit 1
    }
    cmake -S "$work/$n" -B "$work/$n/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
        -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror ${CXXFLAGS:-}" >"$work/$n/log"
    cmake --build "$work/$n/build" >>"$work/$n/log" || {
        cat "$work/$n/log" >&2
        exit 1
    }
done

cat >"$work/world" <<'END'
set -euo pipefail
postconf -M# postlog/unix-dgram
mkdir -p /var/spool/postfix/torva
: >/var/spool/postfix/torva/virtual
postmap /var/spool/postfix/torva/virtual
printf 'mailman unix - n n - - pipe flags=R user=list argv=/bin/true\n' >>/etc/postfix/master.cf
for n in 1 2 3; do
    echo "program $n:"
    # A listing comes in the order of the index.
    "$1/$n/build/consumer" 2>"$1/$n/errors" | if ((n == 3)); then LC_ALL=C sort; else cat; fi
done
echo "alias domain:"
postmap -q postmaster@example.net hash:/var/spool/postfix/torva/virtual
END
status=0
got=$("$tree/scripts/sandbox" -- bash "$work/world" "$work") || status=$?
((status != 77)) || exit 77
expect "exit status" 0 "$status"
expect "what the programs print" "program 1:
Unable to open admin password file: No such file or directory
Unable to connect to mysql database
Unable to get mailnames from domain: example.com
/etc/postfix
program 2:
01
program 3:
ann@example.com -> ann@example.com
anonymous@example.net -> anonymous@localhost.localdomain
drweb@example.net -> drweb@localhost.localdomain
mailer-daemon@example.net -> mailer-daemon@localhost.localdomain
postmaster@example.net -> postmaster@localhost.localdomain
root@example.net -> root@localhost.localdomain
sales@example.com -> ann@example.com
alias domain:
postmaster@localhost.localdomain" "$got"
