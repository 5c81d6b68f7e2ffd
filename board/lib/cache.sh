# shellcheck shell=bash disable=SC2034,SC2154 # one of several parts that share their variables
# The cache: one directory per suite and recipe, holding the root file system, the firmware image and the
# busybox image. It is built under a temporary name and renamed, so what has its final name is whole.

# Raise it whenever build.sh or firmware.sh make something else than before.
readonly RECIPE=1
readonly ROOTFS_PACKAGES=libcurl4t64,busybox-static,iproute2,nftables,curl,ca-certificates,e2fsprogs,procps,mount
FIRMWARE_PACKAGES=podman,crun,conmon,docker-compose,netavark,aardvark-dns,catatonit
readonly FIRMWARE_PACKAGES+=,containernetworking-plugins

cache_entry() { # SUITE
    local key
    key=$(printf '%s %s %s %s' "$1" "$RECIPE" "$ROOTFS_PACKAGES" "$FIRMWARE_PACKAGES" | sha256sum)
    printf '%s/%s-%s\n' "$CACHE" "$1" "${key:0:12}"
}

entry_is_whole() { [[ -r $1/info && -d $1/rootfs && -d $1/cfdrive ]]; }

entry_value() { sed -n "s/^$2=//p" "$1/info"; } # ENTRY KEY

# supervise WHAT LOG COMMAND...: run a long step in namespaces of its own (whatever it mounts or starts dies with
# it, also when this process is killed), and say every few seconds how far it is.
supervise() {
    local what=$1 log=$2 started=$SECONDS shown=$SECONDS status=0
    shift 2
    (quit_with_parent KILL setsid unshare --mount --pid --fork --kill-child --mount-proc -- "$@" \
        </dev/null >"$log" 2>&1) &
    supervised=$!
    while kill -0 "$supervised" 2>/dev/null; do
        sleep 0.2
        ((SECONDS - shown < 5)) && continue
        shown=$SECONDS
        say "  $what: $((SECONDS - started)) s  $(tail -n 1 "$log" | cut -c 1-70)"
    done
    wait "$supervised" || status=$?
    supervised=
    return "$status"
}

with_cache_lock() { # COMMAND...: so that two boards that start at once build once
    local lock
    exec {lock}>"$CACHE/lock"
    if ! flock -n "$lock"; then
        say "another board is filling the cache; waiting for it"
        until flock -w 1 "$lock"; do :; done
    fi
    "$@"
    exec {lock}>&-
}

# Entries of an older recipe, unless a running board stands on them.
prune_entries() { # SUITE ENTRY-TO-KEEP
    local entry
    for entry in "$CACHE/$1"-*; do
        [[ -d $entry && $entry != "$2" ]] || continue
        ! grep -qsxF "$entry" "$STATE_ROOT"/*/entry || continue
        rm -rf --one-file-system -- "$entry"
    done
}

build_entry() { # SUITE ENTRY
    local mirror log=$temp/build.log
    entry_is_whole "$2" && return
    check_build_tools
    check_space "$CACHE" 1536 "building the cache"
    mirror=$(find_mirror)
    rm -rf --one-file-system -- "$2" "$temp/entry"
    mkdir -p "$temp/entry"
    say "filling the cache for $1 (once; about a minute)"
    if ! supervise "$1" "$log" bash "$BOARD_DIR/lib/build.sh" entry "$1" "$mirror" "$temp/apt" "$temp/entry" \
        "$ROOTFS_PACKAGES" "$FIRMWARE_PACKAGES"; then
        tail -n 12 "$log" | sed 's/^/  | /' >&2
        grep -q '^== lists ok' "$log" || die "$EXIT_REGISTRY" "the package archive $mirror does not answer for $1" \
            "check the network and apt's sources, then: board fetch --suite $1"
        die "$EXIT_BUILD" "building the board's root file system failed (above: the last lines of its log)" \
            "try again; then perhaps another suite: board fetch --suite $FALLBACK_SUITE"
    fi
    mv -T -- "$temp/entry" "$2"
    prune_entries "$1" "$2"
    say "cache filled: $(du -sh "$2/rootfs" | cut -f 1) root file system, $(du -sh "$2/cfdrive" | cut -f 1) firmware"
}

# fill_cache auto|SUITE: sets suite and entry.
fill_cache() {
    make_cache_dir
    mkdir -p "$temp"
    choose_suite "$1"
    entry=$(cache_entry "$suite")
    entry_is_whole "$entry" || with_cache_lock build_entry "$suite" "$entry"
    say "$suite with Podman $(entry_value "$entry" podman) ($suite_why)"
}
