#!/usr/bin/env bash
# Cross-builds everything for 64-bit ARM on the host platform, runs every test under qemu, and checks the name that the
# library carries. Installs the Debian packages that are missing. The libraries for ARM are unpacked into
# build/arm64-sysroot, so that the system's own stay as they are; once they are there no network is needed.
#
# usage: scripts/arm64.sh [--help]
. "$(dirname "$0")/common.sh"

only_help "$@"

readonly triplet=aarch64-linux-gnu
readonly sysroot=$root/build/arm64-sysroot
readonly sysroot_packages="libc6-dev libstdc++-12-dev $library_packages $test_packages $example_packages"

# unpack_sysroot PACKAGE...: the ARM packages with all they depend on, from the system's own sources of packages. A
# package database of our own makes apt resolve them as for a bare ARM system, without being root.
unpack_sysroot() {
    local apt=$root/build/arm64-apt new=$sysroot.new package link target alternative
    if [ "$(cat "$sysroot/packages" 2>/dev/null)" = "$*" ]; then
        return
    fi
    say "unpacking the libraries for ARM"
    rm -rf "$apt" "$sysroot" "$new"
    mkdir -p "$apt/state/lists/partial" "$apt/cache/archives/partial" "$new/usr/lib"
    : >"$apt/state/status"
    local options=(-qq -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o Dir::State="$apt/state"
        -o Dir::State::status="$apt/state/status" -o Dir::Cache="$apt/cache" -o APT::Sandbox::User="$(id -un)")
    if ! { apt-get "${options[@]}" update &&
        apt-get "${options[@]}" install -y --no-install-recommends --download-only "$@"; } >"$apt/log" 2>&1; then
        cat "$apt/log" >&2
        die "the ARM packages cannot be fetched: $*" "check the network and /etc/apt/sources.list*, then run this again"
    fi
    ln -s usr/lib "$new/lib"
    for package in "$apt"/cache/archives/*.deb; do
        dpkg-deb --fsys-tarfile "$package" | tar -x --keep-directory-symlink --no-same-owner -C "$new"
    done
    # An absolute link would leave the folder.
    find "$new" -type l -lname '/*' | while read -r link; do
        target=$(readlink "$link")
        ln -srfT "$new$target" "$link"
    done
    # What the system would choose among several implementations when it installs them; here there is one.
    for alternative in "$new/usr/lib/$triplet"/openblas-*/*.so* "$new/usr/include/$triplet"/openblas-*/*.h; do
        [ ! -e "$alternative" ] || ln -srf -t "$(dirname "$(dirname "$alternative")")" "$alternative"
    done
    echo "$*" >"$new/packages"
    mv "$new" "$sysroot"
    rm -rf "$apt"
}

# check_library: the product's file, as a client's linker and loader see it.
check_library() {
    local library=build/arm64/Source/$library_name.arm64.so facts
    [ -f "$library" ] || die "$library was not built"
    facts=$(LC_ALL=C "$triplet-readelf" --file-header --dynamic "$library")
    grep -q 'Machine: *AArch64$' <<<"$facts" || die "$library is not for 64-bit ARM"
    grep -qF "Library soname: [${library##*/}]" <<<"$facts" || die "the SONAME of $library is not its name"
    say "${library##*/}: AArch64, with its name as SONAME"
}

# shellcheck disable=SC2086
need $build_packages g++-aarch64-linux-gnu qemu-user
# shellcheck disable=SC2086
unpack_sysroot $sysroot_packages
build arm64
check_library
run_tests arm64
