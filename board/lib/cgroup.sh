# shellcheck shell=bash disable=SC2034,SC2154 # one of several parts that share their variables
# The board's control groups on the host: one directory per hierarchy (cgroup v1), or one in the unified tree (v2).
# A plan has one line per directory: CONTROLLERS, name of its mount inside the board, DIRECTORY (tab-separated).

readonly UNIFIED_CONTROLLERS=(cpuset cpu io memory pids)

is_unified() { [[ $(stat -f -c %T /sys/fs/cgroup 2>/dev/null) == cgroup2fs ]]; }

# own_directory CONTROLLERS ROOT MOUNT-POINT: directory of this process in a v1 hierarchy.
own_directory() {
    local path
    path=$(awk -F: -v wanted="$1" '$2 == wanted { print $3; exit }' /proc/self/cgroup)
    [[ $2 == / ]] || path=${path#"$2"}
    [[ $path != */..* && -d $3$path ]] || path=
    printf '%s\n' "${3}${path%/}"
}

# Below this process's own groups, so that limits set for it hold for its boards as well. The unified hierarchy that
# may lie beside v1 is left out: crun refuses to work with both.
plan_v1() { # NAME
    local root point controllers seen=' ' parent
    while IFS=$'\t' read -r root point controllers; do
        [[ $seen != *" $controllers "* ]] || continue
        seen+="$controllers "
        parent=$(own_directory "$controllers" "$root" "$point")
        printf '%s\t%s\t%s\n' "$controllers" "${point##*/}" "$parent/qx-board-$1"
    done < <(awk '{
        for (dash = 7; $dash != "-"; dash++);
        if ($(dash + 1) != "cgroup") next
        count = split($(dash + 3), option, ",")
        list = ""
        for (i = 1; i <= count; i++)
            # What follows the plain mount options are the controllers.
            if (option[i] !~ /^(rw|ro|xattr|noprefix|clone_children|release_agent=.*|cpuset_v2_mode|favordynmods)$/)
                list = list (list == "" ? "" : ",") option[i]
        if (list != "") printf "%s\t%s\t%s\n", $4, $5, list
    }' /proc/self/mountinfo)
}

plan_cgroups() { # NAME
    if is_unified; then
        # Only the root may hold processes and hand controllers down at the same time.
        printf 'unified\t.\t/sys/fs/cgroup/qx-board-%s\n' "$1"
    else
        plan_v1 "$1"
    fi
}

check_cpuset() {
    if is_unified; then
        grep -qw cpuset /sys/fs/cgroup/cgroup.controllers && return
    else
        plan_v1 x | cut -f 1 | grep -qw cpuset && return
    fi
    die "$EXIT_CGROUP" "there is no cgroup controller 'cpuset'" \
        "mount it: mkdir -p /sys/fs/cgroup/cpuset && mount -t cgroup -o cpuset cgroup /sys/fs/cgroup/cpuset"
}

set_cpus() { # DIRECTORY LIST
    { printf '%s' "$2" >"$1/cpuset.cpus"; } 2>/dev/null ||
        die "$EXIT_CGROUP" "the CPU list '$2' cannot be given to a board" \
            "choose from $(cat "${1%/*}"/cpuset.{cpus.effective,effective_cpus} 2>/dev/null | head -n 1)"
}

create_v1() { # CONTROLLERS DIRECTORY CPUS
    mkdir -- "$2"
    [[ ,$1, == *,cpuset,* ]] || return 0
    set_cpus "$2" "${3:-$(<"${2%/*}/cpuset.cpus")}"
    cat "${2%/*}/cpuset.mems" >"$2/cpuset.mems"
}

create_unified() { # DIRECTORY CPUS
    local controller
    for controller in "${UNIFIED_CONTROLLERS[@]}"; do
        { printf '+%s' "$controller" >"${1%/*}/cgroup.subtree_control"; } 2>/dev/null || true
    done
    mkdir -- "$1" "$1/init"
    grep -qw cpuset "$1/cgroup.controllers" ||
        die "$EXIT_CGROUP" "the unified hierarchy hands no cpuset down to ${1%/*}" \
        "run on the host itself, or give the container a control group tree of its own"
    [[ -z $2 ]] || set_cpus "$1" "$2"
}

create_cgroups() { # PLAN-FILE CPUS
    local controllers dir _
    while IFS=$'\t' read -r controllers _ dir; do
        if [[ $controllers == unified ]]; then
            create_unified "$dir" "$2"
        else
            create_v1 "$controllers" "$dir" "$2"
        fi
    done <"$1"
}

# join_cgroups PLAN-FILE [LEAF]: "0" is whoever writes; so this must run in the process that is to move.
join_cgroups() {
    local controllers dir _
    while IFS=$'\t' read -r controllers _ dir; do
        [[ $controllers != unified ]] || dir+=${2:+/$2}
        printf 0 >"$dir/cgroup.procs"
    done <"$1"
}

# Inside: every hierarchy mounted afresh in the new cgroup namespace shows the board's directory as its root.
mount_cgroups() { # PLAN-FILE SYSFS-CGROUP-DIRECTORY
    local controllers mount _ controller
    if grep -q '^unified' "$1"; then
        mount -t cgroup2 -o nosuid,nodev,noexec cgroup2 "$2"
        delegate_unified "$2"
        return
    fi
    mount -t tmpfs -o mode=755,nosuid,nodev,noexec tmpfs "$2"
    while IFS=$'\t' read -r controllers mount _; do
        mkdir -- "$2/$mount"
        [[ $controllers != name=* ]] || controllers=none,$controllers
        mount -t cgroup -o "nosuid,nodev,noexec,$controllers" cgroup "$2/$mount"
        for controller in ${controllers//,/ }; do
            [[ $controllers == *,* && $controllers != none,* && ! -e $2/$controller ]] || continue
            ln -s "$mount" "$2/$controller"
        done
    done <"$1"
}

# A group that hands controllers down must hold no process itself: move into the leaf first.
delegate_unified() { # DIRECTORY
    local controller
    printf 0 >"$1/init/cgroup.procs"
    for controller in "${UNIFIED_CONTROLLERS[@]}"; do
        { printf '+%s' "$controller" >"$1/cgroup.subtree_control"; } 2>/dev/null || true
    done
}

# kill_cgroups PLAN-FILE: end whatever still runs in the board's own groups; true when nothing is left.
kill_cgroups() {
    local dir pid file empty=0 _
    while IFS=$'\t' read -r _ _ dir; do
        [[ -d $dir ]] || continue
        while IFS= read -r -d '' file; do
            # A frozen process (a paused container) does not die before it is thawed.
            [[ $file != */freezer.state ]] || { printf THAWED >"$file"; } 2>/dev/null || true
            [[ $file == */cgroup.procs ]] || continue
            while read -r pid; do
                empty=1
                # 0 stands for a process that this namespace cannot see.
                ((pid == 0)) || kill -KILL "$pid" 2>/dev/null || true
            done < <(cat "$file" 2>/dev/null)
        done < <(find "$dir" \( -name cgroup.procs -o -name freezer.state \) -print0 2>/dev/null)
    done <"$1"
    return "$empty"
}

# remove_cgroups PLAN-FILE: true when every directory is gone.
remove_cgroups() {
    local dir left=0 _
    while IFS=$'\t' read -r _ _ dir; do
        [[ -d $dir ]] || continue
        find "$dir" -depth -type d -exec rmdir {} \; 2>/dev/null || true
        [[ ! -d $dir ]] || left=1
    done <"$1"
    return "$left"
}
