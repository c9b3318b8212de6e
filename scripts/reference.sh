#!/usr/bin/env bash
# Makes the reference: the comments of the public headers and the pages of Docs/ as HTML in build/reference, with
# Doxygen, which is installed where it is missing. Fails when a public name has no comment, a comment or a page is wrong,
# or a link leads nowhere.
#
# usage: scripts/reference.sh [--help]
. "$(dirname "$0")/common.sh"

only_help "$@"

need doxygen

# The public headers are those that are installed, but for the stand-in's copies of the toolkit's (.../include/...).
headers=$(grep -ohE '\bQx\.[A-Za-z.]+/[A-Za-z0-9]+\.h\b' Source/CMakeLists.txt Source/Qx.HostCuda/CMakeLists.txt | sort -u)
[ "$(wc -l <<<"$headers")" -gt 20 ] || die "the public headers were not found" "see HEADERS in Source/CMakeLists.txt"
pages=$(ls README.md CHANGELOG.md CONTRIBUTING.md Docs/*.md)

folder=$root/build/reference
log=$root/build/reference.log
rm -rf "$folder" && mkdir -p build
say "making the reference of $(wc -l <<<"$headers") headers and $(wc -l <<<"$pages") pages"
# shellcheck disable=SC2086 # one word a file
if ! { cat Docs/Doxyfile && printf 'PROJECT_NUMBER = %s\n' "$version" && printf 'INPUT += %s\n' $pages && printf 'INPUT += Source/%s\n' $headers; } |
    doxygen - >"$log" 2>&1 || [ ! -r "$folder/index.html" ]; then
    cat "$log" >&2
    die "Doxygen has complaints" "each line above names a file and a line; mend the comment or the page there"
fi
echo "The reference begins in $folder/index.html"
