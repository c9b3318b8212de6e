#!/usr/bin/env bash
# Installs the build into an empty prefix, moves that, and builds and runs a client with a kernel against it, by CMake and
# by pkg-config; then makes the Debian package and looks into it.
#   install.sh CMAKE BUILD-FOLDER HOST|CUDA COMPILER VERSION
set -euo pipefail
cmake=$1 build=$2 platform=$3 compiler=$4 version=$5
major=${version%%.*}
here=$(cd "$(dirname "$0")" && pwd)
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
fail() { echo "FAILED: $*" >&2 && exit 1; }

# runs COMMAND...: the client works, or says that no device answers where the platform needs one.
runs() {
    local code=0 output
    output=$("$@") || code=$?
    echo "$output"
    [ "$code $output" = "0 same" ] || { [ "$platform" = CUDA ] && [ "$code" -eq 3 ]; } || fail "the client ended with $code"
}

"$cmake" --install "$build" --prefix "$folder/first" >/dev/null
mkdir "$folder/moved"
mv "$folder/first" "$folder/moved/prefix"
prefix=$folder/moved/prefix
config=$(find "$prefix" -name QxCudaConfig.cmake)
[ -n "$config" ] || fail "no CMake package was installed"
grep -rl "$folder/first\|$build" "$prefix" --include=*.cmake --include=*.pc --include=*.h && fail "an installed file names a folder of the build"

"$cmake" -S "$here/client" -B "$folder/client" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$compiler" \
    -DCLIENT_WANTS="$major" >/dev/null
"$cmake" --build "$folder/client" >/dev/null
runs "$folder/client/client"
runs "$folder/client/client_test"
# refused REASON OPTION...: a client that wants something else is told what is wrong.
refused() {
    local reason=$1 output
    shift
    output=$("$cmake" -S "$here/client" -B "$folder/refused" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$compiler" \
        "$@" 2>&1) && fail "a client with $* was served"
    tr -s ' \n' ' ' <<<"$output" | grep -qF "$reason" || { echo "$output" && fail "a client with $* was not told: $reason"; }
}
refused "requested version \"$((major - 1))\"" -DCLIENT_WANTS=$((major - 1))
refused "requested version \"$((major + 1))\"" -DCLIENT_WANTS=$((major + 1))
refused "there is no component 'Textures'" -DCLIENT_WANTS= -DCLIENT_COMPONENTS="Cuda;Textures"
[ "$platform" = HOST ] || refused "platform CUDA, which has no component 'HostCuda'" -DCLIENT_COMPONENTS=HostCuda -DCLIENT_OPTIONAL=
refused "there is no file Missing.cu" -DCLIENT_COMPONENTS= -DCLIENT_KERNELS=Missing.cu

# Kernels of a Debug build are optimised for the debugger.
"$cmake" "$folder/client" -DCMAKE_BUILD_TYPE=Debug >/dev/null
"$cmake" --build "$folder/client" >/dev/null
runs "$folder/client/client"
[ "$platform" = CUDA ] || grep -q -- ' -Og' "$folder/client/build.ninja" || fail "a Debug build does not optimise its kernels"

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name qx-cuda.pc)")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046
if [ "$platform" = CUDA ]; then
    cuda=$(pkg-config --variable=cudadir qx-cuda)
    [ -r "$cuda/include/cuda_runtime_api.h" ] || fail "the pkg-config file says that the toolkit lies in '$cuda'"
    kernels=("$cuda/bin/nvcc" -x cu -ccbin "$compiler" --cudart shared)
else
    kernels=("$compiler" -x c++)
fi
libraries=$(pkg-config --variable=libdir qx-cuda)
# shellcheck disable=SC2046
"${kernels[@]}" -std=c++20 -c "$here/client/Kernel.cu" -o "$folder/Kernel.o" $(pkg-config --cflags qx-cuda)
# shellcheck disable=SC2046
"$compiler" -std=c++20 "$here/client/Main.cpp" "$folder/Kernel.o" -o "$folder/by-pkg-config" \
    $(pkg-config --cflags --libs qx-cuda) "-Wl,-rpath,$libraries"
runs "$folder/by-pkg-config"
# shellcheck disable=SC2046
"$compiler" -std=c++20 "$here/client/Recorded.cpp" "$(pkg-config --variable=recorder qx-cuda)" -o "$folder/recorded" \
    $(pkg-config --cflags --libs qx-cuda) -ldl "-Wl,-rpath,$libraries"
runs "$folder/recorded"

if command -v dpkg-deb >/dev/null && command -v dpkg-shlibdeps >/dev/null && command -v file >/dev/null; then
    "$(dirname "$cmake")/cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$folder/package" >"$folder/cpack.log" 2>&1 ||
        { cat "$folder/cpack.log" >&2 && fail "no Debian package was made"; }
    package=$(find "$folder/package" -maxdepth 1 -name 'qx-cuda_*.deb')
    contents=$(dpkg-deb --contents "$package")
    for wanted in "/libQx\\.Cuda\\.${version%.*}\\.[a-z0-9]*\\.so$" 'include/Qx\.Cuda/QxCuda\.h$' 'QxCudaConfig\.cmake$' 'qx-cuda\.pc$' \
        'share/doc/qx-cuda/copyright$'; do
        grep -Eq "$wanted" <<<"$contents" || fail "the Debian package lacks $wanted"
    done
    dpkg-deb --field "$package" Depends | grep -q libc6 || fail "the Debian package does not say what it needs"
    echo "package $(basename "$package") needs $(dpkg-deb --field "$package" Depends)"
fi
