#!/usr/bin/env bash
# Runs the program as a user does: what it prints, what it writes, and how it refuses bad input.
#   roundtrip.sh PROGRAM
. "$(dirname "$0")/expect.sh"

run 0 --help
prints '^usage: qx_roundtrip'

run 0 -o chart.png
prints '^image     1250 x 833, RGBA UByte, pitch [0-9]+ bytes for rows of 5000$'
prints '^pool      27 hits, 3 misses, 0 blocks in use, 3 idle'
prints '^result    all 4165000 bytes are the same after 10 rounds; written to chart.png$'

# The result is the picture: sent again, it comes out the same, from another format too.
run 0 chart.png -o again.png
prints '^result '
cmp chart.png again.png || fail "a picture changed on its second trip"
printf 'P6 3 2 255\nabcdefghijklmnopqr' >colours.ppm
run 0 colours.ppm -o colours.png
prints '^image     3 x 2, RGBA UByte, pitch [0-9]+ bytes for rows of 12$'
run 0 colours.png -o colours-again.png
cmp colours.png colours-again.png || fail "a picture changed on its second trip"
cmp -s colours.png chart.png && fail "two pictures have one result"

refuses_bad_input
exit $((failures > 0))
