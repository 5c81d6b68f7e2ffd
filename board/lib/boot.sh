#!/bin/bash
# boot.sh STATE TEMP: the board's first process, from fresh namespaces to its own root file system and init.
# Descriptor 1 tells the front "ready"; descriptor 2 is the board's log.
set -euo pipefail
umask 022
BOARD_DIR=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)
# shellcheck source=common.sh
source "$BOARD_DIR/lib/common.sh"
# shellcheck source=cgroup.sh
source "$BOARD_DIR/lib/cgroup.sh"

state=$1 temp=$2 stage=${3:-join}
work=$temp/board
root=$work/root

# /proc is still the host's here: it knows our numbers as the host does.
host_stat() { read -r -a stat </proc/self/stat; }

join_groups() {
    local stat
    host_stat
    # unshare may have been killed before the kernel knew that we want to die with it.
    [[ $(<"/proc/${stat[3]}/comm") == unshare ]] || exit 1
    printf '%s %s\n' "${stat[0]}" "${stat[21]}" >"$state/init"
    join_cgroups "$state/cgroups"
    exec unshare --cgroup -- bash "$BOARD_DIR/lib/boot.sh" "$state" "$temp" mounts
}

# overlay_mount LOWER TARGET NAME: a writable view that forgets everything.
overlay_mount() {
    mkdir -p "$work/layers/$3/upper" "$work/layers/$3/work" "$2"
    mount -t overlay -o "lowerdir=$1,upperdir=layers/$3/upper,workdir=layers/$3/work" overlay "$2"
}

mount_root() {
    local entry
    entry=$(<"$state/entry")
    mkdir -p "$work"
    mount -t tmpfs -o mode=755 tmpfs "$work"
    mkdir "$work/lower" "$work/layers" "$work/disk"
    # overlay's options know no quoting: give it a path without surprises.
    mount --bind "$entry" "$work/lower"
    cd "$work"
    overlay_mount lower/rootfs "$root" root
    overlay_mount lower/cfdrive "$root/mnt/cfdrive" cfdrive
}

mount_system() {
    mount -t proc -o nosuid,nodev,noexec proc "$root/proc"
    mount -t sysfs -o nosuid,nodev,noexec sysfs "$root/sys"
    mount_cgroups "$state/cgroups" "$root/sys/fs/cgroup"
    mount -t tmpfs -o mode=755,nosuid tmpfs "$root/dev"
    cp -a "$root/opt/board/dev/." "$root/dev/"
    mount -t devpts -o newinstance,ptmxmode=0666,mode=620,gid=5 devpts "$root/dev/pts"
    mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs "$root/dev/shm"
    mount -t mqueue -o nosuid,nodev,noexec mqueue "$root/dev/mqueue"
    mount -t tmpfs -o mode=755,nosuid,nodev tmpfs "$root/run"
    mkdir -p "$root/run/lock"
}

# A kernel that splits loop devices into partitions numbers them in larger steps.
renumber_loops() {
    local shift=0 parts number
    parts=$(cat /sys/module/loop/parameters/max_part 2>/dev/null || echo 0)
    while ((parts > 0)); do ((parts >>= 1, shift += 1)); done
    ((shift > 0)) || return 0
    for ((number = 0; number < 256; number++)); do
        rm "$root/dev/loop$number"
        mknod -m 660 "$root/dev/loop$number" b 7 $((number << shift))
    done
}

# mount's own loop devices go with their last mount, so there is no moment at which this one could be left over.
attach_disk() {
    local number
    truncate -s 1G "$temp/userstorage"
    mkfs.ext4 -q -F -m 0 -L userstorage1 "$temp/userstorage"
    mount -t ext4 -o loop "$temp/userstorage" "$work/disk"
    rm -- "$temp/userstorage"
    number=$(mountpoint -d "$work/disk")
    mknod -m 660 "$root/dev/sda1" b "${number%:*}" "${number#*:}"
    link_disk "$(readlink -f "/sys/dev/block/$number")"
}

link_disk() { # DEVICE-DIRECTORY
    mkdir "$work/block"
    cp -a /sys/block/. "$work/block/"
    ln -sfn "..${1#/sys}" "$work/block/sda"
    mount -t tmpfs -o mode=755,nosuid,nodev,noexec tmpfs "$root/sys/block"
    cp -a "$work/block/." "$root/sys/block/"
    # The loop device may have served another board before.
    printf 'write back' >"$1/queue/write_cache"
}

# Device numbers by which a loop device set up inside is known as the board's when it must be taken away. A file
# of an overlay bears another number as long as it comes from below than when it was made or changed on top.
note_devices() {
    local place
    for place in "$root" "$root/mnt/cfdrive"; do : >"$place/.made"; done
    for place in "$work" "$root" "$root/.made" "$root/usr/bin/env" "$root/mnt/cfdrive" "$root/mnt/cfdrive/.made" \
        "$root"/mnt/cfdrive/*.bin "$root/run" "$root/dev" "$root/dev/shm" "$work/disk"; do
        stat -c %Hd:%Ld "$place"
    done | sort -u >"$state/devices"
    rm "$root/.made" "$root/mnt/cfdrive/.made"
    # The cache's own disk is not the board's.
    sed -i "/^$(stat -c %Hd:%Ld "$(<"$state/entry")/info")\$/d" "$state/devices"
}

bind_places() { # OLD-ROOT
    local source target mode
    while IFS=$'\t' read -r source target mode; do
        if [[ -d $1$source ]]; then
            mkdir -p "$target"
        else
            mkdir -p "$(dirname -- "$target")"
            [[ -e $target ]] || : >"$target"
        fi
        mount --bind "$1$source" "$target"
        [[ $mode != ro ]] || mount -o remount,bind,ro "$target"
    done <"$state/binds"
}

enter_root() {
    cp "$BOARD_DIR"/inside/* "$root/opt/board/"
    mkdir "$root/.host"
    cd "$root"
    pivot_root . .host
    cd /
    hash -r
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
    mount -t ext4 /dev/sda1 /userstorage1
    umount "/.host$work/disk"
    state=/.host$state bind_places /.host
    umount -l /.host
    rmdir /.host
}

case $stage in
    join) join_groups ;;
    mounts)
        hostname qx-board
        mount_root
        mount_system
        renumber_loops
        attach_disk
        note_devices
        enter_root
        ip link set lo up
        exec env -i PATH="$PATH" HOME=/root /bin/bash /opt/board/init </dev/null
        ;;
esac
