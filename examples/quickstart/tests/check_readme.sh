#!/bin/sh
# The README shows the example's two files; this fails when it shows anything else.
set -eu
root=$1
for file in host worker; do
    shown=$(awk -v start="<!-- examples/quickstart/$file.cpp -->" '
        $0 == start { found = 1; next }
        found && /^```cpp$/ { inside = 1; next }
        inside && /^```$/ { exit }
        inside' "$root/README.md")
    if [ "$shown" != "$(cat "$root/examples/quickstart/$file.cpp")" ]; then
        echo "README.md does not show examples/quickstart/$file.cpp as it is" >&2
        exit 1
    fi
done
