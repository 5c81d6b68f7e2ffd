# shellcheck shell=bash disable=SC2154  # root is set by qx
# Benchmarks.

measure_idle_daemon() { # RESULT
    board/board run --quiet --bind "$root/build/release/stage:/opt/qx:ro" --bind "$root/bench/idle-daemon.sh:/idle-daemon:ro" -- \
        /idle-daemon >"$1"
}

measure_library() { # RESULT
    local stripped=build/bench/library
    strip -o "$stripped" build/release/libQxContainerUtils.so
    printf '{"context": {"filter": "."}, "benchmarks": [
  {"run_name": "StrippedLibrary/ours", "run_type": "iteration", "bytes": %d}
]}\n' "$(stat -c %s "$stripped")" >"$1"
}

task_bench() {
    case ${1:-} in
        -h | --help)
            say "Usage: ./qx bench [FILTER]"
            say "Measures the product beside the bare minimum of the same work and prints one table of ratios."
            say "FILTER is a regular expression on the names of the benchmarks."
            return ;;
        -*) die 2 "bench has no option '$1'; see ./qx bench --help" ;;
    esac
    require_root bench
    build release
    local program results=() status=0
    mkdir -p build/bench
    for program in build/release/bin/*_bench; do
        local result
        result=build/bench/$(basename "$program").json
        step "Measure $(basename "$program")" "$program" --benchmark_repetitions=5 \
            --benchmark_enable_random_interleaving=true \
            --benchmark_filter="${1:-.}" --benchmark_out="$result" --benchmark_out_format=json
        results+=("$result")
    done
    if [ -z "${1:-}" ]; then
        board/board fetch --suite auto
        step "Stage the product for the board" stage_for_board release
        step "Measure the daemon at rest" measure_idle_daemon build/bench/idle_daemon.json
        step "Measure the library" measure_library build/bench/library.json
        results+=(build/bench/idle_daemon.json build/bench/library.json)
    fi
    python3 tools/qx/bench_table.py bench/targets.json "${results[@]}" || status=$?
    [ $status = 0 ] || die 1 "a target was missed; this machine may be busy, run it again alone before you look further"
}
