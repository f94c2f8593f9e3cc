#!/usr/bin/env bash
# Compiles every header of a folder alone, with no other folder of the project in sight, so that
# each one includes what it uses and needs none of the others' folders.
#
# usage: check_headers.sh FOLDER COMPILER
set -euo pipefail

folder=$1 compiler=$2
shopt -s nullglob
headers=("$folder"/*.h)
((${#headers[@]} > 0)) || {
    echo "FAILED: there is no header in $folder" >&2
    exit 1
}

failures=0
for header in "${headers[@]}"; do
    "$compiler" -std=c++17 -Wall -Wextra -Wconversion -Wshadow -Wpedantic -Werror -fsyntax-only \
        -I "$folder" -include "$header" -x c++ /dev/null || {
        echo "FAILED: $header does not compile alone" >&2
        failures=$((failures + 1))
    }
done
((failures == 0)) || exit 1
echo "${#headers[@]} headers compile alone."
