#!/usr/bin/env bash
# Builds the consumer project against the library and runs it.
#
# usage: check_consumer.sh package BUILD_TREE SCRATCH CMAKE [cmake options...]
#        check_consumer.sh subdirectory SOURCE_TREE SCRATCH CMAKE [cmake options...]
set -euo pipefail

way=$1 tree=$2 scratch=$3 cmake=$4
shift 4
consumer=$(dirname "${BASH_SOURCE[0]}")/consumer

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

rm -rf "$scratch"
mkdir -p "$scratch"
trap 'rm -rf "$scratch"' EXIT

case $way in
package)
    "$cmake" --install "$tree" --prefix "$scratch/first" >"$scratch/install.log" ||
        fail "the installation: $(cat "$scratch/install.log")"
    # Whoever unpacks a package chooses the place: nothing may remember where it was installed.
    mv "$scratch/first" "$scratch/installed"
    set -- "$@" "-DCMAKE_PREFIX_PATH=$scratch/installed"
    library_folder=$(dirname "$(find "$scratch/installed" -name 'libnqSchedulerAPI.so.3.0')")
    for file in libnqSchedulerAPI.so libnqSchedulerAPI.so.3.0 libnqSystem.so libnqSystem.so.3.0; do
        [[ -e $library_folder/$file ]] || fail "$file is not installed beside libnqSchedulerAPI"
    done
    ;;
subdirectory) set -- "$@" "-DNQ_SOURCE=$tree" ;;
*) fail "there is no way of use called '$way'" ;;
esac

"$cmake" -S "$consumer" -B "$scratch/build" "$@" || fail "the consumer does not configure"
"$cmake" --build "$scratch/build" || fail "the consumer does not build"

output=$("$scratch/build/host" "$scratch/build/worker") || fail "the host ended with $?: $output"
expected=$'version 3.0.0\nanswer stressed'
[[ $output == "$expected" ]] || fail "the host printed '$output' instead of '$expected'"

output=$("$scratch/build/logging_host") || fail "the logging host ended with $?: $output"
[[ $output == "host log, level 3: Fail to startWorker, Process state is not 'running' (pid "* ]] ||
    fail "the host's own logger received '$output'"

echo "The consumer works ($way)."
