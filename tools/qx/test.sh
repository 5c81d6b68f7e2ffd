# shellcheck shell=bash disable=SC2154  # root is set by qx
# Running the tests.

test_help() {
    cat <<'TEXT'
Usage: ./qx test [--deep] [--only LABEL]

Installs what is missing, builds everything and runs every test:
  checks    layers, exported symbols, the promises and the interface's description
  unit      the library with a recording platform, each test in a sandbox
  platform  the Linux platform services
  tools     the command line tools
  board     the library with the real Podman, each test on a virtual board of its own
the web page's own tests, and a few seconds of every fuzz target

  --deep         also runs the page in a browser, before a stand-in and before the daemon on a board; the tests with failing
                 calls and killed processes; every fuzz target for a minute; the library's tests under valgrind; the unit,
                 platform and tools tests under the address, undefined behaviour and thread sanitizers; and the board tests
                 on boards of the other suite
  --only LABEL   only the tests of one label

QX_BOARD_SUITE=forky or trixie in the environment chooses the suite of the boards; board/README.md tells which one is
taken otherwise.
TEXT
}

# make_certificates DIR: an authority, a server for "localhost" and a client, for the tests of TLS.
make_certificates() {
    local dir=$1 who
    mkdir -p "$dir"
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 -subj "/CN=Quolex test authority" \
        -keyout "$dir/ca.key" -out "$dir/ca.crt" 2>/dev/null
    for who in server client; do
        openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$who" \
            -keyout "$dir/$who.key" -out "$dir/$who.csr" 2>/dev/null
        openssl x509 -req -in "$dir/$who.csr" -CA "$dir/ca.crt" -CAkey "$dir/ca.key" -CAcreateserial -days 30 \
            -extfile <(printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\n') -out "$dir/$who.crt" 2>/dev/null
    done
}

# stage_for_board PRESET: what demo and board tests bind into a board.
stage_for_board() {
    stage "$1"
    make_certificates "build/$1/stage/share/certs"
}

# run_tests PRESET NAME CTEST-OPTIONS...: the outcome goes to build/logs/NAME.log and NAME.xml. One test on each core,
# unless the options say otherwise.
run_tests() {
    local preset=$1 name=$2
    shift 2
    mkdir -p build/logs
    ctest --test-dir "build/$preset" --output-on-failure --no-tests=error -j "$(nproc)" \
        --output-junit "$root/build/logs/$name.xml" "$@" 2>&1 | tee "build/logs/$name.log"
    if gaps "$preset" "build/logs/$name.log"; then
        grep '\*\*\*Skipped' "build/logs/$name.log" >&2
        die 1 "tests were skipped that this machine can run"
    fi
}

# run_board_tests NAME: they wait most of the time, for Podman and for what is to end.
run_board_tests() {
    run_tests release "$1" -L board -j $((2 * $(nproc)))
}

# gaps PRESET LOG: says whether tests were skipped that this machine could have run; a test that it cannot run says so
# in its reason.
gaps() {
    local skipped excused
    skipped=$(grep -c '\*\*\*Skipped' "$2" || true)
    excused=$(grep -c '^cannot run here: ' "build/$1/Testing/Temporary/LastTest.log" || true)
    [ "$skipped" -gt "$excused" ]
}

# compare_promises --ran REPORT...
compare_promises() {
    step "Compare with the promises" tests/checks/promises.py build/release docs/behaviour.md docs/security.md "$@"
}

# test_page: its parts, without a browser.
test_page() {
    if [ -d host/page/node_modules ] && has_node; then
        step "Test the parts of the web page" npm --prefix host/page test
    else
        say "The web page is not tested: it could not be built here."
    fi
}

# test_page_in_browser: before the stand-in, then before the daemon on a board. Pictures go to build/pictures.
test_page_in_browser() {
    local name="page-$$"
    [ -x "${QX_PAGE_BROWSER:-/usr/bin/chromium}" ] || install_packages host/page/test/packages.txt
    export QX_PAGE_SHOTS=$root/build/pictures
    step "Test the web page before a stand-in" npm --prefix host/page run test:browser
    install -D tools/demo/on-board.sh build/release/stage/share/demo/on-board.sh
    step "Pack two plugins" pack_plugins build/demo
    up_until_exit "$name" --bind "$root/build/release/stage:/opt/qx:ro"
    step "Start the daemon on a board" board/board exec "$name" -- /opt/qx/share/demo/on-board.sh stay
    reach_page "$name"
    QX_PAGE_BOARD="'$root/board/board' exec '$name' --" QX_PAGE_PLUGINS=$root/build/demo \
        QX_PAGE_URL=http://127.0.0.1:$page_port QX_PAGE_TOKEN=$(new_token "$name" act --act) \
        QX_PAGE_LOOK_TOKEN=$(new_token "$name" look) \
        step "Test the web page before the daemon" npm --prefix host/page run test:browser
    board/board down "$name" >/dev/null
    trap - EXIT
}

task_test() {
    local deep='' only=''
    while [ $# -gt 0 ]; do
        case $1 in
            --deep) deep=1 ;;
            --only)
                [ $# -gt 1 ] || die 2 "--only needs a label"
                only=$2
                shift ;;
            -h | --help) test_help; return ;;
            *) die 2 "test has no option '$1'; see ./qx test --help" ;;
        esac
        shift
    done
    require_root test
    install_packages packages.txt board/packages.txt
    build release
    if [ -z "$only" ] || [ "$only" = board ]; then
        board/board fetch --suite "${QX_BOARD_SUITE:-auto}"
        step "Stage the product for the board" stage_for_board release
        step "Test the virtual board itself" board/tests/run.sh
    fi
    [ "$only" = board ] || run_tests release tests -LE 'deep|board' ${only:+-L "$only"}
    if [ -z "$only" ] || [ "$only" = board ]; then
        run_board_tests board
    fi
    if [ -z "$only" ]; then
        # The boards of the other suite may show what was skipped on these.
        compare_promises --allow-skipped --ran build/logs/tests.xml --ran build/logs/board.xml
        grep '^not shown here' build/logs/Compare-with-the-promises.log || true
        test_page
        run_fuzzers 5
    fi
    [ -z "$deep" ] || deep_tests "$only"
    say "All tests passed, in $(((SECONDS + 30) / 60)) minutes."
}

