#!/usr/bin/env bash
# The build identifier is the revision of the sources wherever they are: in a repository, in a worktree
# of one, in an archive; and never the revision of something else around them.
#
# usage: check_build_identifier.sh CASE SOURCE_TREE FOLDER CMAKE [cmake options...]
set -euo pipefail

case=$1 source_tree=$2 folder=$3
shift 3
configure=("$@" -G Ninja -DCMAKE_EXPORT_COMPILE_COMMANDS=ON)
configure+=(-DNQ_BUILD_TESTS=OFF -DNQ_BUILD_EXAMPLES=OFF -DNQ_BUILD_TOOLS=OFF -DNQ_BUILD_CLUSTER=OFF -DNQ_INSTALL=OFF)
unknown=0000000000000000

# The user's own settings and a repository of the caller, as in a hook, are none of our business.
unset "${!GIT_@}"
export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_SYSTEM=/dev/null
export GIT_AUTHOR_NAME=test GIT_AUTHOR_EMAIL=test GIT_COMMITTER_NAME=test GIT_COMMITTER_EMAIL=test

rm -rf "$folder"
mkdir -p "$folder/sources"
tar --create --directory "$source_tree" .gitattributes CMakeLists.txt cmake include pool \
    scheduler supervision support system worker | tar --extract --directory "$folder/sources"
# As it is checked out, also when these sources are an archive themselves.
echo '$Format:%H$' >"$folder/sources/cmake/nqRevision.txt"

make_repository() {
    git -C "$1" init --quiet
    git -C "$1" add --all
    git -C "$1" commit --quiet --message first
}

revision_of() {
    git -C "$1" rev-parse HEAD | cut -c 1-16
}

configured() {
    "${configure[@]}" -S "$1" -B "$folder/build" >"$folder/output" 2>&1 || {
        cat "$folder/output" >&2
        exit 1
    }
}

# expect WANTED: the identifier that the build will have.
expect() {
    local found
    found=$(sed -n 's/.*NQ_BUILD_IDENTIFIER=[^0-9a-f]*\([0-9a-f]*\).*/\1/p' \
        "$folder/build/compile_commands.json")
    [[ $found == "$1" ]] || {
        echo "FAILED: the identifier is '$found' instead of '$1'" >&2
        exit 1
    }
}

# What a build does first: it configures again if something has changed.
expect_a_commit_to_reach_the_build() {
    git -C "$1" commit --quiet --allow-empty --message "$2"
    cmake --build "$folder/build" --target build.ninja >/dev/null
    expect "$(revision_of "$1")"
}

case $case in
repository)
    make_repository "$folder/sources"
    configured "$folder/sources"
    expect "$(revision_of "$folder/sources")"
    expect_a_commit_to_reach_the_build "$folder/sources" second
    ;;
worktree)
    make_repository "$folder/sources"
    git -C "$folder/sources" worktree add --quiet "$folder/worktree"
    git -C "$folder/worktree" commit --quiet --allow-empty --message elsewhere
    configured "$folder/worktree"
    expect "$(revision_of "$folder/worktree")"
    expect_a_commit_to_reach_the_build "$folder/worktree" second
    ;;
archive)
    make_repository "$folder/sources"
    mkdir "$folder/unpacked"
    git -C "$folder/sources" archive HEAD | tar --extract --directory "$folder/unpacked"
    configured "$folder/unpacked"
    expect "$(revision_of "$folder/sources")"
    ;;
copy_inside_another_repository)
    make_repository "$folder"
    configured "$folder/sources"
    expect "$unknown"
    ;;
broken_repository_inside_another)
    make_repository "$folder"
    mkdir "$folder/sources/.git"
    configured "$folder/sources"
    expect "$unknown"
    ;;
copy_configured_from_a_hook)
    mkdir "$folder/other"
    : >"$folder/other/file"
    make_repository "$folder/other"
    export GIT_DIR=$folder/other/.git
    configured "$folder/sources"
    expect "$unknown"
    ;;
repository_configured_from_a_hook)
    mkdir "$folder/other"
    : >"$folder/other/file"
    make_repository "$folder/other"
    make_repository "$folder/sources"
    wanted=$(revision_of "$folder/sources")
    export GIT_DIR=$folder/other/.git
    configured "$folder/sources"
    expect "$wanted"
    ;;
*)
    echo "usage: no such case: $case" >&2
    exit 2
    ;;
esac
echo "The identifier is right: $case."
