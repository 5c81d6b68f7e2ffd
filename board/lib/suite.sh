# shellcheck shell=bash disable=SC2034,SC2154 # one of several parts that share their variables
# Which Debian suite the board is made of: from the machine's own mirror, without touching its apt state.

readonly KEYRING=/usr/share/keyrings/debian-archive-keyring.gpg
readonly SUITES=(forky trixie)
readonly PREFERRED_SUITE=forky FALLBACK_SUITE=trixie PREFERRED_PODMAN=5.8
readonly DECISION_HOURS=12

# The archive that this machine itself installs from (not its security or updates part).
find_mirror() {
    local codename uri release component
    if [[ -n ${QX_MIRROR:-} ]]; then
        printf '%s\n' "${QX_MIRROR%/}"
        return
    fi
    codename=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
    while read -r uri release component; do
        [[ $release == "$codename" && $component == main ]] || continue
        printf '%s\n' "${uri%/}"
        return
    done < <(apt-get indextargets --format "\$(REPO_URI) \$(RELEASE) \$(COMPONENT)" 'Created-By: Packages')
    die "$EXIT_REGISTRY" "apt of this machine has no Debian archive for '$codename main'" \
        "add it to apt's sources, or set QX_MIRROR to the address of a Debian archive"
}

# private_apt DIRECTORY STATUS-FILE COMMAND...: apt with every state file below DIRECTORY.
private_apt() {
    local dir=$1 status=$2
    shift 2
    LC_ALL=C "$@" -o "Dir::State=$dir/state" -o "Dir::State::Lists=$dir/lists" -o "Dir::State::status=$status" \
        -o "Dir::State::extended_states=$dir/state/extended" -o "Dir::Cache=$dir/cache" \
        -o "Dir::Etc::sourcelist=$dir/sources.list" -o "Dir::Etc::sourceparts=$dir/none" \
        -o "Dir::Etc::preferences=$dir/none/x" -o "Dir::Etc::preferencesparts=$dir/none" \
        -o APT::Sandbox::User=root -o Acquire::Languages=none -o Acquire::Retries=1 \
        -o Acquire::http::Timeout=15 -o APT::Update::Error-Mode=any
}

# update_lists SUITE MIRROR DIRECTORY: fill DIRECTORY with the package lists of a suite.
update_lists() {
    local suite=$1 mirror=$2 dir=$3
    mkdir -p "$dir/none" "$dir/state" "$dir/lists/partial" "$dir/cache/archives/partial"
    : >"$dir/status"
    printf 'deb [signed-by=%s] %s %s main\n' "$KEYRING" "$mirror" "$suite" >"$dir/sources.list"
    private_apt "$dir" "$dir/status" timeout 180 apt-get -q update
}

# podman_in DIRECTORY: upstream version of Podman in the lists there, such as 5.8.6.
podman_in() {
    private_apt "$1" "$1/status" apt-cache show --no-all-versions podman 2>/dev/null |
        sed -n 's/^Version: \([0-9.]*\).*/\1/p' | head -n 1
}

read_decision() { # sets decided_suite, decided_why; fails when there is none or it is too old
    local made now
    [[ -r $CACHE/decision ]] || return 1
    { read -r made && read -r decided_suite && read -r decided_why; } <"$CACHE/decision" || return 1
    now=$(date +%s)
    ((now - made < DECISION_HOURS * 3600 && now >= made))
}

write_decision() { # SUITE WHY
    printf '%s\n%s\n%s\n' "$(date +%s)" "$1" "$2" >"$temp/decision"
    mv -f -- "$temp/decision" "$CACHE/decision"
}

is_preferred_podman() { [[ $1 == "$PREFERRED_PODMAN" || $1 == "$PREFERRED_PODMAN".* ]]; }

# When the archive does not answer, whatever lies in the cache will do.
decide_from_cache() {
    local suite entry
    for suite in "${SUITES[@]}"; do
        entry=$(cache_entry "$suite")
        entry_is_whole "$entry" || continue
        decided_suite=$suite
        decided_why="the package archive does not answer; taken from the cache"
        return
    done
    die "$EXIT_REGISTRY" "the package archive $1 does not answer, and the cache is empty" \
        "check the network and apt's sources, then: board fetch"
}

# A cached board of the preferred line stays good when the archive has moved on.
cached_preferred() {
    local entry
    entry=$(cache_entry "$PREFERRED_SUITE")
    entry_is_whole "$entry" && is_preferred_podman "$(entry_value "$entry" podman)"
}

decide_from_archive() {
    local mirror podman
    check_build_tools
    mirror=$(find_mirror)
    say "asking the package archive which Podman $PREFERRED_SUITE holds"
    if ! supervise "package lists of $PREFERRED_SUITE" "$temp/apt.log" \
        bash "$BOARD_DIR/lib/build.sh" lists "$PREFERRED_SUITE" "$mirror" "$temp/apt"; then
        decide_from_cache "$mirror"
        return
    fi
    podman=$(podman_in "$temp/apt")
    if is_preferred_podman "$podman"; then
        decided_suite=$PREFERRED_SUITE
        decided_why="$PREFERRED_SUITE holds Podman $podman, of the $PREFERRED_PODMAN line"
    elif cached_preferred; then
        decided_suite=$PREFERRED_SUITE
        decided_why="the archive has moved on to Podman $podman, the cache still holds the $PREFERRED_PODMAN line"
    else
        decided_suite=$FALLBACK_SUITE
        decided_why="$PREFERRED_SUITE holds Podman ${podman:-(none)}, not of the $PREFERRED_PODMAN line"
    fi
    write_decision "$decided_suite" "$decided_why"
}

# choose_suite auto|SUITE: sets suite and suite_why.
choose_suite() {
    if [[ $1 != auto ]]; then
        suite=$1 suite_why="asked for"
        return
    fi
    read_decision || decide_from_archive
    # shellcheck disable=SC2034 # both are results
    suite=$decided_suite suite_why=$decided_why
}
