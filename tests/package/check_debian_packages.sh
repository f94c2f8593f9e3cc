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
for package in libnqsystem3.0 libnqschedulerapi3.0 libnqschedulerapi-dev; do
    expect "$package" Package "$package"
    expect "$package" Version "$version"
    expect "$package" Architecture amd64
done
expect libnqschedulerapi-dev Depends \
    "libnqschedulerapi3.0 (= $version), libnqsystem3.0 (= $version)"

# A library's package names the other library's package, then what the libraries of the system need.
depends=$(dpkg-deb --field "$folder"/build/libnqschedulerapi3.0_*.deb Depends)
[[ $depends == "libnqsystem3.0 (= $version), libc6 (>= "* && $depends == *"libstdc++6 (>= "* ]] ||
    fail "libnqschedulerapi3.0 depends on '$depends'"

for package in libnqSystem libnqSchedulerAPI; do
    file=$(echo "$folder/build/${package,,}"3.0_*.deb)
    found=$(dpkg-deb --info "$file" shlibs)
    [[ $found == "$package 3.0 ${package,,}3.0 (>= $version)" ]] || fail "shlibs of $package: $found"
    found=$(dpkg-deb --info "$file" triggers)
    [[ $found == "activate-noawait ldconfig" ]] || fail "triggers of $package: $found"
done

for file in "$folder"/build/*.deb; do
    dpkg-deb --extract "$file" "$folder/root"
done
for library in "$folder"/root/usr/lib/x86_64-linux-gnu/*.so.3.0; do
    ! grep --quiet 'RUNPATH\|RPATH' < <(readelf --dynamic --wide "$library") ||
        fail "$(basename "$library") looks for libraries in folders of its own"
done
echo "The packages are as they should be."
