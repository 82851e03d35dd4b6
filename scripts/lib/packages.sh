# shellcheck shell=bash
# Debian packages: which ones are needed for what, and their installation without
# starting any server. Sourced, never run. Needs messages.sh.

# shellcheck disable=SC2034 # for the scripts that source this
{
    packages_to_build=(g++ cmake ninja-build pkgconf libboost-dev libboost-filesystem-dev
        libmariadb-dev libsqlite3-dev libssl-dev libarchive-dev libcli11-dev nlohmann-json3-dev)
    packages_to_run=(postfix postfix-pcre iproute2 mount bsdutils util-linux hostname diffutils)
    packages_to_test=(libgtest-dev libgmock-dev libbenchmark-dev mariadb-server python3 procps
        clang libclang-rt-dev clang-format clang-tidy shellcheck man-db debhelper lintian
        dpkg-dev strace libsasl2-modules openssl)
    packages_for_releases=(debootstrap git)
    packages_for_packages=(build-essential debhelper dpkg-dev git lintian man-db)
}

policy=/usr/sbin/policy-rc.d
policy_mark="# put here by torva-postfix while it installs packages"

# missing_packages PACKAGE...: prints those that are not installed, one a line.
missing_packages() {
    local package states
    # It fails when it has never heard of one of them.
    states=$(dpkg-query -W -f '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null) || true
    for package in "$@"; do
        grep -qxF "$package installed" <<<"$states" || printf '%s\n' "$package"
    done
}

# ensure_packages PACKAGE...: installs those that are missing. If none is, it does nothing,
# and contacts no package host.
ensure_packages() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    ((${#missing[@]})) || return 0
    [[ -x $(command -v apt-get) ]] ||
        die "not installed: ${missing[*]}; and apt-get is missing: this is not a Debian system"
    warn "installing: ${missing[*]}"
    install_packages "${missing[@]}" || die "could not install: ${missing[*]}"
}

# install_packages PACKAGE...: in its own shell, which removes the policy when it ends,
# whatever happens.
install_packages() (
    trap 'exit 129' HUP
    trap 'exit 130' INT
    trap 'exit 143' TERM
    forbid_server_start || exit
    export DEBIAN_FRONTEND=noninteractive
    apt-get -q -o DPkg::Lock::Timeout=300 update >&2 ||
        warn "the package lists are not up to date; trying what is there"
    # Better an error than the removal of another mail server from this machine.
    apt-get -q -y -o DPkg::Lock::Timeout=300 install --no-install-recommends --no-remove "$@" >&2
)

# forbid_server_start: makes invoke-rc.d and its like start nothing (exit status
# 101 means "forbidden") until this shell ends. A policy of the machine's own is
# left as it is; one that a killed run of ours left behind is taken over.
forbid_server_start() {
    if [[ -e $policy || -L $policy ]]; then
        grep -qxF "$policy_mark" "$policy" 2>/dev/null || return 0
    fi
    trap 'rm -f "$policy"' EXIT
    printf '#!/bin/sh\n%s\nexit 101\n' "$policy_mark" >"$policy" && chmod 755 "$policy"
}

# ensure_postfix: says so first when the machine has none.
ensure_postfix() {
    [[ -n $(missing_packages postfix) ]] || return 0
    warn "Postfix is not installed; installing Debian's package, without starting a mail server"
    ensure_packages postfix
    warn "Postfix stays installed; to keep it from starting with the next boot: systemctl disable postfix"
}
