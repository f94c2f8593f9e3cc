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

for package in nqSchedulerAPI nqSystem; do
    found=$(pkg-config --modversion "$package") || fail "pkg-config does not know $package"
    [[ $found == 3.0.0 ]] || fail "the version of $package is $found"
    pkg-config --exists "$package >= 3.0" || fail "$package is older than 3.0"
    ! pkg-config --exists "$package >= 3.1" || fail "$package passes itself off as version 3.1"
    found=$(variable prefix "$package")
    [[ $(realpath "$found") == "$(realpath "$prefix")" ]] ||
        fail "the prefix of $package is $found, not $prefix"
done
[[ $(pkg-config --libs nqSchedulerAPI) != *nqSystem* ]] ||
    fail "every program is linked to the platform library"

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
run_programs "$scratch" "$prefix"
echo "The consumer works (pkg-config)."
