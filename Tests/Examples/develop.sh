#!/usr/bin/env bash
# Runs the program as a user does: what it prints, what it writes, and how it refuses bad input.
#   develop.sh PROGRAM
. "$(dirname "$0")/expect.sh"

# psnr_above DECIBELS: the last run came at least so close to its input.
psnr_above() {
    local decibels
    decibels=$(sed -n 's/^result    PSNR \([0-9]*\)\..*/\1/p' stdout)
    [ "${decibels:-0}" -ge "$1" ] || fail "'$label' reached ${decibels:-no} dB instead of $1"
}

run 0 --help
prints '^usage: qx_develop'

# The chart is made to be hard on demosaicing; what it reaches only tells a working program from a broken one.
run 0
prints '^launch    grid \[5, 833, 1\], block \[256, 1, 1\]$'
prints '^debug     [1-9][0-9]+ clipped pixels, 1000 of them recorded$'
prints '^          x [0-9]+, y [0-9]+, sample 4095$'
psnr_above 22
[ -s developed.png ] && [ -s edges.png ] || fail "'$label' did not write both pictures"

# A picture without detail survives the sensor whole and has no edges, whatever its size.
# uniform FILE OCTAL WIDTH HEIGHT: a picture of one grey.
uniform() { { printf 'P6 %s %s 255\n' "$3" "$4" && head -c $(($3 * $4 * 3)) /dev/zero | tr '\0' "\\$2"; } >"$1"; }

for size in '1 1' '2 2' '3 5' '64 48'; do
    # shellcheck disable=SC2086
    uniform grey.ppm 200 $size && uniform black.ppm 000 $size
    run 0 grey.ppm -o grey.png -e none.png
    prints '^debug     0 clipped pixels, 0 of them recorded$'
    prints '^result    PSNR inf dB; written to grey.png and none.png$'
    run 0 black.ppm -o black.png
    cmp none.png black.png || fail "a grey picture of $size has edges"
    cmp -s grey.png black.png && fail "grey and black of $size look the same"
done

refuses_bad_input
refuses 1 "'no/such/folder.png' cannot be written" colours.ppm -e no/such/folder.png
refuses 2 "option '-e' needs a value" colours.ppm -e
exit $((failures > 0))
