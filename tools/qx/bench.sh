# shellcheck shell=bash disable=SC2154  # root is set by qx
# Benchmarks.

# Rows that no program of benchmarks measures.
idle_daemon_rows=(IdleDaemonResident IdleDaemonWakeUps)
library_row=StrippedLibrary

# result NAME UNIT VALUE: one, in the form of Google Benchmark's.
result() {
    printf '{"run_name": "%s/ours", "run_type": "iteration", "%s": %s}' "$@"
}

measure_idle_daemon() { # RESULT
    local said resident wake_ups
    said=$(board/board run --quiet --bind "$root/build/release/stage:/opt/qx:ro" \
        --bind "$root/bench/idle-daemon.sh:/idle-daemon:ro" -- /idle-daemon)
    read -r resident wake_ups <<<"$said"
    printf '{"benchmarks": [%s, %s]}\n' "$(result "${idle_daemon_rows[0]}" bytes "$resident")" \
        "$(result "${idle_daemon_rows[1]}" count "$wake_ups")" >"$1"
}

measure_library() { # RESULT
    local stripped=build/bench/library
    strip -o "$stripped" build/release/libQxContainerUtils.so
    printf '{"benchmarks": [%s]}\n' "$(result "$library_row" bytes "$(stat -c %s "$stripped")")" >"$1"
}

choose() { # FILTER; names of benchmarks, a line each
    python3 tools/qx/bench_table.py --choose -- "$1"
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
    local filter=${1:-.} program result names results=() status=0
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
    if [ -n "$(echo "$library_row" | choose "$filter")" ]; then
        step "Measure the library" measure_library build/bench/library.json
        results+=(build/bench/library.json)
    fi
    [ ${#results[@]} != 0 ] || die 2 "no benchmark's name matches '$filter'; docs/performance.md has their names"
    python3 tools/qx/bench_table.py -- "$filter" bench/targets.json "${results[@]}" || status=$?
    [ $status = 0 ] || die 1 "a target was missed; this machine may be busy, run it again alone before you look further"
}
