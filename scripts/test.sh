#!/usr/bin/env bash
# Builds everything for the host platform and runs every test: plain, under AddressSanitizer with
# UndefinedBehaviorSanitizer, and under ThreadSanitizer. Installs the Debian packages that are missing; without any
# missing it needs no network. Fails when something does not build, a test fails, or a run executes no test.
#
# usage: scripts/test.sh [--quick] [--help]
#
#   --quick  the plain run only
#   --help   this text
. "$(dirname "$0")/common.sh"

presets="host asan tsan"
for option in "$@"; do
    case $option in
        --quick) presets="host" ;;
        --help) usage && exit ;;
        *) unknown_option "$option" ;;
    esac
done

# shellcheck disable=SC2086
need $build_packages $library_packages $test_packages $page_packages $example_packages

report=""
for preset in $presets; do
    build "$preset"
    run_tests "$preset"
    report+=$(printf '%-6s %5d tests passed' "$preset" "$tests_passed")$'\n'
done
say "all tests passed"
printf '%s' "$report"
