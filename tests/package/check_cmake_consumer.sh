#!/usr/bin/env bash
# Builds the consumer project by CMake and runs its programs.
#
# usage: check_cmake_consumer.sh WAY PLACE SCRATCH CMAKE [cmake options...]
#
# WAY and PLACE: find_package and the prefix that the libraries are installed under, add_subdirectory
# and the source tree, FetchContent and an archive of it. Options that say how libraries are built are
# the consumer's own for its own libraries, and change nothing here.
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
source "$here/consumer_functions.sh"

way=$1 place=$2 scratch=$3 cmake=$4
shift 4
build=$scratch/build
rm -rf "$scratch"
mkdir -p "$scratch"

case $way in
find_package)
    options=("-DCMAKE_PREFIX_PATH=$place")
    libraries=$place
    ;;
add_subdirectory)
    options=("-DSOURCE=$place" -DBUILD_SHARED_LIBS=OFF)
    libraries=$build
    ;;
FetchContent)
    options=("-DSOURCE=$place" -DBUILD_SHARED_LIBS=OFF -DNQ_INSTALL=ON)
    libraries=$build
    ;;
*) fail "there is no way of use called '$way'" ;;
esac

"$cmake" -S "$here/../consumer" -B "$build" "-DWAY=$way" "${options[@]}" "$@" ||
    fail "the consumer does not configure"
"$cmake" --build "$build" || fail "the consumer does not build"
run_programs "$build" "$libraries"

"$cmake" --install "$build" --prefix "$scratch/installed" >"$scratch/install.log" ||
    fail "the consumer is not installed: $(cat "$scratch/install.log")"
if [[ $way == FetchContent ]]; then
    # With NQ_INSTALL the libraries go with the programs, and are found beside them.
    run_programs "$scratch/installed/bin" "$scratch/installed"
else
    installed=$(cd "$scratch/installed" && find . -type f | LC_ALL=C sort | tr '\n' ' ')
    [[ $installed == "./bin/host ./bin/logging_host ./bin/pool_host ./bin/worker " ]] ||
        fail "the consumer's installation holds '$installed', not its programs alone"
fi
echo "The consumer works ($way)."
