#!/usr/bin/env bash
# Builds the cuda preset on a machine with a GPU, runs every test on the device, the memory-heavy ones once more under
# compute-sanitizer, and every example, and prints one report, which is kept in build/gpu-report.txt. Needs g++, CMake,
# Ninja and the CUDA toolkit with compute-sanitizer; installs nothing. What a machine without a package registry lacks
# comes from folders:
#
# usage: scripts/gpu.sh [--gtest DIR] [--rapidcheck DIR] [--stb DIR] [--eigen DIR] [--benchmark DIR] [--help]
#
#   --gtest DIR       GoogleTest's sources, where the package is not installed
#   --rapidcheck DIR  RapidCheck's sources, likewise
#   --stb DIR         the folder of stb_image.h and stb_image_write.h, likewise
#   --eigen DIR       the folder of Eigen/Dense, likewise
#   --benchmark DIR   Google Benchmark's sources; runs the benchmarks too
#   --help            this text
. "$(dirname "$0")/common.sh"

arguments=()
benchmark=""
while [ $# -gt 0 ]; do
    case $1 in
        --gtest) variable=QX_GTEST_SOURCE_DIR ;;
        --rapidcheck) variable=QX_RAPIDCHECK_SOURCE_DIR ;;
        --stb) variable=QX_STB_INCLUDE_DIR ;;
        --eigen) variable=QX_EIGEN_INCLUDE_DIR ;;
        --benchmark) variable="" ;;
        --help) usage && exit ;;
        *) unknown_option "$1" ;;
    esac
    [ -d "${2:-}" ] || die "$1 needs an existing folder" "run '$0 --help'"
    if [ -n "$variable" ]; then
        arguments+=("-D$variable=$(realpath "$2")")
    else
        benchmark=$(realpath "$2")
    fi
    shift 2
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

# What reads and writes much device memory once more under the toolkit's memory checker. API errors are what many of
# these tests are about, so they are not counted; the tool's own summary proves that it ran.
say "checking memory"
sanitizer=$(dirname "$nvcc")/compute-sanitizer
checked="DeviceImage*:ImageTransfer*:PageLockedImage*:LaunchKernel*:-*AFaultIsReported*"
memory=not-run
if [ -x "$sanitizer" ] || sanitizer=$(command -v compute-sanitizer); then
    "$sanitizer" --tool memcheck --report-api-errors no --error-exitcode 86 \
        build/cuda/Tests/Qx.Cuda/Qx.Cuda.Tests --gtest_filter="$checked" >build/gpu-memory.txt 2>&1 || outcome=1
    memory=$(grep -o 'ERROR SUMMARY: .*' build/gpu-memory.txt | tail -1) || memory=not-run
fi
[ "$memory" = "ERROR SUMMARY: 0 errors" ] || outcome=1
echo "compute-sanitizer: $memory"

say "running the examples"
: >build/gpu-examples.txt
for program in build/cuda/Examples/qx_*; do
    [ -x "$program" ] || continue
    name=$(basename "$program")
    mkdir -p "build/gpu-examples/$name"
    echo "$name:" >>build/gpu-examples.txt
    (cd "build/gpu-examples/$name" && "$root/$program") 2>&1 | sed 's/^/  /' >>build/gpu-examples.txt || outcome=1
done
if [ -n "$benchmark" ]; then
    scripts/bench.sh --cuda --benchmark "$benchmark" || outcome=1
fi

{
    echo "device and driver: $(nvidia-smi --query-gpu=name,driver_version,memory.total --format=csv,noheader | head -1)"
    echo "toolkit: $("$nvcc" --version 2>&1 | sed -n 's/.*release .*, V//p')"
    grep -E '^[0-9]+% tests passed' build/cuda-tests.log || echo "no test ran"
    grep -E '\*\*\*Skipped' build/cuda-tests.log | sed 's/^/  /' || true
    sed -n '/The following tests FAILED/,$p' build/cuda-tests.log
    echo "compute-sanitizer: $memory"
    echo "examples:"
    sed 's/^/  /' build/gpu-examples.txt
    [ -z "$benchmark" ] || { echo "benchmarks:" && grep -E '^(ratio|value) ' build/bench-cuda/report.txt; } || true
} >"$report"
say "report"
cat "$report"
exit "$outcome"
