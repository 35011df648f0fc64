#!/usr/bin/env bash
# build_revision.sh REVISION: builds the shared library of a commit and prints the directory that contains it. Later
# runs use what is there. Fails if the commit is not in this clone.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
commit=$(git rev-parse --quiet --verify "$1^{commit}") || { echo "there is no commit $1 in this clone" >&2; exit 1; }
tree=$PWD/build/revisions/$commit
if [ ! -e "$tree/build/release/src/libscclib.so" ]; then
    rm -rf "$tree"
    mkdir -p "$tree"
    git archive "$commit" | tar -x -C "$tree"
    cd "$tree"
    # shellcheck source=scripts/common.sh
    . scripts/common.sh
    {
        cmake --preset release -DSCC_BENCH=OFF -DSCC_DEVKIT=OFF
        build release scclib
    } >"$tree/build.log" 2>&1 || { cat "$tree/build.log" >&2; exit 1; }
fi
echo "$tree/build/release/src"
