#!/usr/bin/env bash
# What a change has to hold besides the tests: the format of the sources, the spelling, the scripts, the binary interface
# and, with --tidy, clang-tidy over the libraries and examples, which takes minutes. Installs the Debian packages that are missing.
#
# usage: scripts/check.sh [--tidy] [--help]
#
#   --tidy  clang-tidy as well
#   --help  this text
. "$(dirname "$0")/common.sh"

tidy=""
for option in "$@"; do
    case $option in
        --tidy) tidy=yes ;;
        --help) usage && exit ;;
        *) unknown_option "$option" ;;
    esac
done

# shellcheck disable=SC2086
need $build_packages $library_packages clang-format codespell shellcheck ${tidy:+clang-tidy} git
# The files of the project, also where the checkout is an archive.
files() { git ls-files "$@" 2>/dev/null || die "this is no git checkout" "clone the project, then run this again"; }

say "format"
files '*.cpp' '*.h' | xargs clang-format --dry-run -Werror || die "the format is not that of .clang-format" \
    "run: git ls-files '*.cpp' '*.h' | xargs clang-format -i"

say "spelling"
# Names whose first letter tells their type look like misspelt words, and one text of the CUDA runtime has one.
files | grep -v '\.abi$' | xargs codespell --quiet-level 3 \
    --ignore-words-list "useed,pevent,plent,nnumber,skept,iterm,occured" || die "there are misspelt words" "the lines above say where"

say "scripts"
files '*.sh' .ci/run | xargs shellcheck -x --severity=warning || die "shellcheck found something" "the lines above say where"

# The baseline is that of one processor.
[ "$(uname -m)" != x86_64 ] || scripts/abi.sh

if [ -n "$tidy" ]; then
    say "clang-tidy"
    build host
    # The implementation of stb is judged by its authors' rules.
    files 'Source/*.cpp' 'Examples/*.cpp' ':!*/StbImplementation.cpp' | xargs -P "$(job_count)" -n 1 clang-tidy -p build/host --quiet 2>/dev/null ||
        die "clang-tidy found something" "the lines above say where"
fi
say "all checks passed"
