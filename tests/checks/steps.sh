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

# expect HOW COMMAND...: runs the task in that way.
expect() {
    local how=$1 status=0 output
    shift
    rm -f "$root"/fine "$root"/after "$root"/next
    output=$("$@" 2>&1) || status=$?
    [ "$status" = 1 ] || fail "the task ended with $status"
    [ -e "$root/fine" ] || fail "a step that works was not done"
    [ ! -e "$root/after" ] || fail "a step went on after a command that failed"
    [ ! -e "$root/next" ] || fail "the task went on after a step that failed"
    grep -q 'qx: Do what breaks failed; the whole output is in build/logs/Do-what-breaks.log' <<<"$output" ||
        fail "it is not said what failed: $output"
    grep -Eq $'(^|\e\\[K)before' <<<"$output" || fail "the end of the log is not shown: $output"
}

fail() {
    echo "$how: $1"
    exit 1
}

expect "in a pipe" bash "$root/task" "$root" "$sources"
expect "on a terminal" script -qec "bash '$root/task' '$root' '$sources'" /dev/null
