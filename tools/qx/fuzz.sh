# shellcheck shell=bash
# Fuzzing the parsers.

# run_fuzzers SECONDS: every target for so long, beginning with its corpus; a finding is left in build/fuzz/findings.
run_fuzzers() {
    local seconds=$1 program name
    build fuzz
    for program in build/fuzz/bin/*_fuzz; do
        name=$(basename "$program" _fuzz)
        mkdir -p "build/fuzz/work/$name" build/fuzz/findings
        step "Fuzz $name for $seconds s" "$program" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -print_final_stats=1 -artifact_prefix="build/fuzz/findings/$name-" "build/fuzz/work/$name" "fuzz/corpus/$name"
    done
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
