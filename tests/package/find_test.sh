#!/bin/bash
# The ways to find the installed library: CMake's package, which says what is missing
# instead of ending the configuration, pkg-config, also after the copy was moved, and the
# version that all of them tell.
#
#   find_test.sh BUILD_DIR
# Flags of the build, such as those of the sanitizers, are taken from CXXFLAGS.
set -euo pipefail

tree=$(cd -P "${BASH_SOURCE[0]%/*}/../.." && pwd)
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

failures=0
# expect WHAT WANTED GOT
expect() {
    [[ $2 == "$3" ]] && return
    printf 'FAILED: %s\n--- wanted:\n%s\n--- got:\n%s\n' "$1" "$2" "$3" >&2
    failures=$((failures + 1))
}

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:[^=]*=//p' "$build/CMakeCache.txt")
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[^=]*=//p' "$build/CMakeCache.txt")
major=${version%%.*}

cmake --install "$build" --prefix "$work/first" --component dev >"$work/install.log"
mv "$work/first" "$work/moved"

# found LANGUAGES PACKAGE-ARGUMENTS [CMAKE-OPTION...]: what find_package() answers.
found() {
    local project=$work/found languages=$1 arguments=$2
    shift 2
    rm -rf "$project"
    mkdir "$project"
    cat >"$project/CMakeLists.txt" <<LISTS
cmake_minimum_required(VERSION 3.25)
project(found LANGUAGES $languages)
set(name mine)
set(languages mine)
set(dependency mine)
message(STATUS "begin")
find_package(TorvaMail $arguments)
message(STATUS "end")
file(WRITE \${CMAKE_BINARY_DIR}/variables "\${name} \${languages} \${dependency}")
message(STATUS "\${TorvaMail_FOUND} \${TorvaMail_VERSION} \${TorvaMail_NOT_FOUND_MESSAGE}")
LISTS
    cmake -S "$project" -B "$project/build" -DCMAKE_PREFIX_PATH="$work/moved" "$@" >"$work/log" 2>&1 ||
        echo "ended with status $?"
    sed -n '/^-- begin$/,/^-- Configuring/ { /^-- \(begin\|end\|Configuring.*\)$/d; s/^-- //; p }' "$work/log"
}

# A pkg-config that knows one module only.
for module in libmariadb sqlite3; do
    mkdir "$work/only-$module"
    cp "$(pkg-config --variable=pcfiledir "$module")/$module.pc" "$work/only-$module/"
done
# The modules that these ask for themselves are of no concern here.
sed -i '/^Requires/d' "$work"/only-*/*.pc

expect "found in silence" "1 $version " "$(found CXX QUIET)"
expect "the project's own variables" "mine mine mine" "$(<"$work/found/build/variables")"
expect "without MariaDB's client" \
    "0 $version TorvaMail needs libmariadb, which pkg-config does not find (Debian: libmariadb-dev)" \
    "$(PKG_CONFIG_PATH='' PKG_CONFIG_LIBDIR=$work/only-sqlite3 found CXX QUIET)"
expect "without SQLite" \
    "0 $version TorvaMail needs sqlite3, which pkg-config does not find (Debian: libsqlite3-dev)" \
    "$(PKG_CONFIG_PATH='' PKG_CONFIG_LIBDIR=$work/only-libmariadb found CXX QUIET)"
for dependency in Boost PkgConfig; do
    expect "without $dependency" \
        "0 $version TorvaMail could not be found because dependency $dependency could not be found." \
        "$(found CXX QUIET "-DCMAKE_DISABLE_FIND_PACKAGE_$dependency=ON")"
done
expect "in a project without C++" \
    "0 $version TorvaMail needs C++ to link, also in a C program: project(... LANGUAGES C CXX)" \
    "$(found C QUIET)"
[[ $(PKG_CONFIG_PATH='' PKG_CONFIG_LIBDIR=$work/only-sqlite3 found CXX REQUIRED) == \
    "ended with status 1"*"TorvaMail needs libmariadb"* ]] ||
    expect "required, without MariaDB's client" "an error that names it" "$(<"$work/log")"

expect "the same major version" "1 $version " "$(found CXX "$major.0 QUIET")"
for other in $((major - 1)) $((major + 1)); do
    answer=$(found CXX "$other QUIET")
    expect "major version $other" 0 "${answer%% *}"
done

# The same program as C and as C++, with a function of a C and of a C++ layer.
cat >"$work/program.c" <<'PROGRAM'
#include <stdio.h>
#include <torva/libc/escape.h>
#include <torva/version.h>

int main(void) {
    printf("%s %d.%d.%d %d\n", TORVA_MAIL_VERSION, TORVA_MAIL_VERSION_MAJOR,
           TORVA_MAIL_VERSION_MINOR, TORVA_MAIL_VERSION_PATCH, is_shell_safe("a b"));
    return 0;
}
PROGRAM
cat >"$work/program.cpp" <<'PROGRAM'
#include <iostream>
#include <torva/postfix/params/PostfixTool.h>
#include <torva/postfix/tables/DomainManager.h>
#include <torva/version.h>

// Never called: DomainManager needs every layer, and so both databases, to link.
void linked() { torva::mail::postfix::DomainManager().addAliasDomain("a", "b"); }

int main(int argc, char**) {
    if (argc > 1) {
        linked();
    }
    std::cout << TORVA_MAIL_VERSION << ' '
              << torva::mail::postfix::runTool({"/bin/echo", "hello"}).output;
}
PROGRAM
export PKG_CONFIG_PATH=$work/moved/$libdir/pkgconfig
read -ra flags <<<"${CXXFLAGS:-} -Wall -Wextra -Werror"
for static in --static ''; do
    read -ra package <<<"$(pkg-config --cflags --libs $static torva-mail)"
    g++ "${flags[@]}" -std=c++17 "$work/program.cpp" "${package[@]}" -o "$work/program" ||
        expect "g++ with pkg-config $static" "a program" "none"
    expect "C++ with pkg-config $static" "$version hello" "$("$work/program")"
    gcc "${flags[@]}" -std=c11 "$work/program.c" "${package[@]}" -o "$work/program" ||
        expect "gcc with pkg-config $static" "a program" "none"
    expect "C with pkg-config $static" "$version $version 0" "$("$work/program")"
done
expect "pkg-config's version" "$version" "$(pkg-config --modversion torva-mail)"
[[ "$(pkg-config --cflags --libs torva-mail)" != *"$work/first"* ]] ||
    expect "the moved copy" "no trace of where it was" "$(pkg-config --cflags --libs torva-mail)"

# A library directory of Debian's kind, one level deeper.
cmake -S "$tree" -B "$work/deeper" -DTORVA_TESTS=OFF -DCMAKE_INSTALL_LIBDIR=lib/some-linux-gnu \
    -DCMAKE_INSTALL_PREFIX=/usr >"$work/log" 2>&1 || expect "another libdir" "a configuration" "$(<"$work/log")"
mkdir -p "$work/usr/lib/some-linux-gnu/pkgconfig"
cp "$work/deeper/torva-mail.pc" "$work/usr/lib/some-linux-gnu/pkgconfig/"
PKG_CONFIG_PATH=$work/usr/lib/some-linux-gnu/pkgconfig
expect "prefix of a deeper library directory" "$work/usr" \
    "$(realpath -m "$(pkg-config --variable=prefix torva-mail)")"
expect "the deeper library directory" "$work/usr/lib/some-linux-gnu" \
    "$(realpath -m "$(pkg-config --variable=libdir torva-mail)")"

((failures == 0)) || exit 1
