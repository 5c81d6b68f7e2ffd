# shellcheck shell=bash disable=SC2034,SC2154 # one of several parts that share their variables
# Boards that exist: one directory each below STATE_ROOT, claimed by renaming, removed last.
#   owner  the process whose end ends the board      init     "PID STARTTIME" of the board's first process
#   kind   run or up                                 cgroups  plan of the control groups (cgroup.sh)
#   entry  cache entry it stands on                  devices  device numbers of the board's file systems
#   binds, env  options                              log      what the start had to say
#   cache  cache directory with the owner's files

check_name() {
    [[ $1 =~ ^[a-z0-9][a-z0-9-]{0,30}$ ]] ||
        die "$EXIT_USAGE" "'$1' is no board name" "use lower-case letters, digits and hyphens, at most 31"
}

# claim_name NAME OWNER KIND: sets state.
claim_name() {
    local fresh=$STATE_ROOT/.new-$2
    # The last board to go removes the root directory too, perhaps between these two steps.
    until mkdir "$fresh" 2>/dev/null; do mkdir -p "$STATE_ROOT"; done
    printf '%s\n' "$2" >"$fresh/owner"
    printf '%s\n' "$3" >"$fresh/kind"
    printf '%s\n' "$CACHE" >"$fresh/cache"
    if ! mv -T -- "$fresh" "$STATE_ROOT/$1" 2>/dev/null; then
        rm -rf -- "$fresh"
        die "$EXIT_TAKEN" "there is a board named '$1' already" "another --name, or: board down $1"
    fi
    state=$STATE_ROOT/$1
}

state_value() { # NAME FILE
    cat -- "$STATE_ROOT/$1/$2" 2>/dev/null || true
}

board_names() {
    local dir
    for dir in "$STATE_ROOT"/*/; do
        [[ ! -d $dir ]] || basename -- "$dir"
    done
}

# init_of NAME: process id of the board's init, if it lives.
init_of() {
    local pid started
    read -r pid started 2>/dev/null <"$STATE_ROOT/$1/init" || return 1
    [[ $(start_time "$pid") == "$started" ]] || return 1
    printf '%s\n' "$pid"
}

need_board() { # NAME: sets init
    [[ -d $STATE_ROOT/$1 ]] || die "$EXIT_UNKNOWN" "there is no board named '$1'" "see: board list"
    init=$(init_of "$1") || init=
    [[ -n $init && -e $STATE_ROOT/$1/ready ]] ||
        die "$EXIT_UNKNOWN" "the board '$1' is not running" "board sweep, then board up"
}

list_boards() {
    local name status
    printf '%-20s %-5s %-8s %-8s %s\n' NAME KIND STATUS INIT SYSTEM
    for name in $(board_names); do
        status=starting
        [[ ! -e $STATE_ROOT/$name/ready ]] || status=up
        is_alive "$(state_value "$name" owner)" || status=dead
        printf '%-20s %-5s %-8s %-8s %s\n' "$name" "$(state_value "$name" kind)" "$status" \
            "$(init_of "$name" || echo -)" "$(basename -- "$(state_value "$name" entry)")"
    done
}
