# shellcheck shell=bash disable=SC2154  # root is set by qx
# The demonstration: the container service with the real Podman on a virtual board.

demo_help() {
    cat <<'TEXT'
Usage: ./qx demo [--stay] [--suite auto|trixie|forky]

Builds the product, brings up a virtual board, runs the container service on it with the real Podman and tells what
happens. The board is removed afterwards.

  --stay     leave the board up with the service running
  --suite S  the Debian suite that the container tools come from
TEXT
}

# pack_plugins DIR: two small plugins whose init commands leave their names behind.
pack_plugins() {
    local name priority
    while read -r name priority; do
        mkdir -p "build/demo/$name"
        printf '#!/bin/sh\necho %s >>/run/plugins-initialised\n' "$name" >"build/demo/$name/setup.sh"
        build/release/bin/crp pack --name "$name" --version 1.0.0 --init ./setup.sh --priority "$priority" \
            --dir "build/demo/$name" -o "$1/$name.crp"
    done <<'LIST'
sensors 20
network 10
LIST
}

# up_until_exit NAME OPTIONS...: a board that goes when this shell ends, in whatever way, unless the trap is taken back.
up_until_exit() {
    local down="board/board down '$1' >/dev/null 2>&1 || true"
    # The values are put into the traps now: when they run, this function's variables are gone.
    # shellcheck disable=SC2064
    trap "kill \$(jobs -p) 2>/dev/null || true; wait || true; $down" EXIT
    # In the foreground it would not hear of the end of this shell.
    board/board up --quiet --name "$@" >/dev/null &
    wait $!
    # shellcheck disable=SC2064
    trap "$down" EXIT
}

# reach_page BOARD: makes the page of the daemon there reachable on this machine; sets page_port.
reach_page() {
    coproc FORWARD { exec setsid board/board forward --listen 8089 "$1" 8089 2>/dev/null; }
    read -r page_port <&"${FORWARD[0]}"
}

# new_token BOARD NAME [--act]
new_token() { board/board exec "$1" -- /opt/qx/bin/qxctl token create "${@:3}" "$2"; }

show_page() { # BOARD
    reach_page "$1" || return 0
    say "The web page, with a token that may act:"
    say "  http://127.0.0.1:$page_port/#token=$(new_token "$1" demo --act)"
}

task_demo() {
    local stay='' suite=auto name="demo-$$" status=0
    while [ $# -gt 0 ]; do
        case $1 in
            --stay) stay=stay ;;
            --suite)
                [ $# -gt 1 ] || die 2 "--suite needs a name"
                suite=$2
                shift ;;
            -h | --help) demo_help; return ;;
            *) die 2 "demo has no option '$1'; see ./qx demo --help" ;;
        esac
        shift
    done
    require_root demo
    say "Preparing"
    install_packages packages.txt board/packages.txt
    build release
    board/board fetch --suite "$suite"
    step "Stage the product for the board" stage_for_board release
    install -D tools/demo/on-board.sh build/release/stage/share/demo/on-board.sh
    step "Pack two plugins" pack_plugins build/release/stage/share/demo

    up_until_exit "$name" --suite "$suite" --bind "$root/build/release/stage:/opt/qx:ro"
    board/board exec "$name" -- /opt/qx/share/demo/on-board.sh "$stay" || status=$?
    if [ -n "$stay" ]; then
        show_page "$name"
        say "The board stays up. Look around with:  ./qx board shell $name"
        say "Remove it with:                        ./qx board down $name"
        trap - EXIT
    fi
    [ $status = 0 ] || die 1 "the demonstration did not go as it should; see above"
}

task_board() {
    exec "$root/board/board" "$@"
}
