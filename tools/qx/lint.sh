# shellcheck shell=bash
# Formatting and static analysis.

check_format() {
    git ls-files '*.h' '*.cpp' | xargs clang-format-14 --dry-run --Werror
}

check_shell() {
    git ls-files 'qx' '.ci/run' 'tools/*.sh' 'board/board' 'board/*.sh' 'board/inside/*' 'tests/*.sh' |
        xargs shellcheck -x
}

check_tidy() {
    git ls-files 'service/*.cpp' 'settings/*.cpp' 'podman/*.cpp' 'compose/*.cpp' 'crp/*.cpp' 'support/*.cpp' \
        'host/*.cpp' 'platform/linux/*.cpp' 'tools/*.cpp' |
        xargs -P "$(nproc)" -n 4 clang-tidy-14 --quiet -p build/release
}

task_lint() {
    case ${1:-} in
        -h | --help)
            say "Usage: ./qx lint"
            say "Checks formatting (clang-format 14), shell scripts (shellcheck) and the product's code (clang-tidy 14)."
            return ;;
        "") ;;
        *) die 2 "lint takes no options" ;;
    esac
    install_packages packages.txt
    step "Check formatting" check_format
    step "Check shell scripts" check_shell
    step "Configure release" cmake --preset release
    step "Check code" check_tidy
    say "Nothing to complain about."
}
