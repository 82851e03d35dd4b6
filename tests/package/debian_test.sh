#!/bin/bash
# What the files of debian/ say agrees with the rest of the tree. What the packages do is
# shown by prove/packages/.
#     debian_test.sh TEST BUILD_DIR
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/../run/shell_test.sh"

# need_program NAME...
need_program() {
    local name
    for name; do command -v "$name" >/dev/null || skip_test "$name is not installed"; done
}

# field PACKAGE NAME: the names in that field of debian/control, for the source package
# with an empty PACKAGE; without versions and substitutions, one a line.
field() {
    awk -v package="$1" -v name="$2" '
        /^$/ { found = 0 }
        $1 == "Source:" && package == "" || $1 == "Package:" && $2 == package { found = 1 }
        /^[^ ]/ { inside = found && $1 == name ":"; sub(/^[^ ]*/, "") }
        inside' "$checkout/debian/control" |
        tr ',' '\n' | sed 's/^ *//; s/ .*//' | grep -v '^$\|^\${' | sort
}

test_version_is_the_same_wherever_it_is_told() {
    local build=$1 version page
    version=$(sed -n 's/^CMAKE_PROJECT_VERSION:[^=]*=//p' "$build/CMakeCache.txt")
    expect_equal "debian/changelog" "$version" "$(sed -n '1s/.*(\(.*\)).*/\1/p' "$checkout/debian/changelog")"
    for page in "$checkout"/man/*; do
        expect_equal "${page##*/}" "torva-postfix $version" "$(sed -n '1s/^\.TH [^"]*"\([^"]*\)".*/\1/p' "$page")"
    done
    expect_contains "torva/version.h" "TORVA_MAIL_VERSION \"$version\"" "$(<"$build/include/torva/version.h")"
    expect_equal "torva-postfixctl --version" "torva-postfixctl $version" \
        "$("$build/bin/torva-postfixctl" --version)"
    expect_equal "versions of packages in README.md and docs/" "_${version}_" \
        "$(grep -hoE '_[0-9]+(\.[0-9]+)+_' "$checkout/README.md" "$checkout/docs/library.md" | sort -u)"
}

test_build_dependencies_are_what_the_scripts_install() {
    # A compiler is part of every Debian build.
    local wanted
    wanted=$(bash -c 'source "$1"; printf "%s\n" "${packages_to_build[@]}"' - "$checkout/scripts/lib/packages.sh" |
        grep -vx 'g++' | sort)
    expect_equal "Build-Depends" "$wanted" \
        "$(field '' Build-Depends | grep -v '^debhelper-compat$\|^libg\(test\|mock\)-dev$')"
    expect_equal "those of the tests" "libgmock-dev
libgtest-dev" "$(grep -oE '^ libg(test|mock)-dev <pkg\.torva-postfix\.tests>,$' "$checkout/debian/control" | sed 's/^ //; s/ .*//')"
}

# packages_of NAME...: a line "NAME PACKAGE" for each program of this machine that a package
# has, by the path that dpkg knows: /bin may be a link to /usr/bin.
packages_of() {
    local name path owners
    for name; do
        path=$(realpath -e "$(PATH=/usr/sbin:/usr/bin:/sbin:/bin command -v "$name")")
        printf '%s %s\n%s %s\n' "$name" "$path" "$name" "${path#/usr}"
    done >"$scratch/paths"
    owners=$(cut -d' ' -f2 "$scratch/paths" | xargs dpkg -S 2>/dev/null) || true
    sed -n 's/^\([a-z0-9+.-]*\)[^ ]*: /\1 /p' <<<"$owners" |
        awk 'NR == FNR { package[$2] = $1; next } $2 in package { print $1, package[$2] }' - "$scratch/paths"
}

