#!/usr/bin/env bash
# Builds the example programs and runs them on a picture: qx_roundtrip sends it host -> device -> device -> host,
# qx_develop makes a camera's raw frame of it and develops that with kernels of its own, qx_framestream sharpens it as a
# stream of frames, qx_heightcorrection takes it for a height map and corrects that; qx_leastsquares fits a colour
# correction. Runs on the GPU where the CUDA toolkit is installed and a device answers, on the host stand-in anywhere
# else. Installs the Debian packages that are missing.
#
# usage: scripts/demo.sh [--help] [PICTURE]
#
#   PICTURE  a PNG, JPEG, BMP, binary PGM or PPM file; left out, a photograph is taken from a Debian package (which is
#            unpacked under build/, not installed), or a test chart is drawn where that cannot be fetched
#   --help   this text
case ${1:-} in /* | '' | -*) picture=${1:-} ;; *) picture=$PWD/$1 ;; esac
. "$(dirname "$0")/common.sh"
case $picture in
    --help) usage && exit ;;
    -*) unknown_option "$picture" ;;
esac
[ $# -le 1 ] || die "more than one picture" "run '$0 --help' for the usage"
[ -z "$picture" ] || [ -r "$picture" ] || die "'$picture' cannot be read" "name an existing picture, or none"

folder=$root/build/demo
# shellcheck disable=SC2086
need $build_packages $library_packages $example_packages
mkdir -p "$folder"
examples="qx_roundtrip qx_develop qx_framestream qx_heightcorrection qx_leastsquares"
say "building $examples"
# shellcheck disable=SC2086
{
    cmake --preset host -B "$folder" -DQX_PLATFORM=AUTO -DQX_BUILD_TESTS=OFF &&
        cmake --build "$folder" --parallel "$(job_count)" --target $examples
} >"$folder/build.log" 2>&1 || {
    cat "$folder/build.log" >&2
    die "the demo does not build" "to start afresh: rm -r build/demo"
}

# The package carries two photographs as examples for image processing, both under CC BY 2.0.
photo_package=python3-sklearn
photo=$folder/photo/usr/lib/python3/dist-packages/sklearn/datasets/images/china.jpg
fetch_photo() {
    [ -r "$photo" ] && return
    command -v apt-get >/dev/null || return 1
    echo "fetching a photograph from the Debian package $photo_package (2 MB)"
    rm -rf "$folder/photo" && mkdir "$folder/photo" && cd "$folder/photo" || return 1
    # A machine without a package index gets one, where that is allowed.
    { apt-get download -qq "$photo_package" || { apt-get update -qq && apt-get download -qq "$photo_package"; }; } &&
        dpkg-deb -x "$photo_package"_*.deb . && rm "$photo_package"_*.deb && [ -r "$photo" ]
}
if [ -z "$picture" ]; then
    if (fetch_photo 2>"$folder/photo.log"); then
        picture=$photo
        echo "picture: china.jpg of $photo_package, by danielbuechele, CC BY 2.0"
    else
        echo "No photograph could be fetched ($photo_package, see build/demo/photo.log), so a test chart is drawn;"
        echo "to send a picture of your own: $0 PICTURE"
    fi
fi

# demo EXAMPLE ARGUMENTS...
demo() {
    say "running $1"
    "$folder/Examples/$1" "${@:2}" || die "$1 failed" "the line above says why"
}
demo qx_roundtrip ${picture:+"$picture"} -o "$folder/roundtrip.png"
demo qx_develop ${picture:+"$picture"} -o "$folder/developed.png" -e "$folder/edges.png"
demo qx_framestream ${picture:+"$picture"} -o "$folder/sharpened.png"
demo qx_heightcorrection ${picture:+"$picture"} -b "$folder/heights.png" -o "$folder/corrected.png"
demo qx_leastsquares
echo
echo "The picture that came back lies in $folder/roundtrip.png,"
echo "the developed one in $folder/developed.png, its edges in $folder/edges.png,"
echo "the last sharpened frame in $folder/sharpened.png,"
echo "the height maps in $folder/heights.png and $folder/corrected.png"
