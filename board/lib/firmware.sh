# shellcheck shell=bash disable=SC2034,SC2154 # one of several parts that share their variables
# The firmware image: the container tools of the suite, with every shared library that the root file system lacks.

readonly MOUNT_POINT=/mnt/containers_tools

# unpack_packages ROOTFS PACKAGES TARGET: the packages and whatever they need beyond ROOTFS, unpacked, not installed.
unpack_packages() {
    local package
    # shellcheck disable=SC2086 # the comma list becomes words
    private_apt "$apt_dir" "$1/var/lib/dpkg/status" apt-get -y -q --no-install-recommends --download-only \
        install ${2//,/ }
    for package in "$apt_dir"/cache/archives/*.deb; do
        dpkg-deb -x "$package" "$3"
    done
    rm -f "$apt_dir"/cache/archives/*.deb
}

# find_library NAME ROOT: path of a shared library below ROOT.
find_library() {
    local dir multiarch
    multiarch=$(multiarch_triplet)
    for dir in "usr/lib/$multiarch" "lib/$multiarch" usr/lib lib usr/lib64 lib64; do
        if [[ -e $2/$dir/$1 ]]; then
            printf '%s\n' "$2/$dir/$1"
            return
        fi
    done
    return 1
}

multiarch_triplet() {
    case $(dpkg --print-architecture) in
        amd64) echo x86_64-linux-gnu ;;
        arm64) echo aarch64-linux-gnu ;;
        *) printf '%s-linux-gnu\n' "$(uname -m)" ;;
    esac
}

# collect_libraries FILE ROOTFS UNPACKED LIB-DIR: what FILE needs and the root file system lacks, and what that needs.
collect_libraries() {
    local needed found
    for needed in $(patchelf --print-needed "$1" 2>/dev/null); do
        [[ ! -e $4/$needed ]] || continue
        ! find_library "$needed" "$2" >/dev/null || continue
        found=$(find_library "$needed" "$3") || {
            echo "library $needed, needed by ${1##*/}, is nowhere"
            return 1
        }
        cp -L -- "$found" "$4/$needed"
        collect_libraries "$found" "$2" "$3" "$4"
    done
}

# first_of ROOT PATH...: the first of the paths that exists; suites differ in where they put helpers.
first_of() {
    local root=$1 path
    shift
    for path in "$@"; do
        [[ ! -e $root/$path ]] || { printf '%s\n' "$root/$path"; return; }
    done
    echo "none of these is in the packages: $*"
    return 1
}

place_tools() { # UNPACKED IMAGE-DIR
    local helper
    cp "$(first_of "$1" usr/bin/podman)" "$(first_of "$1" usr/bin/crun)" "$(first_of "$1" usr/bin/conmon)" "$2/bin/"
    cp "$(first_of "$1" usr/libexec/docker/cli-plugins/docker-compose usr/bin/docker-compose)" "$2/bin/docker-compose"
    cp "$1"/usr/lib/cni/* "$2/bin/plugins/"
    for helper in netavark aardvark-dns catatonit; do
        cp "$(first_of "$1" "usr/lib/podman/$helper" "usr/libexec/podman/$helper" "usr/bin/$helper")" "$2/helpers/"
    done
    cp "$BOARD_DIR"/firmware/{policy.json,containers.conf,storage.conf} "$2/configs/"
    cp "$(first_of "$1" usr/share/containers/seccomp.json etc/containers/seccomp.json)" "$2/configs/seccomp.json"
}

build_firmware() { # ROOTFS IMAGE PACKAGES
    local unpacked=$apt_dir/unpacked image=$apt_dir/image file
    mkdir -p "$unpacked" "$image"/{bin/plugins,lib,configs,helpers} "$(dirname "$2")"
    unpack_packages "$1" "$3" "$unpacked"
    place_tools "$unpacked" "$image"
    for file in "$image"/bin/* "$image"/helpers/*; do
        [[ ! -f $file ]] || collect_libraries "$file" "$1" "$unpacked" "$image/lib"
    done
    # conmon starts crun with a cleaned environment: a library path in a variable would not reach it.
    for file in podman crun conmon; do
        patchelf --set-rpath "$MOUNT_POINT/lib" "$image/bin/$file"
    done
    for file in "$image"/lib/*; do patchelf --set-rpath "$MOUNT_POINT/lib" "$file"; done
    chmod 755 "$image" "$image"/bin/* "$image"/helpers/*
    mksquashfs "$image" "$2" -comp zstd -all-root -noappend -no-progress -quiet
    rm -rf "$unpacked" "$image"
}
