#!/bin/bash
# Whatever way a board ends, the machine looks as before: loop devices, control groups, state, files, mounts,
# namespaces, processes.
# shellcheck disable=SC2016 # what stands in single quotes is for another shell
# shellcheck source=lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"
# The shell's own words about the processes that are killed here.
exec 2>/dev/null
others=$("$BOARD" list | tail -n +2)
[[ -z $others ]] || echo "note: other boards are there, they may disturb these tests: $others"
before=$(picture)

# start COMMAND...: the front in the background, as a terminal would start it; sets front.
start() {
    env --default-signal "$BOARD" "$@" </dev/null >"$SCRATCH/out" 2>&1 &
    front=$!
}

wait_for_file() {
    local tries=200
    until [[ -e $1 ]]; do
        ((tries-- > 0)) || return 1
        sleep 0.05
    done
}

# start_running SCRIPT: a board whose command has come so far as to make /scratch/begun.
start_running() {
    rm -f "$SCRATCH/begun"
    start run --quiet --name "leak-$$" --bind "$SCRATCH:/scratch" -- \
        sh -c "trap 'exit 33' INT; $1"
    wait_for_file "$SCRATCH/begun" || fail 'the command began' "$(cat "$SCRATCH/out")"
}

ended_with() { # NAME STATUS
    wait "$front"
    same "$1: status" "$2" $?
    settles "$1: nothing left" "$before"
}

board run --quiet -- true
same 'normal end: at once nothing left' "$before" "$(picture)"
board run --quiet -- sh -c 'setsid sleep 1000 >/dev/null 2>&1 & exit 3'
same 'failure with a daemon: at once nothing left' "$before" "$(picture)"
board run --quiet --cpus 99999 -- true 2>/dev/null
settles 'failed start: nothing left' "$before"

start_running 'sleep 60 & : >/scratch/begun; wait'
kill -INT "$front"
ended_with 'SIGINT, taken by the command' 33
start_running ': >/scratch/begun; exec sleep 60'
kill -INT "$front"
ended_with 'SIGINT' 130
start_running ': >/scratch/begun; exec sleep 60'
kill -TERM "$front"
ended_with 'SIGTERM' 143
start_running ': >/scratch/begun; exec sleep 60'
kill -HUP "$front"
ended_with 'SIGHUP' 129
start_running 'trap "" TERM; : >/scratch/begun; while :; do sleep 1; done'
kill -TERM "$front"
sleep 0.5
kill -TERM "$front"
ended_with 'second SIGTERM, first ignored' 137
start_running ': >/scratch/begun; exec sleep 60'
kill -KILL "$front"
ended_with 'SIGKILL of the front' 137
start_running ': >/scratch/begun; exec sleep 60'
read -r init _ <"/run/qx-boards/leak-$$/init"
kill -KILL "$init"
ended_with 'SIGKILL of init' 137

# Loop devices that do not go with a mount, files kept open on the user storage, mounts over mounts.
start_running 'truncate -s 1M /tmp/a /userstorage1/b /mnt/cfdrive/c; losetup -f /tmp/a; losetup -f /userstorage1/b
    losetup -f /mnt/cfdrive/c; mkdir /mnt/t; mount -t squashfs -o ro /mnt/cfdrive/*.bin /mnt/t; mount --bind /mnt/t /mnt/t
    mkdir -p /sys/fs/cgroup/cpuset/x/y/z; : >/scratch/begun; exec sleep 60 >/userstorage1/open'
kill -KILL "$front"
ended_with 'loop devices by hand, then SIGKILL' 137

# What waits for a frozen disk cannot be killed, and the frozen file system outlives its mounts.
freeze='fsfreeze --freeze /userstorage1; sh -c "echo >/userstorage1/never" & : >/scratch/begun'
start_running "$freeze; sleep 0.5"
ended_with 'frozen disk' 0
start_running "$freeze; exec sleep 60"
kill -TERM "$front"
ended_with 'frozen disk, then SIGTERM' 143
start_running "$freeze; exec sleep 60"
kill -KILL "$front"
ended_with 'frozen disk, then SIGKILL' 137
start_running 'fsfreeze --freeze /userstorage1; : >/scratch/begun; exec sleep 60'
kill -KILL "$front"
ended_with 'frozen disk that nobody waits for' 137

# The front is ended in the middle of every phase of the start.
for signal in KILL TERM INT; do
    for delay in 0.004 0.006 0.008 0.01 0.03 0.05 0.08 0.10 0.12 0.14 0.16 0.18 0.20 0.23 0.26 0.30 0.35; do
        start run --quiet -- sleep 60
        sleep "$delay"
        kill -"$signal" "$front"
        wait "$front" 2>/dev/null
        after=$(picture)
        [[ $signal == KILL || $after == "$before" ]] || break
    done
    [[ $signal == KILL ]] || same "SIG$signal in the start: at once nothing left" "$before" "$after"
    settles "SIG$signal in the start: nothing left" "$before"
done

start_running ': >/scratch/begun; exec sleep 60'
kill -KILL "$(pgrep -f "janitor.sh $front-")" "$front"
wait "$front" 2>/dev/null
sleep 0.3
board sweep
settles 'front and janitor killed: sweep removes the rest' "$before"

start run --quiet -- sleep 1
first=$front
start run --quiet -- sleep 1.5
wait "$first"
same 'two at once: first' 0 $?
ended_with 'two at once: second' 0

name=$(board up --quiet)
read -r owner <"/run/qx-boards/$name/owner"
board down "$name"
same 'up and down: at once nothing left' "$before" "$(picture)"
name=$(board up --quiet)
read -r owner <"/run/qx-boards/$name/owner"
kill -KILL "${owner%-*}"
settles 'SIGKILL of the keeper: nothing left' "$before"
name=$(board up --quiet)
other=$(board up --quiet)
board exec "$other" true
read -r init _ <"/run/qx-boards/$name/init"
kill -KILL "$init"
board down "$other"
settles 'two that stay, one of them without init: nothing left' "$before"
# In a /run of its own: "--all" must not meet the boards of others.
same 'down --all' 'two none' "$(timeout 60 unshare --mount -- bash -c 'mount -t tmpfs tmpfs /run
    "$0" up --quiet >&2 && "$0" up --quiet >&2 && [[ $(ls /run/qx-boards | wc -l) == 2 ]] && echo -n "two "
    "$0" down --all && [[ ! -e /run/qx-boards ]] && echo none' "$BOARD")"
settles 'down --all: nothing left' "$before"

name=$(board up --quiet)
"$BOARD" exec "$name" sleep 60 &
front=$!
sleep 0.3
kill -KILL "$front"
sleep 0.3
same 'SIGKILL of exec ends its command' 0 "$(board exec "$name" pgrep -c -fx 'sleep 60')"
wait "$front" 2>/dev/null
board down "$name"
settles 'all in all: nothing left' "$before"
finish
