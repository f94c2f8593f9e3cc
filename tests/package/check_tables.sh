#!/usr/bin/env bash
# Looks at the tables of virtual operations in a built shared library: each one more operation would
# move the table's end, and break what was linked against an older build.
#
# usage: check_tables.sh LIBRARY CLASS=BYTES...
set -euo pipefail

library=$1
shift

failures=0
for expected in "$@"; do
    class=${expected%=*}
    size=$(nm --dynamic --demangle --print-size --defined-only "$library" |
        sed -n "s/^[^ ]* \([^ ]*\) . vtable for $class\$/\1/p")
    if [[ -z $size ]] || ((16#$size != ${expected##*=})); then
        echo "FAILED: the table of $class has $((16#${size:-0})) bytes, not ${expected##*=}" >&2
        failures=$((failures + 1))
    fi
done
((failures == 0)) || exit 1
echo "$(basename "$library"): the tables of $# classes have the size they always had."
