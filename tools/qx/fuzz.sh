# shellcheck shell=bash
# Fuzzing the parsers.

# run_fuzzers SECONDS: every target for so long, one on each core; a finding is left in build/fuzz/findings.
run_fuzzers() {
    local targets
    build fuzz
    targets=(build/fuzz/bin/*_fuzz)
    step "Fuzz ${#targets[@]} targets for $1 s each" fuzz_all "$1" "${targets[@]}"
}

# fuzz_all SECONDS PROGRAM...
fuzz_all() {
    local seconds=$1 program running=0 status=0
    shift
    for program; do
        fuzz_one "$seconds" "$program" &
        running=$((running + 1))
        if [ $running -ge "$(nproc)" ]; then
            wait -n || status=1
            running=$((running - 1))
        fi
    done
    while [ $running -gt 0 ]; do
        wait -n || status=1
        running=$((running - 1))
    done
    return $status
}

# fuzz_one SECONDS PROGRAM: begins with the target's corpus.
fuzz_one() {
    local name log
    name=$(basename "$2" _fuzz)
    log=build/logs/Fuzz-$name.log
    mkdir -p "build/fuzz/work/$name" build/fuzz/findings
    "$2" -max_total_time="$1" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="build/fuzz/findings/$name-" "build/fuzz/work/$name" "fuzz/corpus/$name" >"$log" 2>&1 || {
        tail -n 40 "$log"
        say "$name failed; the whole output is in $log"
        return 1
    }
    say "$name: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") executions"
}

task_fuzz() {
    local seconds=600
    case ${1:-} in
        -h | --help)
            say "Usage: ./qx fuzz [--seconds N]"
            say "Runs every fuzz target for N seconds (600). Findings are left in build/fuzz/findings."
            return ;;
        --seconds) seconds=${2:?"--seconds needs a number"} ;;
        "") ;;
        *) die 2 "fuzz has no option '$1'" ;;
    esac
    run_fuzzers "$seconds"
}
