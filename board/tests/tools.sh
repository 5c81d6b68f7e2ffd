#!/bin/bash
# The whole tool chain by hand: firmware, links, CPU set, Podman service, containers, compose.
#   tools.sh [SUITE EXTENT]...   default: auto full trixie short
# shellcheck source=lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"
(($# > 0)) || set -- auto full trixie short

# The highest CPU, so that the set is not what a container would have got anyway (with two CPUs or more).
cpu=$(($(nproc) - 1))
while (($# > 1)); do
    before=$(picture)
    while IFS= read -r line; do
        case $line in
            ok\ *) ok "$1: ${line#ok }" ;;
            FAIL\ *) fail "$1: ${line#FAIL }" ;;
            *) echo "$line" ;;
        esac
    done < <(board run --quiet --suite "$1" --bind "$TESTS/inside/toolchain.sh:/opt/toolchain.sh:ro" -- \
        /opt/toolchain.sh "$2" "$cpu" 2>&1 || echo "FAIL ended with status $?")
    settles "$1: nothing left, even of a paused container" "$before"
    shift 2
done
finish
