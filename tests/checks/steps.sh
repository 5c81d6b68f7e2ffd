#!/usr/bin/env bash
# Holds the steps of ./qx to it that one of several commands that fails makes them fail, and everything after them undone.
# Usage: steps.sh SOURCES
set -euo pipefail
sources=$1
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
cat >"$root/task" <<'SCRIPT'
set -euo pipefail
root=$1
. "$2/tools/qx/common.sh"
fine() { echo fine >"$root/fine"; }
broken() {
    echo before
    false
    echo after >"$root/after"
}
step "Do what works" fine
step "Do what breaks" broken
echo next >"$root/next"
SCRIPT
status=0
output=$(bash "$root/task" "$root" "$sources" 2>&1) || status=$?
[ "$status" = 1 ] || { echo "the task ended with $status"; exit 1; }
[ -e "$root/fine" ] || { echo "a step that works was not done"; exit 1; }
[ ! -e "$root/after" ] || { echo "a step went on after a command that failed"; exit 1; }
[ ! -e "$root/next" ] || { echo "the task went on after a step that failed"; exit 1; }
grep -q 'qx: Do what breaks failed; the whole output is in build/logs/Do-what-breaks.log' <<<"$output" ||
    { echo "it is not said what failed: $output"; exit 1; }
grep -q '^before$' <<<"$output" || { echo "the end of the log is not shown: $output"; exit 1; }
