#!/bin/bash
# What a program sees on the board, and that nothing of it reaches this machine.
# shellcheck disable=SC2016 # what stands in single quotes is for the shell on the board
# shellcheck source=lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"

name=$(board up --quiet --name "test-world-$$") || exit 1
inside() { board exec "$name" sh -c "$1" 2>&1; }

same 'user storage in the mount table' '/dev/sda1 ext4' \
    "$(inside "awk '\$2 == \"/userstorage1\" { print \$1, \$3 }' /proc/mounts")"
same 'only one user storage mount' 1 "$(inside 'grep -c sda1 /proc/mounts')"
same 'user storage is another device than its parent' yes \
    "$(inside '[ "$(stat -c %d /userstorage1)" != "$(stat -c %d /)" ] && echo yes')"
same 'user storage holds data' 314572800 \
    "$(inside 'cd /userstorage1 && head -c 300M /dev/zero >big && stat -c %s big; rm big')"
for mode in 'write through' 'write back'; do
    same "write cache: $mode" "$mode" \
        "$(inside "printf '$mode' >/sys/block/sda/queue/write_cache; cat /sys/block/sda/queue/write_cache")"
done
same 'firmware image is there' squashfs "$(inside 'mkdir /tmp/m
    mount -t squashfs -o ro /mnt/cfdrive/QXx86_32_ContainerFirmware.bin /tmp/m && stat -f -c %T /tmp/m
    umount /tmp/m')"
same 'configuration drive is writable' yes \
    "$(inside 'mkdir -p /mnt/cfdrive/containers/certs && rm /mnt/cfdrive/*.bin && echo yes')"
for path in /bin/podman /bin/crun /usr/bin/conmon /bin/docker-compose /mnt/containers_tools /etc/containers \
    /var/lib/containers /opt/cni; do
    same "no $path" no "$(inside "[ -e $path ] && echo yes || echo no")"
done
same 'directory for the host is there' '' "$(inside 'ls -A /etc/quolex')"
same 'busybox image is there' yes "$(inside 'tar tf /opt/board/busybox.tar | grep -qx ./bin/busybox && echo yes')"
same 'lo is up' 1 "$(inside 'ip -o link show lo | grep -c LOWER_UP')"
same 'no other network device' 1 "$(inside 'ip -o link | grep -c .')"
same 'host name' qx-board "$(inside hostname)"
same 'first process' /opt/board/init "$(inside 'tr "\0" "\n" </proc/1/cmdline | tail -n 1')"
same 'only the board'\''s processes' yes "$(inside '[ "$(ls -d /proc/[0-9]* | wc -l)" -lt 10 ] && echo yes')"
same 'orphans are taken in' 0 "$(inside '(sleep 0.1 & exec sleep 0.3) & sleep 0.6; ps -eo stat | grep -c ^Z')"
same 'no group of this machine in sight' 0 "$(inside 'grep -c qx-board /proc/self/cgroup')"
same 'CPU set can be made' 0 "$(inside 'cd /sys/fs/cgroup/cpuset 2>/dev/null || cd /sys/fs/cgroup
    mkdir s && echo 0 >s/cpuset.cpus && { [ ! -e cpuset.mems ] || cat cpuset.mems >s/cpuset.mems; }
    echo $$ >s/cgroup.procs && sed -n "s/^Cpus_allowed_list:.//p" /proc/self/status')"
same 'many loop nodes' 256 "$(inside 'ls /dev/loop[0-9]* | wc -l')"
same 'no disk of this machine' '' "$(inside 'ls /dev/vd* /dev/nvme* /dev/sd[b-z]* /dev/sda 2>/dev/null')"

mark=qx-board-mark-$$
inside "for d in /etc /usr/bin /var/tmp /tmp /run /opt /dev /root; do echo x >\$d/$mark; done; hostname x$mark"
same 'nothing written reaches this machine' '' \
    "$(ls -d /{etc,usr/bin,var/tmp,tmp,run,opt,dev,root}/$mark "$CACHE"/*/rootfs/*/$mark 2>/dev/null)"
same 'this machine keeps its name' 0 "$(hostname | grep -c "$mark")"
same 'this machine has no /userstorage1' no "$(grep -q userstorage1 /proc/mounts && echo yes || echo no)"
same 'the next board starts fresh' no "$(board run --quiet -- sh -c "[ -e /etc/$mark ] && echo yes || echo no")"
same 'its firmware image too' yes "$(board run --quiet -- sh -c '[ -s /mnt/cfdrive/*.bin ] && echo yes')"
board down "$name"
finish
