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
    local root=$1 way=$2 name
    for name in null zero full random urandom tty; do
        [[ -c /dev/$name ]] || continue
        if [[ $way == bind ]]; then
            rm -f "$root/dev/$name"
            : >"$root/dev/$name"
            mount --bind "/dev/$name" "$root/dev/$name"
        else
            # shellcheck disable=SC2046 # two numbers, two words
            mknod -m 666 "$root/dev/$name" c $(stat -c '%Hr %Lr' "/dev/$name") || return
            # A node on a file system mounted "nodev" exists, but does not open.
            [[ $name == tty ]] || head -c 0 "$root/dev/$name" 2>/dev/null || return
        fi
    done
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
    local id=31000
    while cut -d: -f3 "$1/etc/passwd" "$1/etc/group" | grep -qx "$id"; do id=$((id + 1)); done
    printf '%s\n' "$id"
}

# add_account ROOT NAME HOME: a system account and its group, written straight
# into the files: a known result, whatever the machine's useradd settings are.
add_account() {
    local root=$1 name=$2 home=$3 id
    id=$(free_id "$root")
    if ! grep -q "^$name:" "$root/etc/group"; then
        printf '%s:x:%s:\n' "$name" "$id" >>"$root/etc/group"
    fi
    if ! grep -q "^$name:" "$root/etc/passwd"; then
        printf '%s:x:%s:%s::%s:/usr/sbin/nologin\n' "$name" "$id" \
            "$(grep "^$name:" "$root/etc/group" | cut -d: -f3)" "$home" >>"$root/etc/passwd"
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
    owner=$(grep '^popuser:' "$root/etc/passwd" | cut -d: -f3,4)
    mkdir -p "$root/var/qmail/mailnames"
    chown "$owner" "$root/var/qmail/mailnames"
}

# drop_host_sockets ROOT: removes the sockets and FIFOs of the machine's own Postfix.
# Through an overlay, a connection would reach the process that listens.
drop_host_sockets() {
    local dir
    for dir in "$1"/var/spool/postfix/{public,private,dev}; do
        [[ -d $dir ]] && find "$dir" -xdev \( -type s -o -type p \) -delete
    done
    return 0
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
    ip address add "$world_address/24" dev eth0
    ip link set eth0 up
    ip -n outside address add "$world_outside_address/24" dev eth0
    ip -n outside link set lo up
    ip -n outside link set eth0 up
}
