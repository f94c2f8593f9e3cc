#!/usr/bin/env bash
# Fails when a built shared library imports a name that the C library has only since after VERSION:
# the loader of an older one refuses it.
#
# usage: check_c_library.sh LIBRARY VERSION
set -euo pipefail

library=$1 newest_allowed=$2

imports=$(objdump --dynamic-syms "$library" | grep '\*UND\*')
versions=$(grep --only-matching 'GLIBC_[0-9.]*' <<<"$imports" | sort --unique --version-sort)
newest=${versions##*GLIBC_}
later=$(printf '%s\n' "$newest" "$newest_allowed" | sort --version-sort | tail -n 1)
if [[ $later != "$newest_allowed" ]]; then
    echo "FAILED: $(basename "$library") needs glibc $newest for:" >&2
    grep --fixed-strings "GLIBC_$newest)" <<<"$imports" >&2
    exit 1
fi
echo "$(basename "$library") starts with glibc $newest_allowed; it needs $newest."
