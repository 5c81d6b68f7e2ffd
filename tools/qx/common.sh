# shellcheck shell=bash disable=SC2154  # root is set by qx
# What all tasks share: messages, and long steps that show that they are alive.

die() {
    local status=$1
    shift
    printf 'qx: %s\n' "$*" >&2
    exit "$status"
}

say() { printf '%s\n' "$*"; }

# count_seconds TEXT: shows on one line of the terminal how long it takes, until it is ended.
count_seconds() {
    local started=$SECONDS
    while kill -0 $$ 2>/dev/null; do
        printf '\r  %-60s %4ds ' "$1 ..." $((SECONDS - started))
        sleep 0.2
    done
}

# step TEXT COMMAND...: runs a long command with its output in a log file; on a terminal the seconds count up. When
# it fails, the end of the log is shown.
step() {
    local text=$1
    shift
    mkdir -p "$root/build/logs" 2>/dev/null || die 3 "cannot write to $root/build; whoever made it must, or root"
    local log started=$SECONDS status counter=''
    log="$root/build/logs/$(printf '%s' "$text" | tr -cs 'A-Za-z0-9' '-').log"
    if [ -t 1 ]; then
        count_seconds "$text" &
        counter=$!
    else
        printf '  %s ...\n' "$text"
    fi
    # Not beside "||" or "if", where a shell goes on after a command that failed.
    set +e
    (
        set -e
        "$@"
    ) >"$log" 2>&1 </dev/null
    status=$?
    set -e
    if [ -n "$counter" ]; then
        { kill "$counter" && wait "$counter"; } 2>/dev/null || true
        printf '\r\033[K'
    fi
    if [ $status -ne 0 ]; then
        tail -n 40 "$log" >&2
        die 1 "$text failed; the whole output is in ${log#"$root"/}"
    fi
    printf '  %-60s %4ds\n' "$text" $((SECONDS - started))
}

require_root() {
    [ "$(id -u)" = 0 ] || die 3 "this needs root: it installs packages and makes namespaces and mounts. Try: sudo ./qx $*"
}