# check_memory: the library's tests under valgrind.
check_memory() {
    local program
    for program in unit podman demux; do
        step "Check memory in the $program tests" env QX_EACH_TEST='*' valgrind -q --vgdb=no --error-exitcode=99 \
            --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite \
            --suppressions=tests/valgrind.supp "build/release/bin/qx_${program}_tests"
    done
}

# deep_tests [LABEL]
deep_tests() {
    local preset suite
    if [ -z "${1:-}" ]; then
        run_tests release deep -L deep
        step "Compare with the promises of the deep tests" tests/checks/promises.py build/release docs/torture.md \
            --ran build/logs/deep.xml
        test_page_in_browser
        run_fuzzers 60
        check_memory
    fi
    for preset in asan tsan; do
        build "$preset"
        run_tests "$preset" "$preset" -L 'unit|platform|tools'
    done
    [ "${1:-board}" = board ] || return 0
    suite=$(other_suite)
    board/board fetch --suite "$suite"
    QX_BOARD_SUITE=$suite run_board_tests "board-$suite"
    [ -n "${1:-}" ] || compare_promises --ran build/logs/tests.xml --ran build/logs/board.xml \
        --ran "build/logs/board-$suite.xml"
}

# other_suite: the suite of which the boards were not so far.
other_suite() {
    local taken
    taken=$(board/board run --quiet --suite "${QX_BOARD_SUITE:-auto}" -- sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
    case $taken in
        forky) echo trixie ;;
        *) echo forky ;;
    esac
}
