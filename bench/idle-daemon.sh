#!/usr/bin/env bash
# Runs on a board: what the daemon costs while nothing happens, as bytes resident and how often it woke up. Podman is
# not asked whether it lives meanwhile, so that every wake-up is one too many.
set -euo pipefail
quiet_seconds=20

mkdir -p /etc/quolex
printf '[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n' >/etc/quolex/platform.ini
/opt/qx/bin/qxcontainerd --enable --cores 1 --liveness-interval 100000 >/tmp/daemon.out 2>&1 &
daemon=$!
trap 'kill -TERM $daemon; wait $daemon' EXIT

is_running() { grep -q 'Spawned Podman correctly' /var/log/quolex/container.log 2>/dev/null; }
for _ in {1..300}; do
    is_running && break
    sleep 0.1
done
is_running || { cat /tmp/daemon.out >&2; exit 1; }
# What asks for more time to start looks half a minute after it asked whether that is still needed.
sleep 32

wake_ups() { cat /proc/$daemon/task/*/status | awk '/^voluntary_ctxt_switches/ { sum += $2 } END { print sum }'; }
before=$(wake_ups)
sleep $quiet_seconds
count=$(($(wake_ups) - before))
bytes=$(awk '/^VmRSS/ { print $2 * 1024 }' /proc/$daemon/status)
echo "$bytes $count"
