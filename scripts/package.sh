#!/usr/bin/env bash
# package.sh [DIRECTORY]: builds the source package and the Debian packages (debian/) in DIRECTORY (build/packages).
# Does not need root. The build happens in a copy of the sources, DIRECTORY/source, so that the checkout stays clean.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
umask 022
mkdir -p "${1:-build/packages}"
output=$(cd "${1:-build/packages}" && pwd)
tree=$output/source/scclib

fail() {
    echo "package: $1" >&2
    exit 1
}

version=$(sed -n 's/^project(scclib VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ "$(dpkg-parsechangelog -S Version)" = "$version" ] || fail "debian/changelog and CMakeLists.txt have different versions"

# With the options of the preset release, most objects come from the compiler cache. The packaging tools give the build
# a home directory of its own, where it would not find the cache.
export SCC_CMAKE_OPTIONS=-DSCC_WARNINGS_AS_ERRORS=ON
export CCACHE_BASEDIR=$tree
if command -v ccache >/dev/null; then
    CCACHE_DIR=$(ccache --get-config cache_dir)
    export CCACHE_DIR
fi
rm -rf "$output/source" "$output"/*.deb "$output"/scclib_*
mkdir -p "$tree"
tar --exclude=./.git --exclude=./build --create . | tar --extract --directory "$tree"
(cd "$tree" && dpkg-buildpackage --unsigned-source --unsigned-changes) >"$output/log" 2>&1 || {
    tail -n 40 "$output/log" >&2
    fail "cannot build the packages; see $output/log"
}
mv "$output"/source/*.* "$output/"
rm -rf "$output/source"
find "$output" -maxdepth 1 -name '*.deb' | sort
