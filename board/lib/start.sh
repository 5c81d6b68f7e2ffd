# shellcheck shell=bash disable=SC2034,SC2154 # one of several parts that share their variables
# Starting a board and running commands in it, from the outside.

readonly GRACE_SECONDS=10 START_SECONDS=60
janitor='' chain='' supervised='' command_pid='' got_signal='' grace_timer=''

# become_owner NAME KIND: from here on, whatever happens to this process, its board and its files are taken away.
become_owner() {
    local pipe line
    owner=$(id_of $$)
    temp=$(temp_dir_of "$owner")
    new_pipe pipe
    (
        # The janitor of a board that stays must not hold its caller's output open.
        [[ $2 == run ]] || exec 2>/dev/null
        quit_with_parent TERM setsid bash "$BOARD_DIR/lib/janitor.sh" "$owner" "$1"
    ) </dev/null >&"$pipe" {pipe}>&- &
    janitor=$!
    trap 'release_all' EXIT
    read -r -t 10 -u "$pipe" line || line=
    [[ $line == armed ]] ||
        die "$EXIT_START" "the board's janitor did not start" "look at the load of this machine, then try again"
    exec {pipe}>&-
}

# The janitor does the removal on every path, so that the rare ones are as well tried as the common one.
release_all() {
    local status=$?
    trap '' INT TERM HUP USR1
    trap - EXIT
    [[ -z $supervised ]] || kill -KILL "$supervised" 2>/dev/null || true
    [[ -z $grace_timer ]] || kill -KILL "$grace_timer" 2>/dev/null || true
    kill -TERM "$janitor" 2>/dev/null || true
    wait "$janitor" 2>/dev/null || true
    exit "$status"
}

# start_board NAME KIND: needs owner, temp, entry and the options; sets state and init.
start_board() {
    local pipe line said='' started=$SECONDS
    claim_name "$1" "$owner" "$2"
    mkdir -p "$temp"
    check_space "$temp" 200 "a board"
    printf '%s\n' "$entry" >"$state/entry"
    printf '%s' "${binds[@]/%/$'\n'}" >"$state/binds"
    printf '%s' "${environment[@]/%/$'\n'}" >"$state/env"
    plan_cgroups "$1" >"$state/cgroups"
    create_cgroups "$state/cgroups" "$cpus"
    new_pipe pipe
    (quit_with_parent KILL setsid unshare --mount --pid --net --ipc --uts --fork --kill-child \
        -- bash "$BOARD_DIR/lib/boot.sh" "$state" "$temp" \
        </dev/null >&"$pipe" 2>"$state/log" {pipe}>&-) &
    chain=$!
    until read -r -t 0.1 -u "$pipe" line; do
        kill -0 "$chain" 2>/dev/null || start_failed "its first process ended"
        ((SECONDS - started < START_SECONDS)) || start_failed "not ready after $START_SECONDS s"
        # The time may be over in the middle of a line.
        said+=$line
    done
    exec {pipe}>&-
    [[ $said$line == ready ]] || start_failed "it said '$said$line'"
    init=$(init_of "$1") || start_failed "its init has gone again"
    : >"$state/ready"
}

start_failed() { # WHY
    sed 's/^/  | /' "$state/log" >&2
    die "$EXIT_START" "the board could not start: $1 (above: its log)" \
        "board sweep and another try; if it stays: board fetch with an empty cache"
}

# Becomes COMMAND inside the board. nsenter does not fork: the shell 'enter' does, see there.
enter_board() { # NAME COMMAND...
    local name=$1 variables=()
    shift
    mapfile -t variables <"$STATE_ROOT/$name/env"
    join_cgroups "$STATE_ROOT/$name/cgroups" init || exit "$EXIT_START"
    cd /
    exec setpriv --pdeathsig KILL env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
        HOME=/root LANG=C.UTF-8 TERM="${TERM:-dumb}" "${variables[@]}" "${environment[@]}" \
        "$(command -v nsenter)" --target "$init" --mount --uts --ipc --net --pid --cgroup --no-fork -- \
        /bin/bash /opt/board/enter "$@"
}

# run_inside NAME COMMAND...: returns the command's status.
run_inside() {
    local status=0
    # In the background, so that signals are taken at once; "<&0" keeps our input for it.
    (enter_board "$@") <&0 &
    command_pid=$!
    wait "$command_pid" || true
    while kill -0 "$command_pid" 2>/dev/null; do wait "$command_pid" || true; done
    # A signal to us ends the wait early; only now the status is the command's own, and the shell still knows it.
    wait "$command_pid" || status=$?
    command_pid=
    return "$status"
}

pass_on() { # SIGNAL, to what 'enter' started
    local pid children=()
    { read -r -a children <"/proc/$command_pid/task/$command_pid/children"; } 2>/dev/null || true
    for pid in "${children[@]}"; do
        kill -s "$1" "$pid" 2>/dev/null || true
    done
}

# The first signal is passed on, and the command has some seconds to end; the second one ends it at once.
on_signal() { # SIGNAL NUMBER
    [[ -n $command_pid ]] || exit $((128 + $2))
    if [[ -n $got_signal ]]; then
        pass_on KILL
        # A bare "return" in a trap gives the status from before the trap.
        return 0
    fi
    got_signal=$1
    # A terminal has sent Ctrl-C to the whole group, the command included.
    [[ $1 == INT && -t 0 ]] || pass_on "$1"
    (
        trap - TERM HUP USR1 EXIT
        setpriv --pdeathsig KILL sleep "$GRACE_SECONDS"
        pass_on KILL
    ) </dev/null >/dev/null 2>&1 &
    grace_timer=$!
}

# In the worker SIGINT is called USR1, see there.
take_signals() {
    trap 'on_signal INT 2' USR1
    trap 'on_signal TERM 15' TERM
    trap 'on_signal HUP 1' HUP
}
