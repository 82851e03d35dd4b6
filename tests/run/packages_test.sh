#!/bin/bash
# What scripts/lib/packages.sh promises. Inside the sandbox, small programs replace
# dpkg-query and apt-get, and write down what they are asked to do.
set -euo pipefail
source "${BASH_SOURCE[0]%/*}/shell_test.sh"

# in_sandbox TEXT: runs TEXT there. Installed are the packages of the file
# /run/installed. apt-get writes its arguments, its front end and whether servers
# may start to /run/calls, installs, and ends with the status in /run/status.
in_sandbox() {
    "$sandbox" --loopback-only -- bash -euo pipefail -c '
        cat >/usr/local/bin/dpkg-query <<"END"
#!/bin/bash
shift 3 # -W -f FORMAT
for package; do
    if grep -qx "$package" /run/installed; then echo "$package installed"; else echo "$package config-files"; fi
done
exit 1 # as for a package that dpkg has never heard of
END
        cat >/usr/local/bin/apt-get <<"END"
#!/bin/bash
words=$(printf " %s" "$@"); words=${words// -q/}; words=${words// -y/}
words=${words// -o DPkg::Lock::Timeout=300/}
policy=0
[[ ! -x /usr/sbin/policy-rc.d ]] || /usr/sbin/policy-rc.d || policy=$?
echo "apt-get$words; $DEBIAN_FRONTEND; policy $policy" >>/run/calls
[[ $words == *" install "* ]] || exit 0
[[ ! -e /run/on_install ]] || source /run/on_install
[[ ! -e /run/status ]] || exit "$(cat /run/status)"
printf "%s\n" ${words#* --no-remove } >>/run/installed
END
        chmod 755 /usr/local/bin/dpkg-query /usr/local/bin/apt-get
        PATH=/usr/local/bin:$PATH
        rm -f /usr/sbin/policy-rc.d
        printf "%s\n" one two >/run/installed
        : >/run/calls
        source "$0/lib/messages.sh"; source "$0/lib/packages.sh"
        '"$1" "$checkout/scripts" 2>&1
}

update="apt-get update; noninteractive; policy 101"

test_nothing_missing_runs_no_apt() {
    need_namespaces
    expect_equal "output and calls" "" "$(in_sandbox 'ensure_packages one two; cat /run/calls')"
}

test_only_what_is_missing_is_installed_without_questions_or_servers() {
    need_namespaces
    expect_equal "calls" "$update
apt-get install --no-install-recommends --no-remove three four; noninteractive; policy 101" \
        "$(in_sandbox 'ensure_packages one three two four 2>/dev/null; cat /run/calls')"
}

test_policy_is_gone_afterwards() {
    need_namespaces
    expect_equal "policy" "" \
        "$(in_sandbox 'ensure_packages three 2>/dev/null; ls /usr/sbin | grep policy-rc || true')"
}

test_failed_installation_is_told_and_leaves_no_policy() {
    need_namespaces
    expect_equal "output" "scripts: installing: three
scripts: could not install: three
status 1" "$(in_sandbox '
        echo 100 >/run/status
        (ensure_packages three) || echo "status $?"
        ls /usr/sbin | grep policy-rc || true')"
}

test_terminated_installation_leaves_no_policy() {
    need_namespaces
    expect_equal "policy" "was there" "$(in_sandbox '
        echo "[[ ! -e /usr/sbin/policy-rc.d ]] || echo was there >/run/seen; kill -TERM \$PPID" \
            >/run/on_install
        (ensure_packages three) 2>/dev/null || true
        cat /run/seen
        ls /usr/sbin | grep policy-rc || true')"
}

test_policy_of_the_machine_stays() {
    need_namespaces
    expect_equal "policy" "#!/bin/sh
exit 104" "$(in_sandbox '
        printf "#!/bin/sh\nexit 104\n" >/usr/sbin/policy-rc.d; chmod 755 /usr/sbin/policy-rc.d
        ensure_packages three 2>/dev/null
        cat /usr/sbin/policy-rc.d')"
}

test_policy_left_by_a_killed_run_is_taken_over() {
    need_namespaces
    expect_equal "policy" "left" "$(in_sandbox '
        echo "kill -KILL \$PPID" >/run/on_install
        (ensure_packages three) >/dev/null 2>&1 || true
        [[ ! -e /usr/sbin/policy-rc.d ]] || echo left
        rm /run/on_install
        ensure_packages four 2>/dev/null
        ls /usr/sbin | grep policy-rc || true')"
}

test_system_without_apt_is_told() {
    need_namespaces
    expect_equal "output" \
        "scripts: not installed: three; and apt-get is missing: this is not a Debian system" \
        "$(in_sandbox 'rm -f /usr/bin/apt-get /usr/local/bin/apt-get; hash -r
            (ensure_packages three) || true')"
}

test_missing_postfix_is_told_first() {
    need_namespaces
    expect_equal "output" \
        "scripts: Postfix is not installed; installing Debian's package, without starting a mail server
scripts: installing: postfix
scripts: Postfix stays installed; to keep it from starting with the next boot: systemctl disable postfix" \
        "$(in_sandbox 'ensure_postfix')"
}

test_installed_postfix_is_not_mentioned() {
    need_namespaces
    expect_equal "output and calls" "" \
        "$(in_sandbox 'echo postfix >>/run/installed; ensure_postfix; cat /run/calls')"
}

run_tests "$@"
