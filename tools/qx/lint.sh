# shellcheck shell=bash
# Formatting and static analysis.

check_format() {
    git ls-files '*.h' '*.cpp' | xargs clang-format-14 --dry-run --Werror
}

check_shell() {
    git ls-files 'qx' '.ci/run' '*.sh' 'board/board' 'board/inside/*' |
        xargs shellcheck -x
}

product_code() {
    git ls-files 'service/*.cpp' 'settings/*.cpp' 'podman/*.cpp' 'compose/*.cpp' 'crp/*.cpp' 'support/*.cpp' \
        'host/*.cpp' 'platform/linux/*.cpp' 'tools/*.cpp'
}

# Its clang knows fewer warnings than the compiler that builds, and not its precompiled headers.
check_tidy() {
    cmake --preset release -B build/lint -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON >/dev/null
    product_code | grep -vE "$on_asio" | tidy
    # Its analyzer takes what Asio hands over for something that nobody has set.
    product_code | grep -E "$on_asio" | tidy --checks="-clang-analyzer-core.*"
}

on_asio='^host/(qxcontainerd.cpp|api/|daemon/|http/|ctl/LiveChannel)'

tidy() {
    xargs -P "$(nproc)" -n 1 clang-tidy-14 --quiet -p build/lint --extra-arg=-Wno-unknown-warning-option "$@"
}

# Returns of coroutines are unknown to cppcheck; the compiler warns of those that are missing.
check_cppcheck() {
    product_code | xargs cppcheck -j "$(nproc)" --quiet --std=c++20 --enable=warning,performance,portability \
        --inline-suppr --error-exitcode=1 --suppress=missingReturn --suppress=missingInclude \
        --suppress=missingIncludeSystem -I include -I platform/include -I .
}

task_lint() {
    case ${1:-} in
        -h | --help)
            say "Usage: ./qx lint"
            say "Checks formatting (clang-format 14), shell scripts (shellcheck), the product's code (cppcheck, clang-tidy 14)"
            say "and the web page (TypeScript, Biome)."
            return ;;
        "") ;;
        *) die 2 "lint takes no options" ;;
    esac
    install_packages packages.txt
    step "Check formatting" check_format
    step "Check shell scripts" check_shell
    step "Check code with cppcheck" check_cppcheck
    if build_page; then
        step "Check the web page" npm --prefix host/page run lint
    else
        say "The web page is not checked: it could not be built here."
    fi
    step "Check code with clang-tidy" check_tidy
    say "Nothing to complain about."
}
