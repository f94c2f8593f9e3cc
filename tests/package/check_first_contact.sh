#!/usr/bin/env bash
# What CMake says and does on a machine that lacks what tests and examples need, and when it is told
# little. Configures only.
#
# usage: check_first_contact.sh CASE SOURCE_TREE FOLDER CMAKE [cmake options...]
set -euo pipefail

case=$1 source_tree=$2 folder=$3
shift 3
rm -rf "$folder"
mkdir -p "$folder"
cmake=("$@" -B "$folder/build")
unset CMAKE_BUILD_TYPE
hidden=()
for package in GTest CLI11 Boost; do
    hidden+=("-DCMAKE_DISABLE_FIND_PACKAGE_$package=ON")
done

fail() {
    printf 'FAILED: %s\n%s\n' "$1" "$output" >&2
    exit 1
}

# configure [cmake options...]: what CMake says is in `output`.
configure() {
    output=$("${cmake[@]}" -S "$source_tree" "$@" 2>&1) || fail "it does not configure"
}

# expect_refusal [cmake options...]
expect_refusal() {
    ! output=$("${cmake[@]}" -S "$source_tree" "$@" 2>&1) || fail "it configures"
}

# expect_lines COUNT PATTERN
expect_lines() {
    local found
    found=$(grep --count --extended-regexp -e "$2" <<<"$output") || true
    ((found == $1)) || fail "$found lines match '$2', where $1 should"
}

expect_build_type() {
    local found
    found=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$folder/build/CMakeCache.txt")
    [[ $found == "$1" ]] || fail "the build type is '$found', not '$1'"
}

case $case in
whatCannotBeBuiltIsLeftOutInALineEach)
    PKG_CONFIG_LIBDIR=$folder configure "${hidden[@]}"
    expect_lines 1 '^-- Left out: the tests \(apt-get install libgtest-dev\)$'
    expect_lines 1 '^-- Left out: nqrun \(apt-get install libcli11-dev\)$'
    expect_lines 1 '^-- Left out: the cluster \(apt-get install libhiredis-dev\)$'
    expect_lines 1 '^-- Left out: examples/contact_sheet \(apt-get install .*libcli11-dev.*\)$'
    output=$("$1" --build "$folder/build" --target help)
    expect_lines 1 '\bnqPool\b'
    expect_lines 0 '\b(nqUnitTests|nqrunParts|contact-sheet)\b'
    ;;
nothingIsLeftOutThatWasAskedFor)
    expect_refusal "${hidden[@]}" -DNQ_BUILD_TESTS=ON
    expect_lines 1 'NQ_BUILD_TESTS=ON: not installed for the tests: libgtest-dev$'
    rm -rf "$folder/build"
    PKG_CONFIG_LIBDIR=$folder expect_refusal "${hidden[@]}" -DNQ_BUILD_EXAMPLES=ON
    expect_lines 1 'NQ_BUILD_EXAMPLES=ON: not installed for examples/'
    ;;
whatIsLeftOutIsNamedAsSetupInstallsIt)
    PKG_CONFIG_LIBDIR=$folder configure "${hidden[@]}" -DNQ_BUILD_BENCHMARKS=AUTO
    packages=$(sed -n 's/^-- Left out: .*(apt-get install \(.*\))$/\1/p' <<<"$output" | tr ' ' '\n')
    [[ -n $packages ]] || fail "nothing is left out"
    installed=$("$source_tree/scripts/setup" --list)
    while read -r package; do
        grep --quiet --line-regexp --fixed-strings "$package" <<<"$installed" ||
            fail "scripts/setup does not install $package"
    done <<<"$packages"
    ;;
withoutABuildTypeTheBuildIsOptimised)
    configure -DNQ_BUILD_TESTS=OFF -DNQ_BUILD_EXAMPLES=OFF
    expect_lines 1 '^-- No build type given: Release$'
    expect_build_type Release
    ;;
aBuildTypeIsKept)
    configure -DNQ_BUILD_TESTS=OFF -DNQ_BUILD_EXAMPLES=OFF -DCMAKE_BUILD_TYPE=Debug
    expect_lines 0 'build type'
    expect_build_type Debug
    ;;
anUnknownBuildTypeIsTold)
    configure -DNQ_BUILD_TESTS=OFF -DNQ_BUILD_EXAMPLES=OFF -DCMAKE_BUILD_TYPE=Relaese
    expect_lines 1 '^-- Build type Relaese has no flags; is Release meant\?$'
    configure -DCMAKE_BUILD_TYPE=release
    expect_lines 0 '[Bb]uild type'
    configure -DCMAKE_BUILD_TYPE=Own -DCMAKE_CXX_FLAGS_OWN=-O2
    expect_lines 0 '[Bb]uild type'
    ;;
staticLibrariesAreDeclined)
    configure -DNQ_BUILD_TESTS=OFF -DNQ_BUILD_EXAMPLES=OFF -DBUILD_SHARED_LIBS=OFF
    expect_lines 1 '^-- BUILD_SHARED_LIBS=OFF does not apply: '
    ;;
aContainingProjectIsLeftAlone)
    mkdir "$folder/project"
    cat >"$folder/project/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.22)
project(mine LANGUAGES CXX)
set(BUILD_SHARED_LIBS OFF)
message(STATUS "begins")
add_subdirectory($source_tree nqSchedulerAPI)
message(STATUS "ends")
END
    output=$("${cmake[@]}" -S "$folder/project" "${hidden[@]}" 2>&1) || fail "it does not configure"
    output=$(sed -n '/^-- begins$/,/^-- ends$/p' <<<"$output")
    # CMake's own words about threads are no words of ours.
    output=$(grep --invert-match 'Threads\|CMAKE_HAVE_LIBC_PTHREAD' <<<"$output")
    expect_lines 2 ''
    expect_build_type ''
    ;;
*)
    echo "there is no case '$case'" >&2
    exit 2
    ;;
esac
echo "$case: yes"
