# shellcheck shell=bash disable=SC2154  # root is set by qx
# What the tests reach of the library.

measure_coverage() { # REPORT-DIRECTORY
    mkdir -p "$1"
    # Throwing is a branch of every call; only the ones that are written down count.
    gcovr --root "$root" --object-directory build/coverage \
        --filter '(include|service|settings|podman|compose|crp|support)/' \
        --exclude-throw-branches --exclude-unreachable-branches \
        --html-details "$1/index.html" --txt "$1/summary.txt" --json-summary "$1/summary.json" \
        --fail-under-line 95 --fail-under-branch 85
}

task_coverage() {
    case ${1:-} in
        -h | --help)
            say "Usage: ./qx coverage"
            say "Runs the library's unit tests and says what they reach: at least 95 % of the lines and 85 % of the branches"
            say "must be. The report is build/coverage/report/index.html."
            return ;;
        "") ;;
        *) die 2 "coverage takes no options" ;;
    esac
    require_root coverage
    build coverage
    find build/coverage -name '*.gcda' -delete
    step "Run the unit tests" run_tests coverage coverage -L unit
    step "Count what they reached" measure_coverage build/coverage/report
    cat build/coverage/report/summary.txt
    say "Lines and branches: build/coverage/report/index.html"
}
