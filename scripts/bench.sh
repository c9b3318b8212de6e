#!/usr/bin/env bash
# Measures the library beside the bare calls it makes and holds the medians against Benchmarks/goals.txt. The last
# lines are one verdict a goal, "ok" or "short"; they are kept in build/bench/report.txt. Machines are noisy: a goal
# that is missed is reported and does not make the script fail, a benchmark that does not run does. Installs the Debian
# packages that are missing.
#
# usage: scripts/bench.sh [--quick] [--cuda] [--benchmark DIR] [--help]
#
#   --quick          few short repetitions: does everything run?
#   --cuda           on the GPU, with the CUDA toolkit (build/bench-cuda); instructions are not counted there
#   --benchmark DIR  Google Benchmark's sources, where the package is not installed
#   --help           this text
. "$(dirname "$0")/common.sh"

preset=bench
repetitions=101
seconds=0.01
calls=10
arguments=()
packages=$benchmark_packages
while [ $# -gt 0 ]; do
    case $1 in
        --quick) repetitions=3 calls=2 ;;
        --cuda) preset=bench-cuda ;;
        --benchmark)
            [ -d "${2:-}" ] || die "--benchmark needs an existing folder" "run '$0 --help'"
            arguments+=("-DQX_BENCHMARK_SOURCE_DIR=$(realpath "$2")")
            packages=""
            shift
            ;;
        --help) usage && exit ;;
        *) unknown_option "$1" ;;
    esac
    shift
done

if [ "$preset" = bench ]; then
    # shellcheck disable=SC2086
    need $build_packages $library_packages $packages valgrind
fi
build "$preset" "${arguments[@]}"
programs=build/$preset/Benchmarks
report=build/$preset/report.txt

# measure PROGRAM LABEL FILTER: measures the benchmarks that the filter names. Their repetitions are short and
# interleaved, so that a slow moment of the machine does not fall on one side of a comparison alone.
rm -f build/"$preset"/measured-*
measure() {
    local file=build/$preset/measured-$2
    say "measuring $2"
    "$programs/$1" --benchmark_filter="$3" --benchmark_repetitions="$repetitions" \
        --benchmark_min_time="$seconds" --benchmark_enable_random_interleaving=true \
        --benchmark_report_aggregates_only=true --benchmark_out="$file.csv" --benchmark_out_format=csv \
        >"$file.log" 2>&1 ||
        { cat "$file.log" >&2 && die "measuring $2 failed" "run it by hand: $programs/$1"; }
    grep -E '_median|ERROR' "$file.log" || true
}
directions="Upload Download"
sizes="64x64 640x480 1920x1080 4096x4096"
for direction in $directions; do
    for size in $sizes; do
        measure qx_image_benchmark "$direction-$size" "^$direction/$size/"
    done
done
for direction in UploadClient DownloadClient UploadQueued DownloadQueued 2DTo2D 2DTo1D 1DTo2D Upload1D Download1D 1DTo1D
do
    for size in 640x480 1920x1080; do
        measure qx_image_benchmark "$direction-$size" "^$direction/$size/"
    done
done
measure qx_image_benchmark Create "^Create/"
measure qx_stream_benchmark Frames "^Frames/"
for count in 16 64 128; do
    for step in Create Download Map; do
        measure qx_mapping_benchmark "Mapping-$step-$count" "^Mapping/$step/$count/"
    done
done
measure qx_pool_benchmark Pool "^(Pool/Hit/|Runtime/)"
measure qx_pool_benchmark Pool-in-turn "^Pool/HitInTurn/"
# One thread: on a machine that others use too, the slower of several would be what is measured.
export OPENBLAS_NUM_THREADS=1
operations="Set Get Mult MultWithTranspose SumAbs"
[ "$preset" != bench ] || operations+=" MultQueue"
for operation in $operations; do
    for size in 256x256 512x512 1024x1024; do
        measure qx_math_benchmark "$operation-$size" "^$operation/$size/"
    done
done
if [ "$preset" = bench ]; then
    measure qx_kernel_benchmark Kernel "^Kernel/Demosaic/"
    measure qx_kernel_benchmark Wait "^Kernel/Wait/"
else
    for step in Allocate Upload Download Copy; do
        measure qx_device_benchmark "Device-$step" "^Device/$step/"
    done
fi

# count DIRECTION SIDE WIDTH HEIGHT CALLS: the instructions of a process that makes so many calls. Symbols are bound
# before the start, so that a first call costs what the others cost.
count() {
    LD_BIND_NOW=1 valgrind --tool=callgrind --callgrind-out-file=/dev/null \
        "$programs/qx_transfer_calls" "$1" "$2" "$3" "$4" "$5" 2>&1 | sed -n 's/.*Collected : \([0-9]*\).*/\1/p'
}
goals=build/$preset/goals.txt
clock=cpu_time
elsewhere='Device/'
instructions=build/$preset/instructions.csv
: >"$instructions"
if [ "$preset" = bench ]; then
    say "counting instructions"
    for direction in $directions; do
        for size in $sizes; do
            for side in library bare; do
                none=$(count "$direction" "$side" "${size%x*}" "${size#*x}" 0)
                many=$(count "$direction" "$side" "${size%x*}" "${size#*x}" "$calls")
                [ -n "$none$many" ] || die "valgrind could not count" \
                    "run: valgrind --tool=callgrind $programs/qx_transfer_calls $direction $side 64 64 1"
                echo "$direction/$size/$side:instructions,$(((many - none) / calls))" >>"$instructions"
            done
        done
    done
else
    clock=real_time
    elsewhere=':instructions|Kernel/|/openblas'
fi
grep -vE "$elsewhere" Benchmarks/goals.txt >"$goals"

say "verdict"
awk -v clock="$clock" -f Benchmarks/judge.awk "$goals" "$instructions" build/"$preset"/measured-*.csv | tee "$report"
