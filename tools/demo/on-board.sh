#!/usr/bin/env bash
# The demonstration, as it runs on the board: drives the host daemon and reports what it observes. Every line of the
# report comes from a question to the kernel, to Podman or to the daemon.
set -uo pipefail

certs=/opt/qx/share/certs
socket=/run/podman/podman.sock
export LD_LIBRARY_PATH=/mnt/containers_tools/lib PODMAN_IGNORE_CGROUPSV1_WARNING=1
failures=0
daemon=

now() { date +%s%N; }
seconds_since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f s", (b - a) / 1e9 }'; }
headline() { printf '\n%s\n' "$1"; }
fact() { printf '  %-34s %s\n' "$1" "$2"; }

# expect WHAT WANTED OBSERVED: a fact that has to be so.
expect() {
    if [ "$2" = "$3" ]; then
        fact "$1" "$3"
    else
        fact "$1" "$3   <-- expected: $2"
        failures=$((failures + 1))
    fi
}

ask() { curl -sf -m 10 --unix-socket $socket "http://board/v5.8.1/libpod/$1"; }

# wait_for COMMAND...: at most 30 seconds.
wait_for() {
    local attempt
    for ((attempt = 0; attempt < 300; ++attempt)); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.1
    done
    return 1
}

# shellcheck disable=SC2317  # called through wait_for
is_watched() { [ "$(grep -c 'Spawned Podman correctly' /var/log/quolex/container.log)" -ge "$1" ]; }

start_daemon() {
    local started
    started=$(now)
    env -u LD_LIBRARY_PATH /opt/qx/bin/qxcontainerd "$@" >>/tmp/daemon.out 2>&1 &
    daemon=$!
    if wait_for ask _ping; then
        fact "Podman answers after" "$(seconds_since "$started")"
    else
        expect "Podman answers" "yes" "no: $(tail -n 1 /tmp/daemon.out)"
    fi
}

stop_daemon() {
    local started status=0
    started=$(now)
    kill -TERM "$daemon"
    wait "$daemon" || status=$?
    expect "daemon's exit code" 0 "$status"
    fact "stopped within" "$(seconds_since "$started")"
}

state() {
    case $(sed -n 's/.*"state": \([0-9]*\).*/\1/p' /mnt/cfdrive/containers/container_rte_settings.json) in
        0) echo "not initialised" ;; 1) echo initialised ;; 2) echo running ;; 3) echo stopped ;; 4) echo failed ;;
    esac
}

# Answers of the TCP service to a client: with a certificate, or without.
https_ping() { curl -s -m 10 --cacert $certs/ca.crt "$@" https://localhost:8443/v5.8.1/libpod/_ping || echo refused; }

prepare_board() {
    mkdir -p /etc/quolex
    printf '[ContainerRuntime]\nLogLevel=DEBUG\n[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n' >/etc/quolex/platform.ini
}

first_life() {
    headline "The service starts for the first time"
    start_daemon --enable --cores 1
    fact "firmware image" "$(findmnt -n -o FSTYPE,OPTIONS /mnt/containers_tools | tr -s ' ')"
    fact "Podman" "$(podman version --format '{{.Client.Version}}')"
    fact "user storage" "$(findmnt -n -o SOURCE,FSTYPE /userstorage1 | tr -s ' ')"
    wait_for is_watched 1
    podman import /opt/board/busybox.tar localhost/busybox:1 >/dev/null 2>&1
    podman run -d --name clock --restart=always --network=none -v /opt/qx/bin/qx_demo_clock:/clock:ro \
        localhost/busybox:1 /clock >/dev/null
    if [ "$(printf '5.7\n%s\n' "$(podman version --format '{{.Client.Version}}')" | sort -V | head -n 1)" = 5.7 ]; then
        tls=yes
        cp $certs/ca.crt $certs/server.crt $certs/server.key /mnt/cfdrive/containers/certs/
    fi
    expect "container made" "clock running" "$(podman ps --format '{{.Names}} {{.State}}')"
    stop_daemon
}

second_life() {
    headline "The service starts again${tls:+, now with certificates and a TCP port}"
    # shellcheck disable=SC2086  # no option at all without TLS
    start_daemon ${tls:+--tcp-port 8443}
    wait_for is_watched 2
    expect "service state" running "$(state)"
    expect "came up by itself (restart=always)" "clock running" "$(podman ps --format '{{.Names}} {{.State}}')"
    expect "core of the container" 1 "$(podman exec clock grep Cpus_allowed_list /proc/self/status | cut -f2)"
    expect "core of Podman" 1 "$(grep Cpus_allowed_list "/proc/$(pgrep -f 'system service --time=0 unix' | head -n 1)/status" | cut -f2)"
    expect "REST on the Unix socket" OK "$(ask _ping)"
    expect "containers by REST" '["clock"]' "$(ask 'containers/json' | grep -o '"Names":\["[a-z]*"\]' | cut -d: -f2)"
    if [ -n "$tls" ]; then
        expect "TCP with client certificate" OK "$(https_ping --cert $certs/client.crt --key $certs/client.key)"
        expect "TCP without certificate" refused "$(https_ping)"
    else
        fact "TCP with TLS" "not on this suite: it needs Podman 5.7"
    fi
}

# Two plugins and a compose project, through a small host of its own that prints what the library answers.
operations() {
    local plugins=/userstorage1/container_rte/plugins projects=/userstorage1/container_rte/utilities/compose-files
    mkdir -p $plugins $projects
    cp /opt/qx/share/demo/*.crp $plugins/
    cat >$projects/demo.yaml <<'YAML'
services:
  web: { image: "localhost/busybox:1", network_mode: none, command: &wait ["sh", "-c", "trap 'exit 0' TERM; while :; do sleep 1 & wait $$!; done"] }
  db: { image: "localhost/busybox:1", network_mode: none, command: *wait }
YAML
    local outcome="as they should be"
    env -u LD_LIBRARY_PATH /opt/qx/bin/qx_demo_operations demo.yaml 2>>/tmp/daemon.out ||
        outcome="failed: $(tail -n 1 /tmp/daemon.out)"
    expect "operations" "as they should be" "$outcome"
    expect "init commands, by priority" "network sensors" "$(tr '\n' ' ' </run/plugins-initialised | sed 's/ $//')"
    expect "plugins mounted" "/mnt/crp_network /mnt/crp_sensors" \
        "$(findmnt -n -t squashfs -o TARGET | grep /mnt/crp_ | sort | tr '\n' ' ' | sed 's/ $//')"
}

live_log() {
    headline "The container's log, live at a WebSocket client, with the time from the container to the client"
    LD_LIBRARY_PATH='' /opt/qx/bin/qxctl logs --delay --tail 0 --lines 5 clock 2>&1 | sed 's/^/  /'
    expect "log came" 0 "${PIPESTATUS[0]}"
}

end() {
    headline "The service stops"
    stop_daemon
    expect "service state" stopped "$(state)"
    expect "containers running" 0 "$(podman ps -q | wc -l)"
    expect "Podman services running" 0 "$(pgrep -fc 'podman system service')"
    expect "disk cache" "write back" "$(cat /sys/block/sda/queue/write_cache)"
    headline "What the service logged on its way down"
    tail -n 4 /var/log/quolex/container.log | sed 's/^[^[]*\[/  [/'
}

stay=${1:-}
tls=  # whether this Podman can do TLS
prepare_board
first_life
second_life
live_log
if [ "$stay" = stay ]; then
    disown "$daemon"
else
    end
    operations
fi
printf '\n'
[ $failures = 0 ] || printf '%d of the facts above are not as they should be.\n' "$failures"
exit $((failures > 0))
