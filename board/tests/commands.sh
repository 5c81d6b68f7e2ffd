#!/bin/bash
# Exit statuses, input and output, options, boards that stay.
# shellcheck disable=SC2016 # what stands in single quotes is for the shell on the board
# shellcheck source=lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"

status_of() { board run --quiet -- "$@" >/dev/null 2>&1; echo $?; }

same 'status 0' 0 "$(status_of true)"
same 'status 1' 1 "$(status_of false)"
same 'status of the command' 42 "$(status_of sh -c 'exit 42')"
same 'command killed by SIGKILL' 137 "$(status_of sh -c "kill -9 \$\$")"
same 'command killed by SIGTERM' 143 "$(status_of sh -c "kill -15 \$\$")"
same 'no such command' 127 "$(status_of /no/such/program)"
same 'input and output pass through' "HELLO" "$(echo hello | board run --quiet -- tr a-z A-Z)"
same 'large output is whole' 3000000 "$(head -c 3000000 /dev/zero | board run --quiet -- cat | wc -c)"
same 'standard error is separate' err "$(board run --quiet -- sh -c 'echo out; echo err >&2' 2>&1 >/dev/null)"
same 'arguments stay whole' "a b|*|" "$(board run --quiet -- printf '%s|' 'a b' '*')"
same 'quiet says nothing' '' "$(board run --quiet -- true 2>&1)"
same 'without quiet the suite is said' 1 "$(board run -- true 2>&1 | grep -c 'with Podman')"

same 'environment' 'x=y z' "$(board run --quiet --env 'Q=x=y z' -- printenv Q)"
same 'clean environment' '' "$(SECRET=1 board run --quiet -- sh -c "echo \$SECRET")"
echo content >"$SCRATCH/file"
mkdir "$SCRATCH/dir"
same 'bind a file read-only' content \
    "$(board run --quiet --bind "$SCRATCH/file:/some/where:ro" -- sh -c 'cat /some/where; echo x >/some/where' 2>/dev/null)"
same 'read-only bind stayed' content "$(cat "$SCRATCH/file")"
board run --quiet --bind "$SCRATCH/dir:/userstorage1/shared" -- sh -c 'echo new >/userstorage1/shared/made'
same 'bind a directory writable' new "$(cat "$SCRATCH/dir/made" 2>&1)"
same 'one CPU' 0 "$(board run --quiet --cpus 0 -- sed -n 's/^Cpus_allowed_list:\t//p' /proc/self/status)"
board run --quiet -- sleep 0 2>"$SCRATCH/started"
holds 'start below two seconds' timeout 2 "$BOARD" run --quiet -- true

name=$(board up --quiet --name test-$$-a --env KEPT=yes)
same 'up prints the name' "test-$$-a" "$name"
same 'exec' 'yes 7' "$(board exec "$name" -- sh -c "echo \$KEPT \$((3+4))")"
board exec "$name" sh -c 'exit 9'
same 'exec status' 9 $?
board exec "$name" sh -c 'echo kept >/tmp/file; sleep 1000 </dev/null >/dev/null 2>&1 &'
same 'a board stays as it was left' 'kept 1' \
    "$(board exec "$name" sh -c "cat /tmp/file; pgrep -c -fx 'sleep 1000'" | xargs)"
same 'shell reads commands' 5 "$(echo 'echo $((2+3))' | board shell "$name")"
holds 'list shows it' grep -q "^$name .* up " <(board list)
board exec "$name" sh -c "perl -MIO::Socket::INET -e '
    \$s = IO::Socket::INET->new(LocalAddr => \"127.0.0.1\", LocalPort => 81, Listen => 5) or die;
    while (\$c = \$s->accept) { \$l = <\$c>; print \$c \"heard \$l\"; close \$c }' </dev/null >/dev/null 2>&1 &"
"$BOARD" forward "$name" 81 >"$SCRATCH/port" &
forward=$!
for _ in {1..100}; do [[ ! -s $SCRATCH/port ]] || break; sleep 0.1; done
say_through() { (exec 3<>"/dev/tcp/127.0.0.1/$(<"$SCRATCH/port")" && echo "$1" >&3 && cat <&3); }
same 'forward' 'heard hello' "$(say_through hello)"
same 'forward again' 'heard you' "$(say_through you)"
same 'forward is for this machine alone' '127.0.0.1' \
    "$(ss -Hltn "sport = :$(<"$SCRATCH/port")" | awk '{ sub(/:[0-9]*$/, "", $4); print $4 }')"
second=$(timeout 5 "$BOARD" forward --listen "$(<"$SCRATCH/port")" "$name" 81 || true)
holds 'forward takes another port when one is taken' test "${second:-0}" -gt 0 -a "$second" != "$(<"$SCRATCH/port")"
board forward "$name" http 2>/dev/null
same 'forward wants a port' 64 $?
board up --quiet --name "$name" >/dev/null 2>&1
same 'name taken' 74 $?
board exec "$name" sh -c 'exec sleep 300' &
front=$!
sleep 0.5
board down "$name"
same 'down' 0 $?
wait "$front"
same 'exec ends with its board' 137 $?
wait "$forward"
same 'forward ends with its board' 0 $?
board down "$name" >/dev/null 2>&1
same 'down twice' 72 $?
for command in fetch run up exec shell forward list down sweep; do
    holds "help of $command" grep -q usage <(board "$command" --help)
done
finish
