#!/usr/bin/env bash
# Makes the Debian packages, looks at what they say of themselves, and unpacks them into FOLDER/root.
#
# usage: check_debian_packages.sh SOURCE_TREE FOLDER
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
source "$here/consumer_functions.sh"

source_tree=$1 folder=$2
rm -rf "$folder"
mkdir -p "$folder/root"
"$source_tree/scripts/package" "$folder/build" || fail "the packages are not made, or not clean"

# expect PACKAGE FIELD VALUE
expect() {
    local found
    found=$(dpkg-deb --field "$folder/build/$1"_*.deb "$2")
    [[ $found == "$3" ]] || fail "$2 of $1 is '$found' instead of '$3'"
}
version=3.0.0-1
for package in libnqsystem3.0 libnqschedulerapi3.0 libnqpool0.1 libnqcluster0.1 nq-agent \
    libnqschedulerapi-dev nqrun; do
    expect "$package" Package "$package"
    expect "$package" Version "$version"
    expect "$package" Architecture amd64
done
expect libnqschedulerapi-dev Depends \
    "libnqschedulerapi3.0 (= $version), libnqsystem3.0 (= $version), libnqpool0.1 (= $version), libnqcluster0.1 (= $version)"

# expect_depends PACKAGE OURS: it names the packages of our libraries that it needs, then those of the
# libraries of the system.
expect_depends() {
    local found
    found=$(dpkg-deb --field "$folder/build/$1"_*.deb Depends)
    [[ $found == "$2, libc6 (>= "* && $found == *"libstdc++6 (>= "* ]] || fail "$1 depends on '$found'"
}
expect_depends libnqschedulerapi3.0 "libnqsystem3.0 (= $version)"
expect_depends libnqpool0.1 "libnqschedulerapi3.0 (= $version), libnqsystem3.0 (= $version)"
expect_depends nqrun "libnqpool0.1 (= $version), libnqcluster0.1 (= $version)"
for package in libnqcluster0.1 nq-agent; do
    expect_depends "$package" \
        "libnqschedulerapi3.0 (= $version), libnqsystem3.0 (= $version), libnqpool0.1 (= $version)"
done

# expect_library NAME SOVERSION
expect_library() {
    local file found
    file=$(echo "$folder/build/${1,,}$2"_*.deb)
    found=$(dpkg-deb --info "$file" shlibs)
    [[ $found == "$1 $2 ${1,,}$2 (>= $version)" ]] || fail "shlibs of $1: $found"
    found=$(dpkg-deb --info "$file" triggers)
    [[ $found == "activate-noawait ldconfig" ]] || fail "triggers of $1: $found"
}
expect_library libnqSystem 3.0
expect_library libnqSchedulerAPI 3.0
expect_library libnqPool 0.1
expect_library libnqCluster 0.1

for file in "$folder"/build/*.deb; do
    dpkg-deb --extract "$file" "$folder/root"
    texts=$folder/root/usr/share/doc/$(dpkg-deb --field "$file" Package)
    grep --quiet --line-regexp 'License: Apache-2.0' "$texts/copyright" ||
        fail "$(basename "$file") does not say its licence"
    cmp "$source_tree/NOTICE" "$texts/NOTICE" || fail "$(basename "$file") has another notice"
done
for library in "$folder"/root/usr/lib/*/*.so.*; do
    ! grep --quiet 'RUNPATH\|RPATH' < <(readelf --dynamic --wide "$library") ||
        fail "$(basename "$library") looks for libraries in folders of its own"
done
for file in bin/nqrun share/man/man1/nqrun.1.gz share/bash-completion/completions/nqrun; do
    [[ -f $folder/root/usr/$file ]] || fail "there is no $file"
done
[[ $(LD_LIBRARY_PATH=$folder/root/usr/lib/x86_64-linux-gnu "$folder/root/usr/bin/nqrun" echo ::: installed) == installed ]] ||
    fail "the packaged nqrun does not run"
echo "The packages are as they should be."
