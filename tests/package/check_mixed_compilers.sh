#!/usr/bin/env bash
# Lets a host and a worker talk whose compilers differ, and with them the libraries that they load.
#
# usage: check_mixed_compilers.sh GXX_BUILD CLANG_BUILD
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
source "$here/consumer_functions.sh"

gxx=$1 clang=$2

# is_of_clang FILE: whether clang compiled any of it.
is_of_clang() {
    grep --quiet 'clang version' < <(readelf --string-dump=.comment "$1")
}
for name in host worker nqSchedulerAPI/system/linux/libnqSystem.so \
    nqSchedulerAPI/cmake/library/libnqSchedulerAPI.so; do
    is_of_clang "$clang/$name" || fail "clang++ has not built $clang/$name"
    ! is_of_clang "$gxx/$name" || fail "g++ has not built $gxx/$name"
done
for program in host worker; do
    for build in "$gxx" "$clang"; do
        grep --quiet --fixed-strings " => $build/" < <(ldd "$build/$program") ||
            fail "$build/$program loads a library of another build"
    done
done

run_pair "$gxx/host" "$clang/worker"
run_pair "$clang/host" "$gxx/worker"
echo "Hosts and workers of g++ and clang++ understand each other."
