# shellcheck shell=bash disable=SC2034,SC2154 # one of several parts that share their variables
# The end of a board: everything it was made of is taken away, in an order that works from any half-way point.

# until_true SECONDS COMMAND...
until_true() {
    local tries=$(($1 * 50))
    shift
    until "$@"; do
        ((tries-- > 0)) || return 1
        sleep 0.02
    done
}

# The first process of a process namespace takes all others with it.
kill_init() { # NAME
    local pid
    pid=$(init_of "$1") || return 0
    kill -KILL "$pid" 2>/dev/null || true
}

# A file system that was frozen inside outlives its mounts, and what waits for it cannot be killed. Mounting its device
# once more gives the same file system of the kernel, which can be thawed there. The mount holds the device; only then
# is it certain that it has not become somebody else's.
thaw_disk() { # NAME
    local device files
    files=$(temp_dir_of "$(state_value "$1" owner)")/
    for device in $(losetup -n -l -O NAME,BACK-FILE 2>/dev/null | grep -F " $files" | cut -d ' ' -f 1); do
        unshare --mount sh -c "mount $device /mnt && losetup -n -O BACK-FILE $device | grep -qF '$files' &&
            fsfreeze --unfreeze /mnt" 2>/dev/null || true
    done
}

# until_thawed NAME COMMAND...
until_thawed() {
    local name=$1
    shift
    until_true 1 "$@" || { thaw_disk "$name" && until_true 10 "$@"; }
}

# Loop devices that still hold a file of the board: attached by hand inside, so they do not go with a mount.
detach_loops() { # NAME
    local device backing
    [[ -s $STATE_ROOT/$1/devices ]] || return 0
    while read -r device backing; do
        grep -qxF "$backing" "$STATE_ROOT/$1/devices" || continue
        losetup -d "$device" 2>/dev/null || true
    done < <(losetup -n -l -O NAME,BACK-MAJ:MIN 2>/dev/null)
}

# True when the kernel has let go of the user storage and of everything mounted from inside.
loops_are_gone() { # NAME
    detach_loops "$1"
    ! losetup -n -l -O BACK-MAJ:MIN | tr -d ' ' | grep -qxF -f "$STATE_ROOT/$1/devices" &&
        ! losetup -n -l -O BACK-FILE | grep -qF "$(temp_dir_of "$(state_value "$1" owner)")/"
}

groups_are_gone() { kill_cgroups "$1" && remove_cgroups "$1"; } # PLAN-FILE

# remove_board NAME OWNER: only the board of that very owner; by now another one may bear the name.
remove_board() {
    local dir=$STATE_ROOT/$1 lock CACHE=$CACHE
    [[ -d $dir ]] || return 0
    { exec {lock}<"$dir"; } 2>/dev/null || return 0
    flock "$lock"
    if [[ $(state_value "$1" owner) == "$2" ]]; then
        CACHE=$(state_value "$1" cache)
        kill_init "$1"
        [[ ! -s $dir/cgroups ]] || until_thawed "$1" groups_are_gone "$dir/cgroups" ||
            warn "control groups of board '$1' are still in use: $(cut -f 3 "$dir/cgroups" | head -n 1) ..."
        [[ ! -s $dir/devices ]] || until_thawed "$1" loops_are_gone "$1" ||
            warn "a loop device of board '$1' is still in use (losetup -a)"
        remove_temp "$2"
        # In one step, so that nobody meets a board without an owner.
        mv -T -- "$dir" "$STATE_ROOT/.gone-$2" 2>/dev/null || true
        rm -rf --one-file-system -- "$STATE_ROOT/.gone-$2"
    fi
    exec {lock}<&-
    rmdir -- "$STATE_ROOT" 2>/dev/null || true
}

temp_is_gone() {
    rm -rf --one-file-system -- "$1" 2>/dev/null || true
    [[ ! -e $1 ]]
}

# A builder that is just being killed may still put a file there.
remove_temp() { # OWNER
    until_true 10 temp_is_gone "$(temp_dir_of "$1")" || warn "cannot remove $(temp_dir_of "$1")"
}

# Remains of owners that were killed together with their janitor.
sweep_dead() {
    local dir owner name
    for name in $(board_names); do
        owner=$(state_value "$name" owner)
        is_alive "$owner" || remove_board "$name" "$owner"
    done
    for dir in "$STATE_ROOT"/.new-* "$STATE_ROOT"/.gone-* "$CACHE"/tmp.*; do
        [[ ${dir##*/} =~ ^(.new-|.gone-|tmp[.])([0-9]+-[0-9]+)$ ]] || continue
        is_alive "${BASH_REMATCH[2]}" || rm -rf --one-file-system -- "$dir"
    done
    rmdir -- "$STATE_ROOT" 2>/dev/null || true
}

# Groups whose state directory is gone; a board claims its name before it makes them. Only empty ones: another
# container that shares this tree has a /run of its own, and its boards are not ours to end.
sweep_groups() {
    local dir plan
    plan=$(mktemp)
    while IFS= read -r dir; do
        [[ -d $STATE_ROOT/${dir##*/qx-board-} ]] || printf 'left\t.\t%s\n' "$dir" >>"$plan"
    done < <(find /sys/fs/cgroup -maxdepth 8 -type d -name 'qx-board-*' 2>/dev/null)
    [[ ! -s $plan ]] || remove_cgroups "$plan" ||
        warn "control groups without a board that still hold processes: $(cut -f 3 "$plan" | xargs)"
    rm -f -- "$plan"
}
