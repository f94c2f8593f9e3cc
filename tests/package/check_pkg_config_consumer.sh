#!/usr/bin/env bash
# Builds the consumer's programs with what pkg-config says, and runs them.
#
# usage: check_pkg_config_consumer.sh PREFIX SCRATCH COMPILER
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
source "$here/consumer_functions.sh"

prefix=$1 scratch=$2 compiler=$3
rm -rf "$scratch"
mkdir -p "$scratch"

# These files alone, and not what the system may have.
package_file=$(find "$prefix" -name nqSchedulerAPI.pc)
[[ -n $package_file ]] || fail "there is no nqSchedulerAPI.pc in $prefix"
PKG_CONFIG_LIBDIR=$(dirname "$package_file")
export PKG_CONFIG_LIBDIR

# variable NAME PACKAGE: pkg-config puts a backslash before what a shell would split at.
variable() {
    local value
    read value < <(pkg-config --variable="$1" "$2")
    echo "$value"
}

# expect_version PACKAGE VERSION OLDEST TOO_NEW
expect_version() {
    found=$(pkg-config --modversion "$1") || fail "pkg-config does not know $1"
    [[ $found == "$2" ]] || fail "the version of $1 is $found"
    pkg-config --exists "$1 >= $3" || fail "$1 is older than $3"
    ! pkg-config --exists "$1 >= $4" || fail "$1 passes itself off as version $4"
}
expect_version nqSchedulerAPI 3.0.0 3.0 3.1
expect_version nqSystem 3.0.0 3.0 3.1
expect_version nqPool 0.1.0 0.1 0.2

for package in nqSchedulerAPI nqSystem nqPool; do
    found=$(variable prefix "$package")
    [[ $(realpath "$found") == "$(realpath "$prefix")" ]] ||
        fail "the prefix of $package is $found, not $prefix"
done
for package in nqSchedulerAPI nqPool; do
    [[ $(pkg-config --libs "$package") != *nqSystem* ]] ||
        fail "every program with $package is linked to the platform library"
done

# build PROGRAM PACKAGE...
build() {
    local program=$1 flags
    shift
    read -a flags < <(pkg-config --cflags --libs "$@")
    "$compiler" -std=c++17 "$here/../consumer/$program.cpp" -o "$scratch/$program" "${flags[@]}" \
        "-Wl,-rpath,$(variable libdir nqSchedulerAPI)" || fail "$program does not build"
}
build worker nqSchedulerAPI
build host nqSchedulerAPI
build logging_host nqSchedulerAPI nqSystem
build pool_host nqPool
run_programs "$scratch" "$prefix"
echo "The consumer works (pkg-config)."
