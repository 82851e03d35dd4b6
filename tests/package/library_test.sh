#!/bin/bash
# Installs the library, builds every program of docs/library.md against the installed copy
# as that page says, and runs them in the sandbox: each prints what the page tells. One
# program for each area; with CMake and pkg-config, in C++ and C.
#
#   library_test.sh BUILD_DIR
# Flags of the build, such as those of the sanitizers, are taken from CXXFLAGS.
set -euo pipefail

tree=$(cd -P "${BASH_SOURCE[0]%/*}/../.." && pwd)
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work" # some of the programs are run by another account

expect() {
    [[ $2 == "$3" ]] || {
        printf 'FAILED: %s\n--- wanted:\n%s\n--- got:\n%s\n' "$1" "$2" "$3" >&2
        exit 1
    }
}

command -v mariadbd >/dev/null || {
    echo "SKIP: mariadbd is not installed"
    exit 77
}

libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[^=]*=//p' "$build/CMakeCache.txt")
cmake --install "$build" --prefix "$work/prefix" --component dev >"$work/install.log"
expect "the areas of docs/library.md" "parameters.cpp
services.cpp
tables.cpp
domains.cpp
panel.cpp
account.c
commands.cpp
files.cpp
logging.cpp
threads.cpp" "$("$tree/tests/package/guide.py" "$tree/docs/library.md" "$work")"

# with_cmake SOURCE: its program, by the page's CMakeLists.txt.
with_cmake() {
    local name=${1%.*} suffix=${1##*.}
    local project=$work/cmake-$name
    mkdir "$project"
    sed "s/consumer\.cpp/consumer.$suffix/" "$work/CMakeLists.txt" >"$project/CMakeLists.txt"
    cp "$work/$1" "$project/consumer.$suffix"
    cmake -S "$project" -B "$project/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
        -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror ${CXXFLAGS:-}" \
        -DCMAKE_C_STANDARD=11 -DCMAKE_C_FLAGS="-Wall -Wextra -Werror ${CXXFLAGS:-}"
    cmake --build "$project/build"
    mv "$project/build/consumer" "$work/$name"
}

# with_pkg_config SOURCE: its program, by the page's command line.
with_pkg_config() {
    local flags package compiler=(g++ -std=c++17)
    [[ $1 != *.c ]] || compiler=(gcc -std=c11)
    read -ra flags <<<"-g -Wall -Wextra -Werror ${CXXFLAGS:-}"
    read -ra package <<<"$(PKG_CONFIG_PATH=$work/prefix/$libdir/pkgconfig \
        pkg-config --cflags --libs --static torva-mail)"
    "${compiler[@]}" "${flags[@]}" "$work/$1" "${package[@]}" -o "$work/${1%.*}"
}

# make_program FUNCTION SOURCE
make_program() {
    "$1" "$2" >"$work/log" 2>&1 || expect "$2, built $1" "a program" "$(<"$work/log")"
}
for source in parameters.cpp account.c; do make_program with_cmake "$source"; done
for source in services.cpp tables.cpp domains.cpp panel.cpp commands.cpp files.cpp \
    logging.cpp threads.cpp; do
    make_program with_pkg_config "$source"
done

cat >"$work/world" <<'END'
set -euo pipefail
work=$1
run() {
    local name=$1 status=0
    shift
    "$@" "$work/$name" >"$work/$name.got" 2>"$work/$name.errors" </dev/null || status=$?
    echo "$name $status"
}
postconf -M# postlog/unix-dgram
mkdir -p /var/spool/postfix/torva
for table in virtual virtual_domains; do
    : >"/var/spool/postfix/torva/$table"
    postmap "/var/spool/postfix/torva/$table"
done
printf 'mailman unix - n n - - pipe flags=R user=list argv=/bin/true\n' >>/etc/postfix/master.cf
# What any account may do, before root has made anything.
for name in commands logging threads; do
    run "$name" setpriv --reuid=65534 --regid=65534 --clear-groups
done
for name in parameters services tables; do run "$name"; done
"$2" start >/dev/null
trap '"$2" wipe' EXIT
mariadb --no-defaults --socket=/run/mysqld/mysqld.sock kra -e "
    INSERT INTO domains VALUES (1, 'example.com');
    INSERT INTO mail VALUES (1, 1, 'ann');
    INSERT INTO mail_aliases VALUES (1, 1, 'sales')"
for name in domains panel account files; do run "$name"; done
echo "alias domain:" "$(postmap -q postmaster@example.net hash:/var/spool/postfix/torva/virtual)"
echo "its entry:" "$(postmap -q example.net hash:/var/spool/postfix/torva/virtual_domains)"
END
status=0
got=$("$tree/scripts/sandbox" -- bash "$work/world" "$work" "$tree/tests/tools/private-mariadb") || status=$?
((status != 77)) || exit 77
for name in commands logging threads parameters services tables domains panel account files; do
    [[ -e $work/$name.got ]] || expect "the world" "runs $name" "$got"
    expect "what $name prints" "$(<"$work/$name.wanted")" "$(<"$work/$name.got")$(<"$work/$name.errors")"
done
expect "exit status" 0 "$status"
expect "how the programs ended" "commands 0
logging 0
threads 0
parameters 0
services 0
tables 0
domains 0
panel 0
account 0
files 0
alias domain: postmaster@localhost.localdomain
its entry: 1" "$got"
