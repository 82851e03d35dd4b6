# shellcheck shell=bash
# The private world where root may make no namespaces (a plain container): a copy
# of what Postfix, the tool and a shell need, entered with chroot(8). It has no
# network and no /proc of its own. Sourced, never run. Needs world.sh and
# messages.sh.

# copy_empty DIR ROOT: DIR without its contents, mode and owner kept.
copy_empty() {
    mkdir -p "$2$1"
    chmod --reference="$1" "$2$1"
    chown --reference="$1" "$2$1"
}

# copy_listed ROOT: copies what it reads, absolute paths that each end in a null
# byte, to the same paths below ROOT. cp gives the parent directories the right
# modes only where it can look them up from its working directory.
copy_listed() { sed -z 's|^/||' | (cd / && xargs -0 -r cp -a --reflink=auto --parents -t "$1"); }

# copy_whole ROOT PATH...: each PATH that exists, to its own path below ROOT.
copy_whole() {
    local root=$1 path
    shift
    for path in "$@"; do
        [[ -e $path || -L $path ]] || continue
        printf '%s\0' "$path"
    done | copy_listed "$root"
}

# needed_libraries PROGRAM...: prints the shared libraries that they are linked to, by
# the paths that the loader finds them at and by those of the files behind the links.
needed_libraries() {
    local libraries
    mapfile -t libraries < <(
        ldd -- "$@" 2>/dev/null | awk '$2 == "=>" && $3 ~ "^/" { print $3 }' | sort -u)
    ((${#libraries[@]})) || return 0
    # Each file once: the loader names some by way of the link /lib.
    [[ ! -L /lib ]] || libraries=("${libraries[@]/#\/lib/\/usr\/lib}")
    {
        printf '%s\0' "${libraries[@]}"
        realpath -z -- "${libraries[@]}"
    } | sort -zu
}

# copy_programs ROOT PATH...: commands and shared libraries, /bin and /lib as links or as
# directories. A command of more than a megabyte is a compiler, an interpreter or a
# server, a library of more than four is theirs: they are copied only where Postfix, the
# shell or one of the files PATH cannot do without.
copy_programs() {
    local root=$1 libraries shell
    shift
    copy_whole "$root" /bin /sbin /lib /lib32 /lib64 /libx32
    for libraries in /usr/lib /usr/lib/*-linux-gnu*; do
        find "$libraries" -maxdepth 1 \( -name '*.so*' -o -name 'os-release' \) -size -4096k -print0
    done | copy_listed "$root"
    find /usr/bin /usr/sbin /usr/lib/locale /usr/lib64 -xdev ! -type d -size -1024k -print0 \
        2>/dev/null | copy_listed "$root" || true
    shell=$(realpath /bin/bash)
    copy_whole "$root" "$shell" /usr/lib/postfix /usr/share/postfix /usr/sbin/post*
    needed_libraries "$shell" /usr/sbin/post* /usr/lib/postfix/*.so* /usr/lib/postfix/sbin/* "$@" |
        copy_listed "$root"
    # From Debian 13 on, "postfix check" runs a script in Perl.
    if grep -qs '^#!.*perl' /usr/lib/postfix/*.pl; then
        copy_whole "$root" /usr/bin/perl /usr/lib/*-linux-gnu*/perl-base
    fi
    mkdir -p "$root/usr/local/bin" "$root/usr/local/sbin"
}

# copy_var ROOT: /var as a skeleton, Postfix's parts with it, but never its mail.
copy_var() {
    local root=$1 path
    for path in /var /var/*; do
        if [[ -L $path ]]; then
            cp -a "$path" "$root$path"
        elif [[ -d $path ]]; then
            copy_empty "$path" "$root"
        fi
    done
    copy_whole "$root" /var/lib/postfix
    [[ -d /var/spool/postfix ]] || return 0
    copy_empty /var/spool "$root"
    copy_empty /var/spool/postfix "$root"
    for path in /var/spool/postfix/*; do
        case ${path##*/} in
            etc | lib | usr | dev | torva | restart) copy_whole "$root" "$path" ;;
            *) [[ ! -d $path ]] || copy_empty "$path" "$root" ;;
        esac
    done
}

# copy_checkout ROOT TREE: the checkout without its history and build folders.
copy_checkout() {
    local path
    mkdir -p "$1$2"
    for path in "$2"/*; do
        [[ ${path##*/} == build ]] || cp -a "$path" "$1$path"
    done
}

# is_safe_place DIR: whether nobody but root can put anything else in the place of what root
# makes in DIR. su(1) leaves the TMPDIR of the user.
is_safe_place() {
    local dir owner mode
    dir=$(realpath -e -- "$1" 2>/dev/null) || return
    while [[ -n $dir ]]; do
        read -r owner mode < <(stat -c '%u %a' -- "$dir")
        ((owner == 0 && ((8#$mode & 8#22) == 0 || (8#$mode & 8#1000) != 0))) || return
        dir=${dir%/*}
    done
}

# make_chroot: makes the empty root of the copy, with devices that open, and sets
# `root` to it. It is in a directory that only root may enter, because nobody outside
# may use its copies of password files and set-user-ID programs.
make_chroot() {
    local base holder
    for base in "${TMPDIR:-/tmp}" /var/tmp /tmp /root; do
        is_safe_place "$base" || continue
        holder=$(mktemp -d "$base/torva-sandbox.XXXXXX" 2>/dev/null) || continue
        root=$(cd -P "$holder" && pwd)/root
        mkdir -m 755 "$root"
        mkdir "$root"/{dev,proc,sys,run,mnt,media,srv,opt,home,etc}
        mkdir -m 1777 "$root/tmp"
        mkdir -m 700 "$root/root"
        if make_devices "$root" mknod 2>/dev/null; then return; fi
        remove_chroot
    done
    root=
    skip "nor may root make device nodes for a chroot"
}

# fill_chroot ROOT TREE PATH...: copies what the world needs: programs, Postfix, the
# checkout TREE, and each PATH whole.
fill_chroot() {
    local root=$1
    copy_programs "$root" "${@:3}"
    copy_var "$root"
    cp -a /etc/. "$root/etc/"
    copy_checkout "$root" "$2"
    copy_whole "$root" "${@:3}"
    make_run "$root"
}

# processes_in_chroot: prints the ids of the processes whose root is `root`.
processes_in_chroot() {
    local link
    for link in /proc/[0-9]*/root; do
        if [[ $(readlink "$link" 2>/dev/null) == "$root" ]]; then
            link=${link%/root}
            printf '%s\n' "${link##*/}"
        fi
    done
}

# end_processes: ends what still runs in the copy, however often it forks.
end_processes() {
    local pids round
    for round in 1 2 3 4 5; do
        mapfile -t pids < <(processes_in_chroot)
        ((${#pids[@]})) || break
        kill -KILL "${pids[@]}" || true
        sleep "0.$round"
    done
    wait || true
}

# remove_chroot: the end of the world, and of its copy.
remove_chroot() {
    [[ -n ${root:-} ]] || return 0
    # Without messages about processes that ended by themselves or were killed.
    end_processes 2>/dev/null
    rm -rf --one-file-system "${root%/root}"
    root=
}

# enter_chroot DIR COMMAND...: runs COMMAND in `root`, from DIR where that exists.
# In the background, because a trap runs only while the shell waits; env restores the two
# signals that the shell ignores in background commands.
enter_chroot() {
    chroot "$root" /usr/bin/env --default-signal=INT,QUIT /bin/bash -c \
        'cd "$0" 2>/dev/null || cd /; exec -- "$@"' "$@" <&0 &
    wait $!
}
