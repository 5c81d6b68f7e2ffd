#!/bin/bash
# Runs on the board: does by hand what the product does at its start, then uses every tool once.
#   toolchain.sh full|short CPU
set -uo pipefail
extent=$1 cpu=$2
tools=/mnt/containers_tools
socket=/run/podman/podman.sock
export DOCKER_HOST=unix://$socket LD_LIBRARY_PATH=$tools/lib/
# Podman says so with every command on a machine with cgroup v1.
export PODMAN_IGNORE_CGROUPSV1_WARNING=yes

check() { # NAME COMMAND...
    local name=$1 output
    shift
    # A function cannot be given to timeout; these bound themselves.
    [[ $(type -t "$1") == function ]] || set -- timeout 60 "$@"
    if output=$("$@" 2>&1); then echo "ok $name"; else printf 'FAIL %s\n    %s\n' "$name" "$output"; fi
}

same() { # NAME EXPECTED ACTUAL
    if [[ $2 == "$3" ]]; then echo "ok $1"; else printf 'FAIL %s\n    expected: %s\n    actual:   %s\n' "$@"; fi
}

link_tools() {
    local plugin
    mkdir -p /etc/containers /opt/cni/bin /userstorage1/container_rte/{containers,tmp} /run/podman
    ln -s $tools/bin/podman /bin/podman
    ln -s $tools/bin/crun /bin/crun
    ln -s $tools/bin/conmon /usr/bin/conmon
    ln -s $tools/bin/docker-compose /bin/docker-compose
    for plugin in "$tools"/bin/plugins/*; do ln -s "$plugin" "/opt/cni/bin/${plugin##*/}"; done
    ln -s /userstorage1/container_rte/containers /var/lib/containers
    ln -s $tools/configs/{policy.json,containers.conf,storage.conf} /etc/containers/
}

make_cpu_set() {
    local set=/sys/fs/cgroup/cpuset/libpod_parent
    [[ -d /sys/fs/cgroup/cpuset ]] || set=/sys/fs/cgroup/libpod_parent
    mkdir "$set"
    echo "$cpu" >"$set/cpuset.cpus"
    # The root of a unified tree has no cpuset.mems of its own, and a set there needs none.
    [[ ! -e ${set%/*}/cpuset.mems ]] || cat "${set%/*}/cpuset.mems" >"$set/cpuset.mems"
}

start_service() {
    local tries
    /bin/podman system service --time 0 "unix://$socket" >/tmp/service.log 2>&1 &
    for tries in {1..200}; do
        ((tries < 200)) || return 1
        ! curl -s -f -o /dev/null --unix-socket "$socket" http://d/_ping || return 0
        sleep 0.05
    done
}

api() { curl -m 30 -s -S -f --unix-socket "$socket" "http://d/v5.8.1/libpod/$1" "${@:2}"; }

check_container() {
    same 'a command in a container' 'hello' "$(timeout 60 podman run --rm localhost/busybox:1 echo hello 2>&1)"
    check 'container with restart policy' podman run -d --name kept --restart=always localhost/busybox:1 \
        sh -c 'trap "exit 0" TERM; while :; do sleep 1 & wait; done'
    same 'it runs in the CPU set' "$cpu" \
        "$(podman exec kept sed -n 's/^Cpus_allowed_list:[[:space:]]*//p' /proc/self/status)"
    same 'so does its first process' "$cpu" \
        "$(podman exec kept sed -n 's/^Cpus_allowed_list:[[:space:]]*//p' /proc/1/status)"
    same 'container list by API' 'kept' "$(api 'containers/json' | grep -o '"Names":\["[a-z]*"' | cut -d '"' -f 4)"
    check 'podman stop' podman stop --all --time 10
    check 'start by restart policy' podman start --all --filter restart-policy=always
    same 'it runs again' true "$(podman inspect -f '{{.State.Running}}' kept)"
    check 'logs' podman logs kept
    check 'remove' podman rm -f -t 1 kept
}

check_compose() {
    mkdir /tmp/project
    cat >/tmp/project/compose.yml <<'YAML'
services:
  one:
    image: localhost/busybox:1
    command: ["sh", "-c", "trap 'exit 0' TERM; while :; do sleep 1 & wait; done"]
    restart: always
  two:
    image: localhost/busybox:1
    command: ["sh", "-c", "trap 'exit 0' TERM; while :; do sleep 1 & wait; done"]
YAML
    cd /tmp/project || exit
    check 'compose up' docker-compose up -d
    same 'compose ps: one object a line' 2 "$(docker-compose ps -a --format json | grep -c '^{.*"State":"running".*}$')"
    same 'names are resolved between services' 1 \
        "$(timeout 30 docker-compose exec -T one nslookup two 2>&1 | grep -c '^Name:.*two')"
    same 'its containers run in the CPU set' "$cpu" \
        "$(docker-compose exec -T one sed -n 's/^Cpus_allowed_list:[[:space:]]*//p' /proc/self/status)"
    check 'compose stop' docker-compose stop
    check 'compose down' docker-compose down
    same 'compose leaves nothing' '' "$(podman ps -aq)"
}

check_pause() {
    check 'a container to be paused' podman run -d --name frozen localhost/busybox:1 sleep 1000
    check 'pause' podman pause frozen
}

check 'mount the firmware' sh -c \
    "mkdir -m 775 $tools && mount -t squashfs -o ro /mnt/cfdrive/QXx86_32_ContainerFirmware.bin $tools"
link_tools
check 'CPU set' make_cpu_set
check 'podman service answers' start_service
check 'info by API' api info
same 'version by API' "$(podman version -f '{{.Client.Version}}')" \
    "$(api version | grep -o '"Version":"[0-9.]*"' | head -n 1 | cut -d '"' -f 4)"
same 'network backend' netavark "$(podman info -f '{{.Host.NetworkBackend}}')"
same 'storage driver on the user storage' 'overlay /userstorage1/container_rte/containers/storage' \
    "$(podman info -f '{{.Store.GraphDriverName}} ')$(readlink -f "$(podman info -f '{{.Store.GraphRoot}}')")"
check 'import the image' podman import /opt/board/busybox.tar localhost/busybox:1
check_container
[[ $extent != full ]] || check_compose
# Left frozen: the board must come down all the same.
check_pause
