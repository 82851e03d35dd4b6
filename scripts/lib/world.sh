# shellcheck shell=bash
# The pieces of a private world: a root's devices, accounts, names, network. Each
# function takes the root it works on as its first argument ("" for the root of
# the namespace that it already runs in). What is mounted over the host is in
# namespaces.sh, what is copied in chroot.sh. Sourced, never run.

world_address=192.0.2.10
world_outside_address=192.0.2.20

# make_devices ROOT bind|mknod: fills the empty directory ROOT/dev with the few
# devices that programs count on. "/dev/log" is left out on purpose: through it
# the machine's own syslog would be written to.
make_devices() {
    local root=$1 way=$2 name names=()
    for name in null zero full random urandom tty; do
        [[ ! -c /dev/$name ]] || names+=("$name")
    done
    if [[ $way == bind ]]; then
        for name in "${names[@]}"; do
            rm -f "$root/dev/$name"
            : >"$root/dev/$name"
            mount --bind "/dev/$name" "$root/dev/$name"
        done
    else
        # Nodes, also of what is a link here: chmod would follow it to a device of the machine.
        cp -RL "${names[@]/#//dev/}" "$root/dev/" || return
        chmod 666 "${names[@]/#/$root/dev/}" || return
        # A node on a file system mounted "nodev" exists, but does not open.
        for name in "${names[@]}"; do
            [[ $name == tty ]] || { true <"$root/dev/$name"; } 2>/dev/null || return
        done
    fi
    ln -s /proc/self/fd "$root/dev/fd"
    ln -s /proc/self/fd/0 "$root/dev/stdin"
    ln -s /proc/self/fd/1 "$root/dev/stdout"
    ln -s /proc/self/fd/2 "$root/dev/stderr"
    mkdir -m 1777 "$root/dev/shm"
}

# make_run ROOT: fills the empty directory ROOT/run. "/var/lock" and "/var/run"
# lead there, so it holds every lock file and socket.
make_run() {
    mkdir -m 1777 "$1/run/lock" "$1/run/tmp"
    if getent passwd mysql >/dev/null; then
        install -d -o mysql -g root -m 755 "$1/run/mysqld"
    fi
}

# write_names ROOT ADDRESS NAME ALIAS...: makes "hostname -f" answer NAME without a
# network. The files are replaced, because in a container they are mounts.
write_names() {
    local root=$1 address=$2
    shift 2
    rm -f "$root/etc/hosts" "$root/etc/resolv.conf"
    printf '127.0.0.1 localhost\n::1 localhost ip6-localhost ip6-loopback\n%s %s\n' \
        "$address" "$*" >"$root/etc/hosts"
    printf '# no name servers: a query fails at once\n' >"$root/etc/resolv.conf"
}

# free_id ROOT: prints an id that is neither a user's nor a group's.
free_id() {
    local file id taken=' '
    for file in "$1"/etc/{passwd,group}; do
        while IFS=: read -r _ _ id _; do taken+="$id "; done <"$file"
    done
    id=31000
    while [[ $taken == *" $id "* ]]; do id=$((id + 1)); done
    printf '%s\n' "$id"
}

# id_of FILE NAME: prints the id of the account NAME in a password or group file, if it is there.
id_of() {
    local name id
    while IFS=: read -r name _ id _; do
        [[ $name == "$2" ]] || continue
        printf '%s\n' "$id"
        return
    done <"$1"
}

# add_account ROOT NAME HOME: a system account and its group, written straight
# into the files: a known result, whatever the machine's useradd settings are.
add_account() {
    local root=$1 name=$2 home=$3 id group
    id=$(free_id "$root")
    group=$(id_of "$root/etc/group" "$name")
    if [[ -z $group ]]; then
        group=$id
        printf '%s:x:%s:\n' "$name" "$group" >>"$root/etc/group"
    fi
    if [[ -z $(id_of "$root/etc/passwd" "$name") ]]; then
        printf '%s:x:%s:%s::%s:/usr/sbin/nologin\n' "$name" "$id" "$group" "$home" >>"$root/etc/passwd"
        printf '%s:*:19000:0:99999:7:::\n' "$name" >>"$root/etc/shadow"
    fi
}

# add_panel ROOT: the accounts and directories that the panel's installer has made
# before it runs the tool. No panel configuration file: the defaults hold.
add_panel() {
    local root=$1 owner
    add_account "$root" popuser /var/qmail/popuser
    add_account "$root" mhandlers-user /nonexistent
    add_account "$root" mailman /nonexistent
    mkdir -p "$root/etc/kra" "$root/usr/lib/torva-9.0" "$root/usr/local/kra/var"
    owner=$(awk -F: '$1 == "popuser" { print $3 ":" $4; exit }' "$root/etc/passwd")
    install -d -m 755 -o "${owner%:*}" -g "${owner#*:}" "$root/var/qmail/mailnames"
}

# drop_host_sockets ROOT: removes the sockets and FIFOs of the machine's own Postfix.
# Through an overlay, a connection would reach the process that listens.
drop_host_sockets() {
    local dir dirs=()
    for dir in "$1"/var/spool/postfix/{public,private,dev}; do
        [[ ! -d $dir ]] || dirs+=("$dir")
    done
    ((${#dirs[@]} == 0)) || find "${dirs[@]}" -xdev \( -type s -o -type p \) -delete
}

# make_veth_pair: eth0 as one end of a pair, whose other end is in the nested network
# namespace "outside". Fails on a kernel without either. With hardware addresses of its
# choice, the kernel would give each world another IPv6 address.
make_veth_pair() {
    ip netns add outside &&
        ip link add eth0 address 02:00:00:00:00:10 type veth \
            peer name eth0 address 02:00:00:00:00:20 netns outside
}

# make_network: gives both ends of the pair their addresses. "outside" is the place
# of a foreign client: nsenter --net=/run/netns/outside COMMAND...
make_network() {
    ip -batch - <<END
address add $world_address/24 dev eth0
link set eth0 up
END
    ip -n outside -batch - <<END
address add $world_outside_address/24 dev eth0
link set lo up
link set eth0 up
END
}
