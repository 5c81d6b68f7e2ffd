#!/bin/bash
# Builds what the cache holds. Runs in mount and process namespaces of its own, see supervise() in cache.sh.
#   build.sh lists SUITE MIRROR APT-DIR
#   build.sh entry SUITE MIRROR APT-DIR OUTPUT ROOTFS-PACKAGES FIRMWARE-PACKAGES
set -euo pipefail
umask 022
BOARD_DIR=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)
# shellcheck source=common.sh
source "$BOARD_DIR/lib/common.sh"
# shellcheck source=suite.sh
source "$BOARD_DIR/lib/suite.sh"
# shellcheck source=firmware.sh
source "$BOARD_DIR/lib/firmware.sh"

# debootstrap does not read apt's configuration.
take_over_proxy() {
    local proxy=
    eval "$(apt-config shell proxy Acquire::http::Proxy)"
    [[ -z $proxy || $proxy == DIRECT ]] || export http_proxy=${http_proxy:-$proxy}
}

build_rootfs() { # SUITE MIRROR ROOTFS PACKAGES
    local script=/usr/share/debootstrap/scripts/$1
    # A suite younger than this machine's debootstrap is built like unstable.
    [[ -e $script ]] || script=/usr/share/debootstrap/scripts/sid
    take_over_proxy
    debootstrap --variant=minbase --keyring="$KEYRING" --include="$4" "$1" "$3" "$2" "$script"
}

trim_rootfs() { # ROOTFS
    rm -rf "$1"/var/cache/apt/* "$1"/var/lib/apt/lists/* "$1"/var/log/* "$1"/var/cache/debconf/*-old \
        "$1"/usr/share/{doc,man,locale,info,lintian} "$1"/etc/containers
    printf 'qx-board\n' >"$1/etc/hostname"
    printf '127.0.0.1 localhost\n127.0.1.1 qx-board\n::1 localhost\n' >"$1/etc/hosts"
    # An address that leads nowhere: the host's servers are not the board's business.
    printf 'nameserver 192.0.2.53\n' >"$1/etc/resolv.conf"
    : >"$1/etc/fstab"
    # mount writes no second mount table any more, but some readers still look for it.
    ln -sfn ../proc/self/mounts "$1/etc/mtab"
    mkdir -p "$1"/{opt/board,userstorage1,mnt/cfdrive,etc/quolex}
}

# Made once here: making some hundred nodes one by one at every start would cost most of the start time.
build_device_template() { # DIRECTORY
    local name major minor number
    mkdir -p "$1"/{net,pts,shm,mqueue}
    while read -r name major minor; do
        mknod -m 666 "$1/$name" c "$major" "$minor"
    done <<<'null 1 3
zero 1 5
full 1 7
random 1 8
urandom 1 9
tty 5 0
fuse 10 229
net/tun 10 200'
    mknod -m 600 "$1/kmsg" c 1 11
    mknod -m 600 "$1/loop-control" c 10 237
    for ((number = 0; number < 256; number++)); do mknod -m 660 "$1/loop$number" b 7 "$number"; done
    ln -s pts/ptmx "$1/ptmx"
    ln -s /proc/self/fd "$1/fd"
    ln -s fd/0 "$1/stdin"
    ln -s fd/1 "$1/stdout"
    ln -s fd/2 "$1/stderr"
}

build_busybox_image() { # ROOTFS TARBALL
    local tree link
    tree=$(mktemp -d "$apt_dir/busybox.XXXX")
    chmod 755 "$tree"
    mkdir -p "$tree"/{bin,etc,root,tmp,proc,sys,dev,run,var}
    chmod 1777 "$tree/tmp"
    cp "$1/bin/busybox" "$tree/bin/busybox"
    for link in $("$1/bin/busybox" --list); do
        [[ $link == busybox ]] || ln -s busybox "$tree/bin/$link"
    done
    printf 'root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534:nobody:/:/bin/false\n' >"$tree/etc/passwd"
    printf 'root:x:0:\nnogroup:x:65534:\n' >"$tree/etc/group"
    tar -C "$tree" --owner=0 --group=0 --numeric-owner -cf "$2" .
}

main() {
    local action=$1 suite=$2 mirror=$3
    apt_dir=$4
    update_lists "$suite" "$mirror" "$apt_dir"
    echo '== lists ok'
    [[ $action == entry ]] || return 0
    local output=$5 rootfs_packages=$6 firmware_packages=$7
    echo '== root file system'
    build_rootfs "$suite" "$mirror" "$output/rootfs" "$rootfs_packages"
    echo '== firmware image'
    build_firmware "$output/rootfs" "$output/cfdrive/QXx86_32_ContainerFirmware.bin" "$firmware_packages"
    echo '== finishing'
    trim_rootfs "$output/rootfs"
    build_busybox_image "$output/rootfs" "$output/rootfs/opt/board/busybox.tar"
    build_device_template "$output/rootfs/opt/board/dev"
    printf 'suite=%s\npodman=%s\n' "$suite" "$(podman_in "$apt_dir")" >"$output/info"
}

main "$@"
