# shellcheck shell=bash disable=SC2034,SC2154 # one of several parts that share their variables
# Ground for all board scripts: exit codes, messages, places, and who owns what.

readonly EXIT_USAGE=64 EXIT_NOT_ROOT=65 EXIT_TOOL=66 EXIT_LOOP=67 EXIT_FILESYSTEM=68 EXIT_CGROUP=69
readonly EXIT_REGISTRY=70 EXIT_DISK=71 EXIT_UNKNOWN=72 EXIT_START=73 EXIT_TAKEN=74 EXIT_BUILD=75

readonly STATE_ROOT=/run/qx-boards
CACHE=${QX_CACHE_DIR:-${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/quolex-board}

# Root's PATH lacks the sbin directories after a plain "su".
PATH=$PATH:/usr/sbin:/sbin

QUIET=${QUIET:-}

say() { [[ -n $QUIET ]] || printf 'board: %s\n' "$*" >&2; }
warn() { printf 'board: %s\n' "$*" >&2; }

# die CODE MESSAGE [REMEDY]: one clear message, the way out of it, a code of its own.
die() {
    warn "$2"
    [[ -z ${3:-} ]] || printf '  remedy: %s\n' "$3" >&2
    exit "$1"
}

# A process id alone may be used again; together with the start time it is one process for ever.
start_time() {
    local stat state_and_rest
    { read -r stat <"/proc/$1/stat"; } 2>/dev/null || return 1
    state_and_rest=${stat##*) }
    # shellcheck disable=SC2086 # the fields are wanted one by one
    set -- $state_and_rest
    [[ $1 != Z && $1 != X ]] || return 1
    printf '%s\n' "${20}"
}

parent_of() { sed -n 's/^PPid:\t//p' "/proc/$1/status"; } # PID

# id_of PID: the name "PID-STARTTIME" under which a process owns boards and temporary files.
id_of() {
    local started
    started=$(start_time "$1") || return 1
    printf '%s-%s\n' "$1" "$started"
}

is_alive() { # ID
    [[ $1 =~ ^[0-9]+-[0-9]+$ && $(start_time "${1%-*}") == "${1#*-}" ]]
}

# new_pipe VARIABLE: an anonymous pipe, both ends in one descriptor; no name that could be left behind.
new_pipe() {
    local -n pipe_fd=$1
    # shellcheck disable=SC2034 # written through the reference
    exec {pipe_fd}<> <(:)
}

# quit_with_parent SIGNAL COMMAND...: run COMMAND so that it gets SIGNAL when its parent dies, in whatever way.
quit_with_parent() { exec setpriv --pdeathsig "$1" -- "${@:2}"; }

temp_dir_of() { printf '%s/tmp.%s\n' "$CACHE" "$1"; } # OWNER-ID