# called_programs: what the installed scripts have where a command stands, and what the
# sources start, as far as it is a program on this machine.
called_programs() {
    local name
    {
        sed -E 's/^ *#.*//; s/^ +//; s/\$?\(|\|\|?|&&|;|\{|'\''|(^| )(--|!|do|then|else|if|while|exec|local [a-z]+=)( |$)/\n/g' \
            "$checkout"/scripts/{sandbox,lib/{messages,world,namespaces,chroot}.sh} |
            sed -E 's/^ +//; s/ .*//'
        find "$checkout"/{app,ctl,torva} -name '*.cpp' \
            -exec grep -hoE '\{"[a-z0-9-]+"|"/usr/s?bin/[a-z0-9-]+' {} + | sed 's/"$//; s/.*["/]//'
    } | grep -xE '[a-z][a-z0-9-]+' | sort -u | while read -r name; do
        if [[ $(PATH=/usr/sbin:/usr/bin:/sbin:/bin type -t "$name") == file ]]; then echo "$name"; fi
    done
}

test_each_program_that_is_called_is_depended_on() {
    need_program dpkg-query ip diff
    make_scratch
    local name package called depends essential packages wrong=''
    # Started only where the host has it; "route" is a word of ip's, "file" one of a list.
    local other='systemctl|mariadb|mysql|route|file'
    called=$(called_programs)
    depends=$(field torva-postfix Depends)
    # What every Debian system has; base-files brings one awk or the other.
    essential=$(dpkg-query -W -f '${Package} ${Essential}\n' | sed -n 's/ yes$//p')$'\nmawk\ngawk\noriginal-awk'
    for name in awk chroot cp diff find hostname ip mount postalias postconf postmap script setpriv umount unshare; do
        grep -qxF "$name" <<<"$called" || fail "$name is called, and this test does not see it"
    done
    # shellcheck disable=SC2046 # names without blanks
    packages=$(packages_of $(grep -vxE "$other" <<<"$called"))
    while read -r name; do
        package=$(sed -n "s/^$name //p" <<<"$packages" | head -n 1)
        grep -qxF -- "$package" <<<"$depends"$'\n'"$essential" || wrong+="$name of ${package:-no package}; "
    done < <(grep -vxE "$other" <<<"$called")
    [[ -z $wrong ]] || fail "called, and not in Depends: $wrong"
}

test_each_dependency_has_a_program_that_is_called() {
    need_program dpkg-query ip
    local package called
    called=$(called_programs)
    while read -r package; do
        dpkg -L "$package" | sed -n 's|.*/s\?bin/||p' | sort | comm -12 - <(echo "$called") | grep -q . ||
            fail "nothing of $package is called"
    done < <(field torva-postfix Depends)
}

test_source_package_has_the_sources_and_nothing_that_work_in_the_checkout_leaves() {
    need_program dpkg-source
    make_scratch
    local copy=$scratch/torva-postfix names
    mkdir -p "$copy/build/releases/trixie" "$copy/.git" "$copy/app"
    cp -a "$checkout/debian" "$copy/"
    touch "$copy/build/releases/trixie/program" "$copy/.git/config" "$copy/app/main.cpp"
    (cd "$scratch" && dpkg-source --build torva-postfix) >"$scratch/log" 2>&1 || fail "$(<"$scratch/log")"
    names=$(tar -tf "$scratch"/torva-postfix_*.tar.xz | sed -n 's|^torva-postfix/\([^/]*\)/.*|\1|p' | sort -u)
    expect_equal "folders" "app"$'\n'"debian" "$names"
}

test_lintian_has_nothing_to_say_about_the_source_package() {
    need_program dpkg-source lintian
    make_scratch
    local complaints
    mkdir "$scratch/torva-postfix"
    tar -C "$checkout" --exclude=./build --exclude='./obj-*' --exclude=./.git -cf - . | tar -C "$scratch/torva-postfix" -xf -
    (cd "$scratch" && dpkg-source --build torva-postfix) >"$scratch/log" 2>&1 || fail "$(<"$scratch/log")"
    # What the oldest release needs, and later ones call old or superfluous. Lintian fails
    # when it is told to leave out a tag that it does not know.
    local needed='out-of-date-standards-version|package-uses-old-debhelper-compat-version'
    needed+='|redundant-priority-optional-field|redundant-rules-requires-root-no-field'
    complaints=$(lintian --allow-root --pedantic --display-info "$scratch"/*.dsc 2>&1 |
        grep -vE "^[IP]: torva-postfix source: ($needed)( |\$)") || true
    expect_equal "lintian" "" "$complaints"
}

run_tests "$@"
