#!/usr/bin/env bash
# Looks at how a built shared library protects the process that loads it: no memory that is both
# writable and executable, the linker's tables read-only once everything is resolved at load, and
# calls into the C library's checks.
#
# usage: check_hardening.sh LIBRARY CHECK...
#
# Every CHECK is a function of the C library that has to be called; empty ones are passed over.
set -euo pipefail

library=$1
shift

failures=0
complain() {
    echo "FAILED: $(basename "$library"): $*" >&2
    failures=$((failures + 1))
}

segments=$(readelf --program-headers --wide "$library")
dynamic=$(readelf --dynamic --wide "$library")
called=$(nm --dynamic --undefined-only "$library" | sed 's/^ *U //; s/@.*//')

# The flags of the segments of one kind, one segment a line: "RW", "R E" without the blanks.
flags_of() {
    sed -n "s/^ *$1 .* \([R ][W ][E ]\) 0x[0-9a-f]*\$/\1/p" <<<"$segments" | tr -d ' '
}

[[ -n $(flags_of GNU_RELRO) ]] || complain "its tables stay writable (no GNU_RELRO)"
grep --quiet 'BIND_NOW' <<<"$dynamic" ||
    complain "functions are resolved at their first call (no BIND_NOW)"
[[ $(flags_of GNU_STACK) == RW ]] ||
    complain "it asks for a stack with the rights '$(flags_of GNU_STACK)' instead of RW"
[[ -n $(flags_of LOAD) ]] || complain "its segments cannot be read from readelf's output"
! grep --quiet 'W.*E' < <(flags_of LOAD) || complain "a segment is both writable and executable"
! grep --quiet 'TEXTREL' <<<"$dynamic" || complain "its code is written to at load (TEXTREL)"

for check in "$@"; do
    [[ -z $check ]] || grep --quiet --line-regexp "$check" <<<"$called" ||
        complain "nothing in it calls $check"
done

((failures == 0)) || exit 1
echo "$(basename "$library") is hardened."
