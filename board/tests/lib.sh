# shellcheck shell=bash disable=SC2034
# What the board's tests share: named checks, a final count, and a picture of the machine for leak checks.
set -uo pipefail
TESTS=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
BOARD=$TESTS/../board
BOARD=$(readlink -f "$BOARD")
CACHE=${QX_CACHE_DIR:-${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/quolex-board}
SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/qx-board-test.XXXXXX")
passed=0 failed=0

ok() { passed=$((passed + 1)) && echo "ok $1"; }

fail() { # NAME [DETAIL]
    failed=$((failed + 1))
    echo "FAIL $1"
    [[ -z ${2:-} ]] || printf '    %s\n' "${2//$'\n'/$'\n'    }"
}

same() { # NAME EXPECTED ACTUAL
    if [[ $2 == "$3" ]]; then ok "$1"; else fail "$1" "expected: $2"$'\n'"actual:   $3"; fi
}

holds() { # NAME COMMAND...
    local name=$1 output
    shift
    if output=$("$@" 2>&1); then ok "$name"; else fail "$name" "$output"; fi
}

board() { timeout -k 30 180 "$BOARD" "$@"; }

finish() {
    rm -rf -- "$SCRATCH"
    echo "$passed passed, $failed failed"
    ((failed == 0))
    exit
}

# Everything that a board might leave behind. No other boards may come or go while these tests run.
picture() {
    echo "loops:  $(losetup -n -l -O BACK-FILE | grep -e /tmp. -e /mnt/cfdrive -e /userstorage1 -e ContainerFirmware)"
    echo "groups: $(find /sys/fs/cgroup -name 'qx-board-*' 2>/dev/null)"
    echo "state:  $(ls -A /run/qx-boards 2>/dev/null)"
    echo "temp:   $(find "$CACHE" -maxdepth 1 -name 'tmp.*')"
    echo "mounts: $(grep -e "$CACHE" -e qx-boards -e userstorage1 -e containers_tools /proc/self/mounts)"
    # Not by lsns: it says nothing at all when a process ends while it looks.
    echo "namespaces: $(readlink /proc/[0-9]*/ns/net 2>/dev/null | sort -u | tr -dc '0-9\n' | tr '\n' ' ')"
    echo "processes: $(board_processes)"
}

# By the programs that boards are made of; the tests themselves and whoever looks on are not among them.
board_processes() {
    pgrep -af '(lib/(janitor|boot|build)[.]sh|/opt/board/(init|enter))( |$)' | sort
}

# settles NAME BEFORE: the machine looks as before, at once or after the seconds that a janitor may need.
settles() {
    local tries after
    for tries in {1..100}; do
        after=$(picture)
        if [[ $after == "$2" ]]; then
            ok "$1"
            return
        fi
        sleep 0.1
    done
    fail "$1" "$(diff <(echo "$2") <(echo "$after"))"
}
