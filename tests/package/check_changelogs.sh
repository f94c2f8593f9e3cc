#!/usr/bin/env bash
# The newest version that CHANGELOG.md and Debian's changelog tell of is the one that is built.
#
# usage: check_changelogs.sh ROOT VERSION
set -euo pipefail

root=$1 version=$2

# expect FILE PATTERN: the first line that matches holds the version, which the pattern's group is.
expect() {
    local found
    found=$(sed -n "s/$2/\1/p" "$root/$1" | head -n 1)
    [[ $found == "$version" ]] || {
        echo "FAILED: the newest version in $1 is '$found', not $version" >&2
        exit 1
    }
}
expect CHANGELOG.md '^## \([0-9][0-9.]*\).*'
expect cmake/package/debian/changelog '^nqschedulerapi (\(.*\)-[0-9]*).*'
echo "Both changelogs tell of $version."
