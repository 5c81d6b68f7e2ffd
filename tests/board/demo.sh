#!/usr/bin/env bash
# Holds `./qx demo --stay` to what it says: the page that it names is there, with a token that may act, for as long as the
# board is. One that is cut off leaves no board. Usage: demo.sh SOURCES
set -euo pipefail
cd "$1"
output=$(mktemp)
name=''
demo=''
finish() {
    [ -z "$demo" ] || { kill -TERM "$demo" && wait "$demo"; } 2>/dev/null || true
    [ -z "$name" ] || board/board down "$name" >/dev/null 2>&1 || true
    rm -f "$output"
}
trap finish EXIT

fail() {
    echo "$1"
    cat "$output"
    exit 1
}

# To a file: what stays behind for the page would keep a pipe open.
# With an end of its own, after which there is time to clear up.
status=0
timeout 240 ./qx demo --stay --suite "${QX_BOARD_SUITE:-auto}" >"$output" 2>&1 </dev/null || status=$?
name=$(sed -n 's|^Remove it with: *./qx board down ||p' "$output")
[ $status = 0 ] || fail "the demonstration failed"
[ -n "$name" ] || fail "it is not said how the board is removed"
address=$(sed -n 's|^ *\(http://127.0.0.1:[0-9]*/\)#token=.*|\1|p' "$output")
token=$(sed -n 's|.*#token=||p' "$output")
[ -n "$address" ] || fail "it is not said where the page is"
[ -n "$token" ] || fail "the page's address has no token"

ask() { curl -sf -m 20 -H "Authorization: Bearer $token" "$@"; }

page=$(ask "$address") || fail "the page is not there"
script=$(grep -o 'src="[^"]*\.js"' <<<"$page" | head -n 1 | cut -d '"' -f 2)
[ -n "$script" ] || fail "the page has no script: $page"
ask -o /dev/null "$address${script#/}" || fail "the page's script is not there"
grep -q '"act"' <<<"$(ask "${address}api/v1/session")" || fail "the token may not act"
grep -q '"running"' <<<"$(ask "${address}api/v1/service")" || fail "the service does not run"
ask -X POST "${address}api/v1/containers/clock/restart" || fail "the token does not act"
grep -q '"state":"running"' <<<"$(ask "${address}api/v1/containers")" || fail "the container does not run"

board/board down "$name" >/dev/null || fail "the board cannot be removed"
! ask -o /dev/null "$address" || fail "the page is there without the board"
boards=$(board/board list)
! grep -q "^$name " <<<"$boards" || fail "the board is there still"
name=''

# cut_off FILE: ends a demonstration when its board has come so far as to have this file of its state.
cut_off() {
    local state tries
    ./qx demo --stay --suite "${QX_BOARD_SUITE:-auto}" >"$output" 2>&1 </dev/null &
    demo=$!
    name=demo-$demo
    state=/run/qx-boards/$name
    for ((tries = 6000; tries > 0; --tries)); do
        [ ! -e "$state/$1" ] || break
        sleep 0.01
    done
    [ $tries -gt 0 ] || fail "its board does not come"
    kill -TERM $demo || fail "it has ended already"
    ! wait $demo || fail "it was not cut off"
    demo=''
    for ((tries = 600; tries > 0; --tries)); do
        [ -d "$state" ] || break
        sleep 0.05
    done
    [ $tries -gt 0 ] || fail "its board, cut off at '$1', is there still"
    name=''
}
for file in owner init ready; do
    cut_off $file
done
