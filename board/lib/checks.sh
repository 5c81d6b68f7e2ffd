# shellcheck shell=bash disable=SC2034,SC2154 # one of several parts that share their variables
# What the surroundings must offer; each lack is one message with its remedy.

check_root() {
    ((EUID == 0)) || die "$EXIT_NOT_ROOT" "a board needs root (namespaces, mounts, CPU sets)" \
        "run it with sudo"
}

# check_tools NAME:PACKAGE...
check_tools() {
    local pair
    for pair in "$@"; do
        command -v "${pair%%:*}" >/dev/null || die "$EXIT_TOOL" "the tool '${pair%%:*}' is missing" \
            "apt-get install ${pair##*:}   (all packages: board/packages.txt)"
    done
}

check_run_tools() {
    check_tools unshare:util-linux nsenter:util-linux setpriv:util-linux setsid:util-linux flock:util-linux \
        mount:mount losetup:mount pivot_root:util-linux mkfs.ext4:e2fsprogs truncate:coreutils \
        stat:coreutils find:findutils awk:mawk hostname:hostname
}

check_build_tools() {
    check_tools apt-get:apt debootstrap:debootstrap mksquashfs:squashfs-tools patchelf:patchelf \
        dpkg-deb:dpkg tar:tar sha256sum:coreutils timeout:coreutils
    [[ -r $KEYRING ]] || die "$EXIT_TOOL" "the archive keyring $KEYRING is missing" \
        "apt-get install debian-archive-keyring"
}

load_module() { ! command -v modprobe >/dev/null || modprobe -q "$1" 2>/dev/null || true; }

check_kernel() {
    local filesystem
    for filesystem in squashfs overlay ext4; do
        grep -qw "$filesystem" /proc/filesystems || load_module "$filesystem"
        grep -qw "$filesystem" /proc/filesystems ||
            die "$EXIT_FILESYSTEM" "this kernel has no $filesystem" "modprobe $filesystem, or another kernel"
    done
    [[ -c /dev/loop-control ]] || load_module loop
    [[ -c /dev/loop-control ]] || die "$EXIT_LOOP" "there are no loop devices (/dev/loop-control)" \
        "modprobe loop; inside a container: give it the host's loop devices"
}

# check_space DIRECTORY MIB PURPOSE
check_space() {
    local free
    free=$(df --output=avail -m -- "$1" | tail -n 1)
    ((free >= $2)) || die "$EXIT_DISK" "only ${free// /} MiB are free in $1; $3 needs $2 MiB" \
        "free some space, or set QX_CACHE_DIR to a larger disk"
}

make_cache_dir() {
    mkdir -p -- "$CACHE" 2>/dev/null || true
    [[ -d $CACHE && -w $CACHE ]] || die "$EXIT_DISK" "cannot write to the cache $CACHE" \
        "set QX_CACHE_DIR to a directory on a local, writable disk"
    CACHE=$(cd -- "$CACHE" && pwd -P)
}
