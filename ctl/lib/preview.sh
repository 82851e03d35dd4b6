# shellcheck shell=bash disable=SC2154 # the variables of torva-postfixctl
# The verb "preview": the run in a private world that looks like this host. Sourced, never run.

preview() {
    local options=() flags=() statuses=(0 0)
    [[ -x $tool ]] || die "there is no $tool: build it, or install the package"
    [[ -z $keep ]] || { mkdir -p "$keep" && [[ -z $(ls -A "$keep") ]]; } || die "$keep is not empty"
    [[ ! -d /run/mysqld ]] || options=(--with /run/mysqld) # the panel's database answers there
    [[ $json == no ]] || flags=(--json)
    { # Descriptor 3 brings the resulting files out; 4 is our own output.
        "$base/scripts/sandbox" --or-chroot --loopback-only --with "$tool" "${options[@]}" "${panel[@]}" -- "$self" \
            "${flags[@]}" preview --inside "$(uname -n)" "$(hostname -f 2>/dev/null | head -n 1)" \
            "$(ip -o address show | awk '{ print $2, $4 ($3 == "inet6" ? " nodad" : "") }')" \
            3>&1 >&4 4>&- | if [[ -n $keep ]]; then tar -xp -C "$keep"; else cat >/dev/null; fi || statuses=("${PIPESTATUS[@]}")
    } 4>&1
    ((statuses[1] == 0)) || die "the files could not be kept in $keep"
    exit "${statuses[0]}"
}

# preview_inside NODE FQDN ADDRESSES: the part that runs in the private copy.
preview_inside() {
    [[ -n ${TORVA_SANDBOX:-} ]] || die "--inside is for this script's own use"
    imitate_host "$@"
    ask_postfix
    [[ $TORVA_SANDBOX != namespaces ]] || cover_rest
    make_backup preview # what the run is measured by
    postconf -n >"$scratch/before" 2>/dev/null || true
    heading torva-postfix-setup
    perform_run
    postconf -n >"$scratch/after" 2>/dev/null || true
    show_changes "$state/$made/tree"
    check_outcome
    touched_files | sed -z 's/^/./' | tar -c -C / --null --no-recursion -T - >&3
    emit '%.0s\n=== exit status of torva-postfix-setup: %s\n' change exit status "$status"
    exit "$status"
}

# imitate_host NODE FQDN ADDRESSES: the names and addresses that the run and Postfix ask for.
imitate_host() {
    local name address nodad peer=0
    printf '127.0.0.1 localhost\n%s\n' "${2:+127.0.1.1 $2 $1}" >/etc/hosts
    [[ $TORVA_SANDBOX == namespaces ]] || return 0
    hostname "$1" && ip address flush dev lo
    while read -r name address nodad; do
        ip link show "$name" >/dev/null 2>&1 || ip link add "$name" type dummy 2>/dev/null ||
            ip link add "$name" type veth peer name "peer$((peer += 1))"
        ip link set "$name" addrgenmode none 2>/dev/null || true # no address of its own making
        { ip link set "$name" up && ip address add "$address" dev "$name" ${nodad:+nodad}; } ||
            warn "the private copy has no $name with $address: mynetworks may differ"
    done <<<"$3"
}

# cover_rest: makes private, too, what lies outside the directories that already are.
cover_rest() {
    local path
    while read -r path; do
        if path=${path%/*} && [[ -d $path ]] && ! is_private "$path/"; then
            cover_with_overlay "$path" "/run/tmp/over/${#overlaid[@]}" "$path" || die "$path cannot be made private"
            overlaid+=("$path")
        fi
    done <<<"$(touched_paths && printf '%s/.\n' "$queue" "$(postconf -h data_directory)")"
    mount -o remount,bind,ro / 2>/dev/null || true # rather an error than a change of the host
}

# touched_files: all files and links that a run may have changed, each ended by a null byte.
touched_files() { touched_paths | while read -r path; do ! exists "$path" || find "$path" ! -type d -print0; done | sort -zu; }

# show_changes TREE: between the backup and what there is now.
show_changes() {
    local name old new path kind text result=0
    heading "main.cf: settings that differ (postconf -n)"
    while IFS=$'\001' read -r name old new; do
        [[ -z $name ]] || emit "%.0s%.0s${old:+- $name = }%s${old:+\n}+ $name = %s\n" change setting name "$name" \
            before "$old" after "$new"
    done <<<"$(awk -f "$lib/settings.awk" "$scratch"/{before,after} | sort)"
    heading master.cf
    path=$(realpath "$config/master.cf")
    text=$(diff -u --label before --label after "$1$path" "$path" 2>&1) || true
    emit '%.0s%s\n' change master.cf diff "${text:-(no difference)}"
    heading "files created or changed"
    touched_files | while IFS= read -r -d '' path; do
        [[ -e $1$path ]] && kind=changed || kind=created
        cmp -s "$1$path" "$path" || emit '%-8s %s %-16s %9s %s\n' change "$kind" \
            mode "$(stat -c %A "$path")" owner "$(stat -c %U:%G "$path")" bytes "$(stat -c %s "$path")" path "$path"
    done
    heading "postfix check, and what it does not see"
    text=$(postfix_check) || result=$?
    emit "%.0sexit status %s${text:+: }%s\n" change postfix-check status "$result" text "$text"
}
