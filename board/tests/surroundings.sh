#!/bin/bash
# Bad surroundings: one clear message with its remedy, a status of its own, and nothing left.
# shellcheck disable=SC2016 # what stands in single quotes is for another shell
# shellcheck source=lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"
before=$(picture)
# The shell's own words about the process that is killed here.
exec 2>/dev/null

# refused NAME STATUS PATTERN COMMAND...: STATUS, a message that matches, a remedy, and no trace of a script.
refused() {
    local name=$1 status=$2 pattern=$3 output actual=0
    shift 3
    output=$(timeout 60 "$@" 2>&1 </dev/null) || actual=$?
    if [[ $actual != "$status" ]] || ! grep -q -e "$pattern" <<<"$output" || ! grep -q 'remedy:' <<<"$output" ||
        grep -qE 'line [0-9]+:|unbound' <<<"$output"; then
        fail "$name" "status $actual, wanted $status, message like '$pattern'"$'\n'"$output"
    else
        ok "$name"
    fi
}

# The cached entry as a cache of its own, so that no test touches the real one.
other_cache() {
    local entry
    mkdir -p "$1"
    for entry in "$CACHE"/*/info; do ln -sfn "${entry%/info}" "$1/$(basename -- "${entry%/info}")"; done
}

# where PREPARATION COMMAND...: in a mount namespace in which PREPARATION was done first.
printf '#!/bin/sh\nexec unshare --mount -- sh -c "$1 || exit 1; shift; exec \\"\\$@\\"" where "$@"\n' >"$SCRATCH/where"
chmod +x "$SCRATCH/where"
any_suite=$(sed -n 's/^suite=//p' "$CACHE"/*/info | head -n 1)
chmod 755 "$SCRATCH"
cp -r "$(dirname -- "$BOARD")" "$SCRATCH/copy"
mkdir "$SCRATCH/bin" "$SCRATCH/empty" "$SCRATCH/small"
ln -s /usr/bin/* "$SCRATCH/bin/"

refused 'not root' 65 'needs root' setpriv --reuid 65534 --regid 65534 --clear-groups "$SCRATCH/copy/board" run -- true
rm "$SCRATCH/bin/unshare"
refused 'a tool is missing' 66 "unshare.*missing" env PATH="$SCRATCH/bin" "$BOARD" run -- true
ln -s /usr/bin/unshare "$SCRATCH/bin/"
rm "$SCRATCH/bin/mksquashfs"
refused 'a tool for building is missing' 66 mksquashfs env PATH="$SCRATCH/bin" QX_CACHE_DIR="$SCRATCH/empty" "$BOARD" fetch

refused 'unknown command' 64 "unknown command 'fly'" "$BOARD" fly
refused 'unknown option' 64 "unknown option '--fast'" "$BOARD" run --fast -- true
refused 'option without value' 64 'wants a value' "$BOARD" run --suite
refused 'unknown suite' 64 "unknown suite 'sarge'" "$BOARD" run --suite sarge -- true
refused 'no CPU list' 64 'no CPU list' "$BOARD" run --cpus one -- true
refused 'CPUs that are not there' 69 'cannot be given' "$BOARD" run --quiet --suite "$any_suite" --cpus 4000 -- true
refused 'bad bind' 64 'SRC:DST' "$BOARD" run --bind /etc -- true
refused 'bind of nothing' 64 'to bind' "$BOARD" run --bind /no/such/file:/x -- true
refused 'bad variable' 64 'K=V' "$BOARD" run --env 1x -- true
refused 'bad name' 64 'no board name' "$BOARD" up --name ../x
refused 'no command to run' 64 'wants a command' "$BOARD" run
refused 'unknown board' 72 "no board named 'nobody'" "$BOARD" exec nobody true
refused 'down of an unknown board' 72 "no board named 'nobody'" "$BOARD" down nobody

refused 'no archive, empty cache' 70 'does not answer' \
    env QX_CACHE_DIR="$SCRATCH/empty" QX_MIRROR=http://127.0.0.1:9/debian "$BOARD" run -- true
refused 'no archive for a named suite' 70 'does not answer for trixie' \
    env QX_CACHE_DIR="$SCRATCH/empty" QX_MIRROR=http://127.0.0.1:9/debian "$BOARD" fetch --suite trixie
other_cache "$SCRATCH/filled"
mkdir "$SCRATCH/filled/tmp.4000000-1"
same 'no archive, filled cache' 'taken from the cache' "$(
    QX_CACHE_DIR=$SCRATCH/filled QX_MIRROR=http://127.0.0.1:9/debian board run -- true 2>&1 | grep -o 'taken from the cache')"
same 'remains of an interrupted build are removed' '' "$(ls -d "$SCRATCH"/filled/tmp.* 2>/dev/null)"

other_cache "$SCRATCH/filled"
mount_small="mount -t tmpfs -o size=64m tmpfs $SCRATCH/small"
refused 'no space to build' 71 'are free' "$SCRATCH/where" "$mount_small" \
    env QX_CACHE_DIR="$SCRATCH/small" "$BOARD" fetch --suite trixie
refused 'no space for a board' 71 'are free' "$SCRATCH/where" \
    "$mount_small && cp -a $SCRATCH/filled/. $SCRATCH/small" \
    env QX_CACHE_DIR="$SCRATCH/small" "$BOARD" run --suite "$any_suite" -- true
refused 'cache not writable' 71 'cannot write' env QX_CACHE_DIR=/proc/cache "$BOARD" run -- true
: >"$SCRATCH/nothing"
refused 'no loop devices' 67 'no loop devices' "$SCRATCH/where" \
    "mount --bind $SCRATCH/nothing /dev/loop-control" "$BOARD" run -- true
for filesystem in squashfs overlay ext4; do
    grep -vw "$filesystem" /proc/filesystems >"$SCRATCH/filesystems"
    refused "no $filesystem" 68 "no $filesystem" "$SCRATCH/where" \
        "mount --bind $SCRATCH/filesystems /proc/filesystems" \
        "$BOARD" run -- true
done
refused 'no cpuset' 69 "no cgroup controller 'cpuset'" "$SCRATCH/where" 'umount -R /sys/fs/cgroup' "$BOARD" run -- true

# A build that is killed leaves nothing, and nothing half-done is taken for whole.
mkdir "$SCRATCH/killed"
QX_CACHE_DIR=$SCRATCH/killed "$BOARD" fetch --suite trixie >/dev/null 2>&1 &
front=$!
sleep 4
kill -KILL "$front"
wait "$front" 2>/dev/null
sleep 1
same 'a killed build leaves nothing' lock "$(ls -A "$SCRATCH/killed")"
settles 'nothing left' "$before"
finish
