#!/usr/bin/env bash
# Puts the libraries where the consumer's checks look for them: into a prefix, into one that was moved
# after the installation, and into an archive of the sources that a program's own build needs.
#
# usage: prepare_places.sh SOURCE_TREE BUILD_TREE FOLDER CMAKE
set -euo pipefail

source_tree=$1 build_tree=$2 folder=$3 cmake=$4
rm -rf "$folder"
mkdir -p "$folder"

"$cmake" --install "$build_tree" --prefix "$folder/installed"
"$cmake" --install "$build_tree" --prefix "$folder/first"
mv "$folder/first" "$folder/moved"

for text in LICENSE NOTICE; do
    cmp "$source_tree/$text" "$folder/moved/share/doc/nqSchedulerAPI/$text"
done

# Neither tests nor examples nor documents: a build within another project must not want them.
tar --create --gzip --file "$folder/nqSchedulerAPI-3.0.0.tar.gz" --directory "$source_tree" \
    --transform 's,^,nqSchedulerAPI-3.0.0/,' \
    CMakeLists.txt LICENSE NOTICE cmake include pool scheduler supervision support system worker
