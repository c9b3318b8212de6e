#!/bin/sh
# Runs a program for 64-bit ARM under qemu with the libraries of a folder.
#   arm64-run.sh SYSROOT PROGRAM ARGUMENTS...
#
# A thread-safe death test starts its program again, by its name and with its arguments, and the kernel cannot run what
# it finds there. So a GoogleTest program gets the name of this script, which then knows which program is meant.
program=${QX_ARM64_RESTARTED_PROGRAM:-}
if [ -z "$program" ]; then
    export QEMU_LD_PREFIX="$1"
    program=$2
    shift 2
    case $* in
        *--gtest_filter=*) export QX_ARM64_RESTARTED_PROGRAM="$program" ;;
        *) exec qemu-aarch64 "$program" "$@" ;;
    esac
fi
exec qemu-aarch64 -0 "$0" "$program" "$@"
