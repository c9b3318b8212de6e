#!/usr/bin/env bash
# Runs the program as a user does: what it prints, what it writes, and how it refuses bad input.
#   heightcorrection.sh PROGRAM
. "$(dirname "$0")/expect.sh"

# corrected: the last run left less than a third of the sensor's error.
corrected() {
    local errors
    errors=$(sed -n 's/^result .* RMS error \([0-9.]*\) before, \([0-9.]*\) after.*/\1 \2/p' stdout)
    awk '{ exit !($1 > 0 && $2 * 3 < $1) }' <<<"${errors:-0 1}" || fail "'$label' went from an error of '$errors'"
}

run 0 --help
prints '^usage: qx_heightcorrection'

run 0
prints '^mapping   32 x 24 x 8 cells, 24576 bytes$'
prints '^probe     x 0\.5, y 0\.5: height '
prints '^result    20 probes agree to the last bit; .*; written to measured.png and corrected.png$'
corrected
cmp -s measured.png corrected.png && fail "'$label' corrected nothing"

# A flat surface comes out nearly flat, whatever its size.
printf 'P5 1 1 255\n\200' >one.pgm
{ printf 'P5 300 200 255\n' && head -c 60000 /dev/zero | tr '\0' '\200'; } >flat.pgm
for surface in one flat; do
    run 0 $surface.pgm -b bent.png -o $surface.png
    prints '^result    20 probes agree to the last bit; .*; written to bent.png and '
    corrected
    cmp -s bent.png $surface.png && fail "the sensor does not bend a surface of $surface"
done

refuses_bad_input
refuses 1 "'no/such/folder.png' cannot be written" colours.ppm -b no/such/folder.png
refuses 2 "option '-b' needs a value" colours.ppm -b
exit $((failures > 0))
