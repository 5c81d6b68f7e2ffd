# shellcheck shell=bash disable=SC2154  # root is set by qx
# Benchmarks.

# What is measured by a script instead of a program of benchmarks.
idle_daemon_rows=(IdleDaemonResident/ours IdleDaemonWakeUps/ours)
library_rows=(StrippedLibrary/ours)

measure_idle_daemon() { # RESULT
    board/board run --quiet --bind "$root/build/release/stage:/opt/qx:ro" --bind "$root/bench/idle-daemon.sh:/idle-daemon:ro" -- \
        /idle-daemon >"$1"
}

measure_library() { # RESULT
    local stripped=build/bench/library
    strip -o "$stripped" build/release/libQxContainerUtils.so
    printf '{"benchmarks": [
  {"run_name": "StrippedLibrary/ours", "run_type": "iteration", "bytes": %d}
]}\n' "$(stat -c %s "$stripped")" >"$1"
}

choose() { # FILTER; names of benchmarks, a line each
    python3 tools/qx/bench_table.py --choose "$1"
}

task_bench() {
    case ${1:-} in
        -h | --help)
            say "Usage: ./qx bench [FILTER]"
            say "Measures the product beside the bare minimum of the same work and prints one table of ratios."
            say "FILTER is a regular expression on the names in the table."
            return ;;
        -*) die 2 "bench has no option '$1'; see ./qx bench --help" ;;
    esac
    require_root bench
    build release
    local filter=${1:-.} program result names results=() some=() status=0
    [ "$filter" = . ] || some=(--some)
    mkdir -p build/bench
    for program in build/release/bin/*_bench; do
        names=$("$program" --benchmark_list_tests | choose "$filter")
        [ -n "$names" ] || continue
        result=build/bench/$(basename "$program").json
        step "Measure $(basename "$program")" "$program" --benchmark_repetitions=5 \
            --benchmark_enable_random_interleaving=true \
            --benchmark_filter="^(${names//$'\n'/|})\$" --benchmark_out="$result" --benchmark_out_format=json
        results+=("$result")
    done
    if [ -n "$(printf '%s\n' "${idle_daemon_rows[@]}" | choose "$filter")" ]; then
        board/board fetch --suite auto
        step "Stage the product for the board" stage_for_board release
        step "Measure the daemon at rest" measure_idle_daemon build/bench/idle_daemon.json
        results+=(build/bench/idle_daemon.json)
    fi
    if [ -n "$(printf '%s\n' "${library_rows[@]}" | choose "$filter")" ]; then
        step "Measure the library" measure_library build/bench/library.json
        results+=(build/bench/library.json)
    fi
    [ ${#results[@]} != 0 ] || die 2 "no benchmark's name matches '$filter'; docs/performance.md has their names"
    python3 tools/qx/bench_table.py "${some[@]}" bench/targets.json "${results[@]}" || status=$?
    [ $status = 0 ] || die 1 "a target was missed; this machine may be busy, run it again alone before you look further"
}
