#!/usr/bin/env bash
# Builds the cuda preset on a machine with a GPU, runs every test on the device and the demo, and prints one report,
# which is kept in build/gpu-report.txt. Needs g++, CMake, Ninja and the CUDA toolkit; installs nothing. What a machine
# without a package registry lacks comes from folders:
#
# usage: scripts/gpu.sh [--gtest DIR] [--rapidcheck DIR] [--stb DIR] [--benchmark DIR] [--help]
#
#   --gtest DIR      GoogleTest's sources, where the package is not installed
#   --rapidcheck DIR RapidCheck's sources, likewise
#   --stb DIR        the folder of stb_image.h and stb_image_write.h, where the package is not installed
#   --benchmark DIR  Google Benchmark's sources; runs the benchmarks too
#   --help           this text
. "$(dirname "$0")/common.sh"

arguments=()
benchmark=""
while [ $# -gt 0 ]; do
    case $1 in
        --gtest | --rapidcheck | --stb | --benchmark) [ -d "${2:-}" ] || die "$1 needs an existing folder" "run '$0 --help'" ;;&
        --gtest) arguments+=("-DQX_GTEST_SOURCE_DIR=$(realpath "$2")") && shift 2 ;;
        --rapidcheck) arguments+=("-DQX_RAPIDCHECK_SOURCE_DIR=$(realpath "$2")") && shift 2 ;;
        --stb) arguments+=("-DQX_STB_INCLUDE_DIR=$(realpath "$2")") && shift 2 ;;
        --benchmark) benchmark=$(realpath "$2") && shift 2 ;;
        --help) usage && exit ;;
        *) unknown_option "$1" ;;
    esac
done
for tool in g++ cmake ninja; do
    command -v "$tool" >/dev/null || die "$tool is not installed" "install it, then run this again"
done
nvidia-smi >/dev/null 2>&1 || die "no GPU answers (nvidia-smi)" "run scripts/test.sh for the tests that need none"

report=$root/build/gpu-report.txt
build cuda "${arguments[@]}"
nvcc=$(sed -n 's/^CUDAToolkit_NVCC_EXECUTABLE:FILEPATH=//p' build/cuda/CMakeCache.txt)
outcome=0
# In a shell of its own, so that the report is written whatever the tests say. One test at a time: they count what the
# device holds.
(test_jobs=1 run_tests cuda) || outcome=1
say "running the demo"
{
    build/cuda/Examples/qx_roundtrip -o build/gpu-roundtrip.png &&
        build/cuda/Examples/qx_develop -o build/gpu-developed.png -e build/gpu-edges.png
} >build/gpu-demo.txt 2>&1 || outcome=1
if [ -n "$benchmark" ]; then
    scripts/bench.sh --cuda --benchmark "$benchmark" || outcome=1
fi

{
    echo "device and driver: $(nvidia-smi --query-gpu=name,driver_version,memory.total --format=csv,noheader | head -1)"
    echo "toolkit: $("$nvcc" --version 2>&1 | sed -n 's/.*release .*, V//p')"
    grep -E '^[0-9]+% tests passed' build/cuda-tests.log || echo "no test ran"
    sed -n '/The following tests FAILED/,$p' build/cuda-tests.log
    echo "demo:"
    sed 's/^/  /' build/gpu-demo.txt
    [ -z "$benchmark" ] || { echo "benchmarks:" && grep -E '^(ratio|value) ' build/bench-cuda/report.txt; } || true
} >"$report"
say "report"
cat "$report"
exit "$outcome"
