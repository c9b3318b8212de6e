#!/usr/bin/env bash
# What a configuration that cannot work says, and what a project gets that has the sources in a subfolder.
#   configure.sh CMAKE SOURCE-FOLDER COMPILER
set -euo pipefail
cmake=$1 source=$2 compiler=$3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
fail() { echo "FAILED: $*" >&2 && exit 1; }
configure() { "$cmake" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" -DQX_BUILD_TESTS=OFF -DQX_BUILD_EXAMPLES=OFF "$@" 2>&1; }

# refused REASON OPTION...
refused() {
    local reason=$1 output
    shift
    output=$(configure -S "$source" -B "$folder/refused" "$@") && fail "configured with $*"
    tr -s ' \n' ' ' <<<"$output" | grep -qF "$reason" || { echo "$output" && fail "$* was not refused by: $reason"; }
}
refused "QX_PLATFORM is 'GPU'; it must be AUTO, HOST or CUDA" -DQX_PLATFORM=GPU
refused "QX_PLATFORM is CUDA, but: no CUDA toolkit found" -DQX_PLATFORM=CUDA -DCMAKE_DISABLE_FIND_PACKAGE_CUDAToolkit=ON
refused "Qx.Cuda has no static libraries" -DQX_PLATFORM=HOST -DBUILD_SHARED_LIBS=OFF
refused "QX_OPENBLAS_LIBRARY is '/nowhere.so'" -DBUILD_SHARED_LIBS=ON -DQX_OPENBLAS_LIBRARY=/nowhere.so
refused "A program with OpenBLAS does not link" "-DQX_OPENBLAS_LIBRARY=$("$compiler" -print-file-name=libm.so)"
mkdir "$folder/among"
cp "$source/CMakeLists.txt" "$folder/among" # which comes no further
output=$(configure -S "$folder/among" -B "$folder/among") && fail "built among its sources"
grep -qF "is not built among its sources" <<<"$output" || fail "not refused for being among its sources: $output"

# A project that has the sources installs its own files, and ours when it asks for them.
mkdir "$folder/parent"
cat >"$folder/parent/CMakeLists.txt" <<PARENT
cmake_minimum_required(VERSION 3.25)
project(Parent LANGUAGES CXX)
include(FetchContent)
FetchContent_Declare(qx-cuda SOURCE_DIR "$source")
FetchContent_MakeAvailable(qx-cuda)
install(FILES CMakeLists.txt DESTINATION share/parent)
PARENT
output=$(configure -S "$folder/parent" -B "$folder/build" -DQX_PLATFORM=HOST -DBUILD_SHARED_LIBS=OFF) || fail "$output"
grep -qF "Qx.Cuda has no static libraries" <<<"$output" || fail "BUILD_SHARED_LIBS=OFF went unanswered"
"$cmake" --install "$folder/build" --prefix "$folder/prefix" >/dev/null
[ "$(cd "$folder/prefix" && find . -type f)" = ./share/parent/CMakeLists.txt ] || fail "installed unasked: $(find "$folder/prefix")"
configure "$folder/build" -DQX_INSTALL=ON >/dev/null
grep -rqs "QxCudaTargets" "$folder/build" --include=cmake_install.cmake || fail "QX_INSTALL=ON installs nothing"
