#!/usr/bin/env bash
# Everything that the stand-in declares is in the list of facts that is compared with the toolkit.
#   every-declaration.sh NM LIBRARY INCLUDE-FOLDER FACTS
set -euo pipefail
nm=$1 library=$2 headers=$3 facts=$4
checked=0
missing=0

# in_facts WHAT PATTERN: reads names and looks for each.
in_facts() {
    while read -r name; do
        checked=$((checked + 1))
        grep -Eq "$(printf "$2" "$name")" "$facts" || {
            echo "$1 $name is not compared in $(basename "$facts")"
            missing=$((missing + 1))
        }
    done
}
in_facts function 'decltype\(%s\)' < <("$nm" -D --defined-only "$library" | awk '$2 == "T" { print $3 }' |
    grep -E '^(cuda|cublas)[A-Z]' | sed 's/_v2$//' | sort -u)
in_facts enumerator '\\b%s\\b' < <(grep -ohE '\b(cuda|CUBLAS_)[A-Za-z0-9_]+ *= *[0-9x]+' "$headers"/*.h | sed 's/ *=.*//' | sort -u)
in_facts constant '\\b%s\\b' < <(grep -ohE '^#define +(cuda|CUBLAS_)[A-Za-z0-9_]+ +[(0-9]' "$headers"/*.h | awk '{ print $2 }' | sort -u)
echo "$checked names checked, $missing missing"
[ "$checked" -gt 100 ] && [ "$missing" -eq 0 ]
