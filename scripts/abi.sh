#!/usr/bin/env bash
# Holds the binary interface of the libraries against the baseline in Tests/Interface: the list of the symbols that they
# export, and what libabigail reads of their types from a build with debug information. Installs the Debian packages that
# are missing.
#
# usage: scripts/abi.sh [--accept] [--help]
#
#   --accept  makes the present interface the baseline: for a deliberate change, to be committed with it. Removing or
#             changing what clients were compiled against needs a new major version besides.
#   --help    this text
. "$(dirname "$0")/common.sh"

accept=""
for option in "$@"; do
    case $option in
        --accept) accept=yes ;;
        --help) usage && exit ;;
        *) unknown_option "$option" ;;
    esac
done

# shellcheck disable=SC2086
need $build_packages $library_packages abigail-tools
build abi
baselines=Tests/Interface/abi
architecture=$(uname -m)
[ "$architecture" = x86_64 ] || die "the baseline is that of x86-64, not of $architecture"
outcome=0
checked=0
libraries=build/abi/Source
bash Tests/Interface/symbols.sh nm Tests/Interface/symbols.txt $libraries/libQx.Core.so \
    $libraries/libQx.GPU.ResourceManager.so "$libraries/$library_name.x64.so" ${accept:+--accept} || outcome=1
# Not the stand-in: it has the signatures of the toolkit, against which the tests compare it.
for library in build/abi/Source/lib*.so; do
    name=$(basename "$library" .so | sed "s/^$library_name.*/libQx.Cuda/")
    baseline=$baselines/$name.abi
    described=build/abi/$name.abi
    # Without folders, which differ from machine to machine.
    abidw --no-corpus-path --no-comp-dir-path --no-elf-needed --drop-private-types --exported-interfaces-only --no-show-locs \
        --headers-dir Source --out-file "$described" "$library"
    checked=$((checked + 1))
    if [ -n "$accept" ]; then
        mkdir -p "$baselines"
        cp "$described" "$baseline"
        echo "$name: accepted"
    elif abidiff "$baseline" "$described" >"build/abi/$name.diff"; then
        echo "$name: as the baseline"
    else
        echo "$name: differs from the baseline"
        sed 's/^/    /' "build/abi/$name.diff"
        outcome=1
    fi
done
[ "$checked" -eq 3 ] || die "$checked libraries were compared instead of 3"
[ "$outcome" -eq 0 ] || die "the binary interface has changed" \
    "mend it, or, when the change is meant, run scripts/abi.sh --accept and commit what it writes"
