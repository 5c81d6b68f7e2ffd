# shellcheck shell=bash
# Installing what building and testing need. packages.txt lists it; nothing else is installed.

# missing_packages FILE...: the packages of the lists that are not installed.
missing_packages() {
    local package
    sed -e 's/#.*//' "$@" | tr -s ' \t' '\n' | sort -u | while read -r package; do
        [ -n "$package" ] || continue
        dpkg-query -W -f='${Status}\n' "$package" 2>/dev/null | grep -q '^install ok installed$' || printf '%s\n' "$package"
    done
}

install_packages() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -gt 0 ] || return 0
    require_root setup
    command -v apt-get >/dev/null || die 3 "this is no Debian system; install the packages of packages.txt by hand: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    step "Update the list of packages" apt-get update
    step "Install ${#missing[@]} packages" apt-get install -y --no-install-recommends "${missing[@]}"
}

task_setup() {
    case ${1:-} in
        -h | --help)
            say "Usage: ./qx setup"
            say "Installs the Debian packages of packages.txt and board/packages.txt that are missing."
            return ;;
        "") ;;
        *) die 2 "setup takes no options" ;;
    esac
    install_packages packages.txt board/packages.txt
    say "Everything that is needed is installed."
}
