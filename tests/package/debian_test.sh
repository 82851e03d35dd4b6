#!/bin/bash
# Makes the Debian packages, asks lintian, builds a program against the library's, and
# installs, uses and removes the tool's in the sandbox.
#
#   debian_test.sh BUILD_DIR
set -euo pipefail

tree=$(cd -P "${BASH_SOURCE[0]%/*}/../.." && pwd)
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

for program in dpkg-shlibdeps lintian man objdump; do
    command -v "$program" >/dev/null || {
        echo "SKIP: $program is not installed"
        exit 77
    }
done

cpack --config "$build/CPackConfig.cmake" -B "$work" >"$work/log" 2>&1 || fail "cpack: $(<"$work/log")"
tool=$(echo "$work"/torva-postfix_*.deb)
library=$(echo "$work"/libtorva-mail-dev_*.deb)

complaints=$(lintian "$tool" "$library" 2>&1) || true
[[ $complaints != *E:* ]] || fail "lintian: $complaints"

# The manuals, as the package has them: a container's dpkg may leave them out.
dpkg-deb -x "$tool" "$work/tool"
manuals=$(MANPATH=$work/tool/usr/share/man man -w torva-postfix-setup torva-postfixctl 2>&1) || true
[[ $manuals == */torva-postfix-setup.8.gz*/torva-postfixctl.8.gz ]] || fail "manuals: $manuals"

# The lock directories are root's from the boot on, before a user can make them. A path
# below /var/lock would lead through a link that not every host has.
directories=$(grep -v '^#' "$work/tool/usr/lib/tmpfiles.d/torva-postfix.conf")
[[ $directories == 'd /run/lock/files 0700 root root -'$'\n''d /run/lock/torva-postfix 0700 root root -' ]] ||
    fail "tmpfiles.d: $directories"

# Each shared library that the program asks for is there by a dependency.
depends=$(dpkg-deb -f "$tool" Depends)
needed=$(objdump -p "$work"/tool/usr/sbin/torva-postfix* | awk '$1 == "NEEDED" { print $2 }' | sort -u)
[[ $needed == *libc.so.6* ]] || fail "objdump tells of no library: $needed"
for name in $needed; do
    packages=$(dpkg -S "*/$name" | sed 's/:.*//')
    tr ',' '\n' <<<"$depends" | awk '{ print $1 }' | grep -qxF "$packages" || fail "$name of $packages: not in $depends"
done

# A program of docs/library.md, against the library where its package puts it.
dpkg-deb -x "$library" "$work/library"
mkdir "$work/consumer"
for language in cmake cpp; do
    awk -v fence="\`\`\`$language" '$0 == fence { inside = !done; next }
        $0 == "```" { if (inside) done = 1; inside = 0 } inside' "$tree/docs/library.md" >"$work/$language"
done
mv "$work/cmake" "$work/consumer/CMakeLists.txt"
mv "$work/cpp" "$work/consumer/consumer.cpp"
{ cmake -S "$work/consumer" -B "$work/consumer/build" -DCMAKE_PREFIX_PATH="$work/library/usr" &&
    cmake --build "$work/consumer/build"; } >"$work/log" 2>&1 || fail "a program against the library: $(<"$work/log")"
[[ -x $work/consumer/build/consumer ]] || fail "no program came of it: $(<"$work/log")"

# What the installed package has to be found for, without any option.
printf '#include <torva/libc/escape.h>\nint main(void) { return is_shell_safe("a b"); }\n' >"$work/consumer.c"

# The part in the sandbox. The package manager's own files are its own.
cat >"$work/world" <<'END'
set -euo pipefail
tree() { find /etc /usr /var /srv /opt -xdev \( -path /var/lib/dpkg -o -path /var/cache/man -o -path /var/log \) -prune -o \
    -printf '%y %m %U:%G %p %l\n' | sort; }
sums() { find /etc /var/spool/postfix -xdev -type f -print0 | sort -z | xargs -0 sha256sum; }
tell() { printf '== %s\n' "$1"; }
{ tree && sums; } >/run/before
tell install
dpkg -i "$1" 2>&1
tell locks
command -v systemd-tmpfiles || true
stat -c '%n %A %U %G' /run/lock/files /run/lock/torva-postfix 2>&1 || true
tell check
(cd / && torva-postfixctl check) || tell "check ended with $?"
tell preview
torva-postfixctl preview 2>&1
tell manuals
man -w torva-postfix-setup torva-postfixctl 2>&1 || true
tell remove
dpkg -P torva-postfix 2>&1
tell left
{ tree && sums; } | diff /run/before - || true
tell "apply and rollback"
dpkg -i "$1" >/dev/null 2>&1
torva-postfixctl apply
torva-postfixctl rollback
dpkg -P torva-postfix >/dev/null 2>&1
tell "left after that"
{ tree && sums; } | diff /run/before - || true
tell library
dpkg -i "$2" >/dev/null
cd "$3"
read -ra flags <<<"$(pkg-config --cflags --libs --static torva-mail)"
gcc -std=c11 consumer.c "${flags[@]}" -o consumer-in-c
./consumer-in-c
rm -rf consumer/build
{ cmake -S consumer -B consumer/build && cmake --build consumer/build; } >log 2>&1 || cat log
[[ -x consumer/build/consumer ]]
tell end
END
status=0
told=$("$tree/scripts/sandbox" --panel-accounts --with "$work" -- bash "$work/world" "$tool" "$library" "$work") || status=$?
((status != 77)) || exit 77
((status == 0)) || fail "in the sandbox, status $status: $told"
part() { awk -v heading="== $1" '/^== / { inside = $0 == heading; next } inside' <<<"$told"; }

locks=$(part locks)
[[ $locks != */systemd-tmpfiles* || $locks == *"/run/lock/files drwx------ root root"*"/run/lock/torva-postfix drwx------ root root" ]] ||
    fail "lock directories after the installation: $locks"
[[ $told != *"check ended with"* ]] || fail "check: $(part check)"
grep -q '^ok  *program .*, /usr/sbin/torva-postfix-setup$' <<<"$(part check)" || fail "check: $(part check)"
grep -qx '+ virtual_transport = torva_virtual' <<<"$(part preview)" || fail "preview: $(part preview)"
grep -qx '=== exit status of torva-postfix-setup: 0' <<<"$(part preview)" || fail "preview: $(part preview)"
grep -qs '^path-exclude.*/man' /etc/dpkg/dpkg.cfg /etc/dpkg/dpkg.cfg.d/* ||
    [[ $(part manuals) == */torva-postfix-setup.8.gz*/torva-postfixctl.8.gz ]] || fail "manuals: $(part manuals)"
[[ -z $(part left) ]] || fail "left after its removal: $(part left)"
# The lock files of a run stay, as its manual says.
left=$(part "left after that" | grep '^[<>]' | grep -v '^> [a-z] [0-7]* 0:0 /var/backups/torva-postfix\(/\| $\)') || true
[[ -z $left ]] || fail "left after apply, rollback and removal: $left"
grep -q ' /var/backups/torva-postfix/[0-9TZ]*/manifest ' <<<"$(part "left after that")" ||
    fail "no backup was left: $told"
[[ -z $(part library) ]] || fail "programs against the installed library: $(part library)"
