# shellcheck shell=bash
# The private world as namespaces of this process: overlays over the machine's
# directories, whose changes are kept on a tmpfs that goes with the namespace. All of
# it runs inside the new mount namespace; nothing here needs to be undone. Sourced,
# never run. Needs world.sh and messages.sh.

# The directories whose changes stay private. /run and /dev are private as well,
# and start empty.
overlaid=(/etc /var /usr)

# namespaces_refused: prints why root may not have a private world here; prints
# nothing and fails when it may.
namespaces_refused() {
    local reason
    # The inner commands are those that a container's security profile may forbid
    # even where unshare itself is allowed.
    if reason=$(unshare --mount --net --pid --uts --fork --kill-child --propagation private -- \
        sh -c 'mount -t tmpfs none /tmp && mount -t proc proc /proc && hostname sandbox' 2>&1); then
        return 1
    fi
    printf '%s\n' "${reason//$'\n'/; }"
}

# scratch_place: an existing directory to mount the working tmpfs on while the
# world is built. Nothing on the machine is created for it.
scratch_place() {
    local dir
    for dir in /mnt /media /srv /opt; do
        if [[ -d $dir && ! -L $dir ]]; then
            printf '%s\n' "$dir"
            return
        fi
    done
    die "none of /mnt, /media, /srv, /opt exists: no place to build the world on"
}

# mounts_below DIR: the mount points below DIR, parents first, one a line. Without the
# file systems that only show the kernel's or a program's data: their place stays empty.
mounts_below() {
    local point type line
    while read -r _ _ _ _ point line; do
        [[ $point == "$1"/* ]] || continue
        type=${line##* - }
        case ${type%% *} in
            proc | sysfs | devpts | cgroup* | autofs | nsfs | rpc_pipefs | fuse.* | binfmt_misc) continue ;;
        esac
        printf '%b\n' "$point" # mountinfo writes blanks as \040
    done </proc/self/mountinfo | sort -u
}

# is_private PATH: whether PATH lies below a directory that becomes private.
is_private() {
    local dir
    for dir in "${overlaid[@]}" /run /dev; do
        [[ $1/ == "$dir"/* ]] && return
    done
    return 1
}

# make_mount_point FROM POINT: creates a missing POINT, as a directory or a file like FROM.
make_mount_point() {
    [[ -e $2 ]] && return
    if [[ -d $1 ]]; then
        mkdir -p "$2"
    else
        mkdir -p "${2%/*}"
        : >"$2"
    fi
}

# hold_aside SCRATCH PATH...: keeps each PATH that is about to be covered accessible as
# SCRATCH/keep/N, and remembers it for give_back.
hold_aside() {
    local scratch=$1 path
    shift
    kept=()
    for path in "$@"; do
        is_private "$path" || continue
        make_mount_point "$path" "$scratch/keep/${#kept[@]}"
        mount --rbind "$path" "$scratch/keep/${#kept[@]}"
        kept+=("$path")
    done
}

# give_back SCRATCH: puts what hold_aside kept back at its own path.
give_back() {
    local i
    for i in "${!kept[@]}"; do
        make_mount_point "$1/keep/$i" "${kept[i]}"
        mount --rbind "$1/keep/$i" "${kept[i]}"
    done
}

# cover_with_overlay LOW UPPER POINT: fails, and leaves POINT alone, where this
# kernel stacks no overlay on the file system of POINT.
cover_with_overlay() {
    mkdir -p "$2/upper" "$2/work"
    chmod --reference="$1" "$2/upper"
    chown --reference="$1" "$2/upper"
    local options="lowerdir=$1,upperdir=$2/upper,workdir=$2/work"
    mount -t overlay overlay -o "$options" "$3" 2>/dev/null ||
        mount -t overlay overlay -o "$options,userxattr" "$3" 2>/dev/null
}

# cover_with_copy LOW COPY POINT: the same without overlays. /usr is too big to
# copy: what a test may write in it is copied, the rest is bound read-only.
cover_with_copy() {
    local low=$1 copy=$2 point=$3
    mkdir -p "$copy"
    if [[ $point == /usr ]]; then
        copy_shallow "$low" "$copy" lib local sbin
        copy_shallow "$low/lib" "$copy/lib"
        copy_shallow "$low/local" "$copy/local"
        cp -a "$low/sbin/." "$copy/sbin/"
    else
        cp -a "$low/." "$copy/"
    fi
    mount --rbind "$copy" "$point"
}

# copy_shallow FROM TO NAME...: TO gets every entry of FROM: files and links as
# copies, directories bound read-only, but the directories NAME empty.
copy_shallow() {
    local from=$1 to=$2 entry name
    shift 2
    chmod --reference="$from" "$to"
    for entry in "$from"/* "$from"/.[!.]*; do
        name=${entry##*/}
        if [[ -L $entry || -f $entry ]]; then
            cp -a "$entry" "$to/"
        elif [[ -d $entry ]]; then
            mkdir "$to/$name"
            [[ " $* " == *" $name "* ]] && continue
            mount --bind "$entry" "$to/$name"
            mount -o remount,bind,ro "$to/$name"
        fi
    done
}

# cover_all SCRATCH: covers the directories of `overlaid` and every mount below
# them. All of them are bound aside first: once /var is covered, a file system
# mounted on /var/lib/x is out of sight.
cover_all() {
    local scratch=$1 dir point i points=()
    for dir in "${overlaid[@]}"; do
        mapfile -t -O "${#points[@]}" points < <(printf '%s\n' "$dir" && mounts_below "$dir")
    done
    for i in "${!points[@]}"; do
        point=${points[i]}
        make_mount_point "$point" "$scratch/low/$i"
        mount --bind "$point" "$scratch/low/$i"
    done
    for i in "${!points[@]}"; do
        point=${points[i]}
        if [[ ! -d $scratch/low/$i ]]; then
            cp -a --remove-destination "$scratch/low/$i" "$point"
        elif ! cover_with_overlay "$scratch/low/$i" "$scratch/over/$i" "$point"; then
            cover_with_copy "$scratch/low/$i" "$scratch/copy/$i" "$point"
        fi
    done
}

# build_namespace_world PATH...: makes the root of this mount namespace private;
# each PATH stays the machine's own, writable.
build_namespace_world() {
    local scratch kept
    scratch=$(scratch_place)
    mount -t tmpfs -o mode=755 sandbox "$scratch"
    mkdir "$scratch/low" "$scratch/dev"
    hold_aside "$scratch" "$@"
    # Its own nodes: chmod on one of the machine's would change the machine. A container may
    # not allow making them.
    make_devices "$scratch" mknod 2>/dev/null || make_devices "$scratch" bind
    cover_all "$scratch"
    mount --rbind "$scratch/dev" /dev
    mkdir /dev/pts
    mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts /dev/pts
    ln -s pts/ptmx /dev/ptmx
    mount -t tmpfs -o mode=755 sandbox /run
    make_run ""
    give_back "$scratch"
    # The overlays and binds hold what they need of it.
    umount --lazy "$scratch"
    mount -t proc proc /proc
    drop_host_sockets ""
}
