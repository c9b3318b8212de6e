#!/usr/bin/env bash
# Runs the program as a user does: what it prints, what it writes, and how it refuses bad input.
#   framestream.sh PROGRAM
. "$(dirname "$0")/expect.sh"

run 0 --help
prints '^usage: qx_framestream'

run 0 -n 10
prints '^blocking  10 frames in [0-9.]+ s, [0-9.]+ frames per second$'
prints '^streamed  10 frames in [0-9.]+ s, [0-9.]+ frames per second$'
prints '^result    all 10 frames are the same both ways; the last one written to sharpened.png$'
[ -s sharpened.png ] || fail "'$label' did not write the last frame"

# Frames of different sizes, fewer and more than the ring holds. What has no detail comes back as it was.
printf 'P6 3 2 255\nabcdefghijklmnopqr' >colours.ppm
{ printf 'P6 64 48 255\n' && head -c 9216 /dev/zero | tr '\0' '\200'; } >grey.ppm
for frames in 1 3 4 5 12; do
    run 0 colours.ppm grey.ppm -n $frames
    prints "^result    all $frames frames are the same both ways"
done
cp sharpened.png grey.png
run 0 grey.png -n 1 -o again.png
cmp grey.png again.png || fail "a grey frame is not what it was"

inputs=many
refuses_bad_input
for frames in 0 -1 100001 1x; do
    refuses 1 "'$frames' is no number of frames" -n "$frames"
done
exit $((failures > 0))
