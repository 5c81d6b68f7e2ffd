# shellcheck shell=bash disable=SC2154  # root is set by qx
# Building.

# The page is built by Node 18 or newer, wherever that comes from.
has_node() {
    command -v npm >/dev/null && node -e 'process.exit(Number(process.versions.node.split(".")[0]) >= 18 ? 0 : 1)' 2>/dev/null
}

# build_page: makes host/page/dist where sources are newer. Without a package registry the rest goes on without the page.
build_page() {
    local page=$root/host/page
    has_node || install_packages host/page/packages.txt
    # Not "npm ci": it insists on the packages of every other platform as well, which a registry may not have.
    if [ ! "$page/node_modules/.package-lock.json" -nt "$page/package-lock.json" ]; then
        (step "Install what the page is built with" npm install --no-save --prefix "$page" --no-audit --no-fund) || return 1
    fi
    if [ -z "$(find "$page" -path "$page/node_modules" -prune -o -path "$page/dist" -prune -o -type f -newer "$page/dist/index.html" -print 2>&1 | head -n 1)" ]; then
        return 0
    fi
    (step "Build the web page" npm run --prefix "$page" build)
}

# build PRESET [TARGET...]
build() {
    local preset=$1
    shift
    install_packages packages.txt
    if [ "$preset" = release ]; then
        build_page || say "The web page could not be built; everything else goes on without it."
    fi
    step "Configure $preset" cmake --preset "$preset"
    step "Build $preset" cmake --build --preset "$preset" ${1:+--target "$@"}
}

task_build() {
    case ${1:-} in
        -h | --help)
            say "Usage: ./qx build [PRESET]"
            say "Builds everything. Presets: release (default), debug, asan, tsan. The result is in build/PRESET."
            return ;;
        "" | release | debug | asan | tsan) ;;
        *) die 2 "there is no preset '$1'; see ./qx build --help" ;;
    esac
    build "${1:-release}"
    say "Built: build/${1:-release}/libQxContainerUtils.so"
}

# stage PRESET: lays the library, the host and what they are linked against into build/PRESET/stage, as a board gets
# them. Boards are of another Debian than the machine that builds, so the libraries go along and find each other beside
# themselves; those of the compiler and the C library, whose newer versions serve older programs, do not.
stage() {
    local stage_dir=$root/build/$1/stage library
    rm -rf "$stage_dir"
    cmake --install "build/$1" --prefix "$stage_dir" >/dev/null
    # ldd complains of files that are no programs.
    find "$stage_dir/bin" "$stage_dir/lib" -type f -print0 | { xargs -0 ldd 2>/dev/null || true; } |
        awk '$2 == "=>" && $3 ~ /^\// { print $3 }' | sort -u |
        grep -vE "/(libc|libm|libdl|libpthread|librt|libresolv|libstdc\+\+|libgcc_s)\.so|^$root/" |
        while read -r library; do
            cp -L "$library" "$stage_dir/lib/"
            patchelf --set-rpath "\$ORIGIN" "$stage_dir/lib/$(basename "$library")"
        done
}

task_clean() {
    case ${1:-} in
        -h | --help)
            say "Usage: ./qx clean"
            say "Removes build/ and what the web page was built with and into, with its pictures."
            say "The cache of the virtual boards stays; board/README.md tells where it is."
            return ;;
        "") ;;
        *) die 2 "clean takes no options" ;;
    esac
    rm -rf build host/page/dist host/page/node_modules host/page/test-output
}
