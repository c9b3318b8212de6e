# shellcheck shell=bash disable=SC2034
# What the scripts share; sourced, not run.

set -euo pipefail
script=$(realpath "$0")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
readonly root=$PWD script

# The version of the project, and what the library's file carries of it; CMakeLists.txt is the one place that says it.
version=$(sed -nE 's/^project\(.* VERSION ([0-9]+\.[0-9]+\.[0-9]+) .*/\1/p' CMakeLists.txt)
readonly version library_name=libQx.Cuda.${version%.*}

say() { printf '\n== %s\n' "$*"; }

# die MESSAGE WHAT-TO-DO: ends the script.
die() {
    printf '%s: error: %s\n' "${0##*/}" "$1" >&2
    [ $# -lt 2 ] || printf '%s: %s\n' "${0##*/}" "$2" >&2
    exit 1
}

# usage: prints the comment at the head of the calling script, which is its help.
usage() { sed -n '2,/^[^#]/{/^#/!d;s/^# \{0,1\}//;p}' "$script"; }

unknown_option() { die "unknown option '$1'" "run '$0 --help' for the options"; }

# only_help OPTION...: for scripts that have no other option.
only_help() {
    [ $# -eq 0 ] || [ "$1" = --help ] || unknown_option "$1"
    [ $# -eq 0 ] || { usage && exit; }
}

job_count() { nproc 2>/dev/null || echo 2; }

# missing PACKAGE...: those of the Debian packages that are not installed.
missing() {
    local package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' || printf '%s ' "$package"
    done
}

# need PACKAGE...: installs the Debian packages that are missing; touches nothing when all are there.
need() {
    if ! command -v dpkg-query >/dev/null; then
        echo "This is no Debian system, so nothing is installed; needed are what Debian calls: $*"
        return
    fi
    local list sudo=()
    list=$(missing "$@")
    [ -n "$list" ] || return 0
    say "installing ${list% }"
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || die "these packages are missing: $list" "as root, run: apt-get install $list"
        sudo=(sudo)
    fi
    # An index that cannot be renewed may still do; the installation tells.
    "${sudo[@]}" apt-get update -qq || echo "The package index could not be renewed; trying with the present one."
    # shellcheck disable=SC2086 # one word a package
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $list >/dev/null ||
        die "installing failed: $list" "check the network and /etc/apt/sources.list*, or install them by hand, then run this again"
}

# What every build needs, and what tests, examples and benchmarks need besides.
readonly build_packages="g++ cmake ninja-build"
readonly library_packages="libtbb-dev libopenblas-dev"
readonly test_packages="libgtest-dev librapidcheck-dev pkg-config"
# What checks the pages; not in the list above, of which the ARM build has the libraries fetched.
readonly page_packages="python3"
readonly example_packages="libstb-dev libeigen3-dev"
readonly benchmark_packages="libbenchmark-dev"

# build PRESET [CMAKE-ARGUMENTS...]: configures and builds a preset; the output is shown when it fails.
build() {
    local preset=$1 log
    shift
    log=$root/build/$preset.log
    mkdir -p build
    say "building preset $preset"
    if ! { cmake --preset "$preset" "$@" && cmake --build --preset "$preset" --parallel "$(job_count)"; } >"$log" 2>&1; then
        cat "$log" >&2
        die "preset $preset does not build" "the whole output is in ${log#"$root"/}; to start afresh: rm -r build/$preset"
    fi
    grep -m1 'Qx.Cuda platform' "$log" || true
}

# run_tests PRESET [CTEST-ARGUMENTS...]: runs the tests of a built preset, prints how many ran, and leaves the two
# numbers in tests_passed and tests_failed. Fails when a test fails or none ran.
run_tests() {
    local preset=$1 log summary
    shift
    log=$root/build/$preset-tests.log
    tests_passed=0
    tests_failed=0
    say "testing preset $preset"
    ctest --preset "$preset" --parallel "${test_jobs:-$(job_count)}" "$@" >"$log" 2>&1 || true
    # "100% tests passed, 0 tests failed out of 42"
    summary=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -1) || true
    if [ -n "$summary" ]; then
        tests_failed=$(sed -E 's/.*passed, ([0-9]+) tests? failed.*/\1/' <<<"$summary")
        tests_passed=$(($(sed -E 's/.*out of ([0-9]+).*/\1/' <<<"$summary") - tests_failed))
    fi
    # A test that was skipped has shown nothing, so it does not count as passed.
    tests_skipped=$(grep -cE '\*\*\*(Skipped|Not Run \(Disabled\))' "$log") || true
    tests_passed=$((tests_passed - tests_skipped))
    if [ "$tests_failed" -gt 0 ] || [ "$tests_passed" -eq 0 ] || grep -q '^Errors while running CTest' "$log"; then
        cat "$log" >&2
        [ "$tests_passed" -gt 0 ] || [ "$tests_failed" -gt 0 ] || die "preset $preset ran no test" \
            "look at ${log#"$root"/} for the reason"
        die "preset $preset: $tests_failed of $((tests_passed + tests_failed)) tests failed" \
            "run one with: ctest --preset $preset -R NAME"
    fi
    echo "$tests_passed tests passed, $tests_skipped skipped"
}
