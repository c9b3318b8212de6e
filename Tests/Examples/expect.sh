# shellcheck shell=bash
# What the tests of the example programs share; sourced with the program as $1 and, in a cross-build, the
# emulator's command after it. Every test works in a folder of its own.
set -u
program=("${@:2}" "$1")
name=$(basename "$1")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder" || exit 1
failures=0

fail() {
    echo "FAILED: $*" >&2
    sed 's/^/    /' stdout stderr >&2
    failures=$((failures + 1))
}

# run EXPECTED-EXIT-CODE ARGUMENTS...
run() {
    local expected=$1
    shift
    label="$*"
    "${program[@]}" "$@" >stdout 2>stderr
    local code=$?
    [ "$code" -eq "$expected" ] || fail "'$label' ended with $code instead of $expected"
}

# prints PATTERN: the last run printed a line like it, and nothing on standard error.
prints() {
    grep -Eq -- "$1" stdout || fail "'$label' did not print '$1'"
    [ -s stderr ] && fail "'$label' printed an error"
}

# refuses EXIT-CODE PATTERN ARGUMENTS...: one line on standard error that matches, and no result.
refuses() {
    local code=$1 pattern=$2
    shift 2
    run "$code" "$@"
    [ "$(wc -l <stderr)" -eq 1 ] || fail "'$label' did not print one line of error"
    grep -Eq -- "^$name: .*$pattern" stderr || fail "'$label' did not say '$pattern'"
    grep -q '^result' stdout && fail "'$label' claims a result"
}

# refuses_bad_input: what every program that takes a picture, or with inputs=many several, and -o has to refuse.
refuses_bad_input() {
    printf 'plain text' >text.png
    printf 'P5 0 4 255\n' >empty.pgm
    printf 'P5 90000 90000 255\n' >huge.pgm
    printf 'P6 3 2 255\nabcdefghijklmnopqr' >colours.ppm
    mkdir folder
    refuses 1 "'missing.png' cannot be read: No such file" missing.png
    refuses 1 "'folder' cannot be read" folder
    refuses 1 "'text.png' is not a picture" text.png
    refuses 1 "'empty.pgm' has no pixels" empty.pgm
    refuses 1 "'huge.pgm' has 90000 x 90000 pixels" huge.pgm
    refuses 1 "'no/such/folder.png' cannot be written: No such file" colours.ppm -o no/such/folder.png
    refuses 1 "'folder' cannot be written: Is a directory" colours.ppm -o folder
    refuses 1 "'/dev/full' cannot be written: No space" colours.ppm -o /dev/full
    refuses 2 "unknown option '-x'" -x
    refuses 2 "unknown option '--output'" colours.ppm --output a.png
    refuses 2 "option '-o' needs a value" colours.ppm -o
    refuses 2 "option '-o' needs a value" -o ''
    [ "${inputs:-one}" = many ] || refuses 2 "one argument too many: 'text.png'" colours.ppm text.png

    label='standard output that is full'
    "${program[@]}" >/dev/full 2>stderr && fail "$label went unnoticed"
    : >stdout
    grep -q 'cannot write to standard output' stderr || fail "$label was not named"
}
