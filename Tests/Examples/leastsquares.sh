#!/usr/bin/env bash
# Runs the program as a user does: what it prints, and how it refuses bad input.
#   leastsquares.sh PROGRAM
. "$(dirname "$0")/expect.sh"

run 0 --help
prints '^usage: qx_leastsquares'

# Without noise the fit is exact: the inverse of the camera's matrix, to all digits.
run 0 -n 0
prints '^chart     24 patches, 9600 samples, noise 0$'
prints '^error     0\.[0-9]*[1-9][0-9]* before, 0\.000000 after$'
prints '^result    camera and correction together are off by 0\.000000$'
exact=$(grep '^r ' stdout)

run 0
prints '^error     0\.1[0-9]+ before, 0\.01[0-9]+ after$'
prints '^result    camera and correction together are off by 0\.0[0-9]+$'
[ "$exact" != "$(grep '^r ' stdout)" ] || fail "the noise has no effect"
cp stdout first
run 0 -n 0.01
cmp first stdout || fail "the default noise is another, or two runs differ"

refuses 1 "noise 'x' is not a number from 0 to 0.05" -n x
refuses 1 "noise '0.2' is not a number" -n 0.2
refuses 1 "noise 'nan' is not a number" -n nan
refuses 1 "noise '0.01x' is not a number" -n 0.01x
refuses 2 "option '-n' needs a value" -n
refuses 2 "one argument too many: 'chart.png'" chart.png
exit $((failures > 0))
