#!/usr/bin/env bash
# Looks at a built shared library from outside: its name, what it needs, what it exports.
#
# usage: check_library.sh LIBRARY SONAME "NEEDED..." 'SYMBOL PATTERN'...
#
# Every exported symbol, demangled, has to match one of the patterns (extended regular expressions
# for the whole text), and every pattern has to match a symbol, so that neither grows stale.
set -euo pipefail

library=$1 soname=$2
read -ra allowed_libraries <<<"$3"
shift 3

failures=0
complain() {
    echo "FAILED: $*" >&2
    failures=$((failures + 1))
}

[[ $(basename "$(readlink -f "$library")") == "$soname" ]] ||
    complain "the file's name is $(basename "$(readlink -f "$library")"), not $soname"

dynamic=$(readelf --dynamic --wide "$library")
found=$(sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p' <<<"$dynamic")
[[ $found == "$soname" ]] || complain "the SONAME is '$found', not '$soname'"

while read -r needed; do
    [[ " ${allowed_libraries[*]} " == *" $needed "* ]] ||
        complain "it needs $needed, which is none of: ${allowed_libraries[*]}"
done < <(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic")

symbols=$(nm --dynamic --demangle --defined-only "$library" | sed 's/^[^ ]* . //')
[[ -n $symbols ]] || complain "it exports nothing"

whole_lines=()
for pattern in "$@"; do
    whole_lines+=(-e "$pattern")
    grep --quiet --line-regexp --extended-regexp -e "$pattern" <<<"$symbols" ||
        complain "it exports nothing like: $pattern"
done
foreign=$(grep --invert-match --line-regexp --extended-regexp "${whole_lines[@]}" <<<"$symbols" ||
    true)
[[ -z $foreign ]] || complain "it exports what is not its interface:"$'\n'"$foreign"

((failures == 0)) || exit 1
echo "$soname: $(wc -l <<<"$symbols") exported symbols, all of them meant to be."
