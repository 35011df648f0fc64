#!/usr/bin/env bash
# Builds the Debian packages twice, in folders of different names and depths, with different time zones, languages and
# umasks and without the compiler cache, and compares them byte for byte.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
work=$(mktemp -d "${TMPDIR:-/tmp}/scclib-reproducible-XXXXXX")
trap 'rm -rf "$work"' EXIT

# build_in FOLDER UMASK: a source package keeps the modes of its files, so these are the same in both places, and
# the umask is that of the build alone.
build_in() (
    umask 022
    mkdir -p "$work/$1/scclib"
    tar --exclude=./.git --exclude=./build --create . | tar --extract --no-same-permissions --directory "$work/$1/scclib"
    cd "$work/$1/scclib"
    umask "$2"
    CCACHE_DISABLE=1 DEB_BUILD_OPTIONS=nocheck dpkg-buildpackage --unsigned-source --unsigned-changes >"$work/log" 2>&1 || {
        tail -n 40 "$work/log" >&2
        exit 1
    }
)

TZ=Pacific/Kiritimati LANG=C.UTF-8 LC_ALL=C.UTF-8 build_in one 022
TZ=America/Anchorage LANG=C LC_ALL=POSIX build_in another/place 077
different=0
for package in "$work"/one/*.deb "$work"/one/*.dsc "$work"/one/*.tar.*; do
    cmp "$package" "$work/another/place/${package##*/}" >&2 || different=1
done
[ "$different" -eq 0 ] || {
    echo "check_reproducible: the packages differ; apt-get install diffoscope-minimal shows where" >&2
    exit 1
}
echo "reproducible: $(find "$work/one" -name '*.deb' | wc -l) packages"
