#!/usr/bin/env bash
# The symbols that the libraries export are those of a list, and all of them are our own.
#   symbols.sh NM LIST LIBRARY...            compares
#   symbols.sh NM LIST LIBRARY... --accept   writes the list
set -euo pipefail
export LC_ALL=C
nm=$1 list=$2
shift 2
accept=""
libraries=()
for argument in "$@"; do
    if [ "$argument" = --accept ]; then accept=yes; else libraries+=("$argument"); fi
done
present=$(for library in "${libraries[@]}"; do
    "$nm" -D --defined-only --demangle "$library" | sed -E 's/^[0-9a-f]* *[A-Za-z] //' | sort -u |
        sed "s/^/$(basename "$library" | sed -E 's/\.so$//; s/(\.[0-9]+){2}\.(x64|arm64)$//'): /"
done)
foreign=$(grep -vE '^[^ ]+: ((non-virtual thunk to|typeinfo (name )?for|vtable for) )?Qx::|^[^ ]+: [^(]* Qx::' <<<"$present" || true)
[ -z "$foreign" ] || { echo "exported, but not ours:" && echo "$foreign" && exit 1; }
if [ -n "$accept" ]; then
    echo "$present" >"$list"
elif ! diff -u "$list" - <<<"$present"; then
    echo "The exported symbols have changed. When that is meant: scripts/abi.sh --accept, and commit the lists."
    exit 1
fi
