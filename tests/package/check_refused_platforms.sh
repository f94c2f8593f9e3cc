#!/usr/bin/env bash
# What the library cannot be built for is refused by CMake, in one line that says what is missing.
#
# usage: check_refused_platforms.sh SOURCE_TREE FOLDER CMAKE [cmake options...]
set -euo pipefail

source_tree=$1 folder=$2
shift 2
rm -rf "$folder"
mkdir -p "$folder/older" "$folder/other"

# expect_refusal LINE [cmake options...]
expect_refusal() {
    local line=$1 output
    shift
    rm -rf "$folder/build"
    if output=$("${configure[@]}" "$@" 2>&1); then
        echo "FAILED: configured although: $line" >&2
        exit 1
    fi
    if [[ $(grep --count --line-regexp --fixed-strings "  $line" <<<"$output") != 1 ]]; then
        printf 'FAILED: not said: %s\n%s\n' "$line" "$output" >&2
        exit 1
    fi
}

# Programs for another processor are compiled but not linked: their libraries need not be here.
configure=("$@" -S "$source_tree" -B "$folder/build" -DCMAKE_TRY_COMPILE_TARGET_TYPE=STATIC_LIBRARY)

for system in Windows FreeBSD Darwin; do
    expect_refusal "nqSchedulerAPI runs on Linux only, not on $system." -DCMAKE_SYSTEM_NAME=$system
done
for option in -m32 -mx32; do
    expect_refusal "nqSchedulerAPI needs a compiler for x86-64 or aarch64." -DCMAKE_CXX_FLAGS=$option
done

# The header by which a C library tells its name and version.
cat >"$folder/older/features.h" <<'END'
#define __GLIBC__ 2
#define __GLIBC_MINOR__ 33
#define __GLIBC_PREREQ(major, minor) (2 > (major) || (2 == (major) && 33 >= (minor)))
END
: >"$folder/other/features.h"
for library in older other; do
    expect_refusal "nqSchedulerAPI needs glibc 2.34 or later." "-DCMAKE_CXX_FLAGS=-I$folder/$library"
done
echo "Every platform that cannot do is refused."
