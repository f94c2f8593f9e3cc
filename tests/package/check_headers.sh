#!/usr/bin/env bash
# Compiles every header of a folder alone, so that each one includes what it uses. Of the project's
# other folders, only VISIBLE ones are found.
#
# usage: check_headers.sh FOLDER COMPILER [VISIBLE...]
set -euo pipefail

folder=$1 compiler=$2
shift 2
visible=()
for other in "$@"; do
    visible+=(-I "$other")
done
shopt -s nullglob
headers=("$folder"/*.h)
((${#headers[@]} > 0)) || {
    echo "FAILED: there is no header in $folder" >&2
    exit 1
}

failures=0
for header in "${headers[@]}"; do
    "$compiler" -std=c++17 -Wall -Wextra -Wconversion -Wshadow -Wpedantic -Werror -fsyntax-only \
        -I "$folder" "${visible[@]}" -include "$header" -x c++ /dev/null || {
        echo "FAILED: $header does not compile alone" >&2
        failures=$((failures + 1))
    }
done
((failures == 0)) || exit 1
echo "${#headers[@]} headers compile alone."
