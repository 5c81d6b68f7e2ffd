#!/bin/bash
# janitor.sh OWNER NAME: the one who cleans up. A session of its own, so that no Ctrl-C reaches it; the kernel sends
# it SIGTERM when its parent, the owner, dies in whatever way; the owner sends the same when it ends as it should.
set -euo pipefail
BOARD_DIR=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)
# shellcheck source=common.sh
source "$BOARD_DIR/lib/common.sh"
# shellcheck source=state.sh
source "$BOARD_DIR/lib/state.sh"
# shellcheck source=cgroup.sh
source "$BOARD_DIR/lib/cgroup.sh"
# shellcheck source=clean.sh
source "$BOARD_DIR/lib/clean.sh"

finish() {
    trap '' TERM
    # The shell's "Killed" belongs to nobody.
    [[ -z ${nap:-} ]] || { kill -KILL "$nap" && wait "$nap"; } 2>/dev/null || true
    remove_board "$2" "$1"
    # Of an owner that was stopped while it claimed the name.
    rm -rf --one-file-system -- "$STATE_ROOT/.new-$1"
    rmdir -- "$STATE_ROOT" 2>/dev/null || true
    remove_temp "$1"
    exit 0
}

trap 'finish "$@"' TERM
# The owner may have died before the kernel knew that we wanted to hear of it.
[[ $PPID == "${1%-*}" ]] || finish "$@"
echo armed
exec >/dev/null
while :; do
    setpriv --pdeathsig KILL sleep infinity &
    nap=$!
    wait "$nap" || true
done
