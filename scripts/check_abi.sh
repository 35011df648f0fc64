#!/usr/bin/env bash
# check_abi.sh LIBRARY [--renew]: compares the binary interface with the recorded one, abi/scclib.abi.
# The record must not depend on the flags of a build, so a copy with debug information is built in build/abi.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
library=${1:?path of libscclib.so}
renew=${2:-}
recorded=abi/scclib.abi
work=$(mktemp -d "${TMPDIR:-/tmp}/scclib-abi-XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() {
    echo "check_abi: $1" >&2
    exit 1
}

# The record must be the same in every checkout, so it must not contain directories.
build_copy() {
    local flags="-ffile-prefix-map=$PWD=."
    cmake -S . -B build/abi -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_FLAGS="$flags" \
        -DCMAKE_CXX_FLAGS="$flags" -DSCC_DEVKIT=OFF -DSCC_TESTS=OFF -DSCC_BENCH=OFF &&
        cmake --build build/abi --parallel "$jobs" --target scclib -- --quiet
}

visible() { nm -D --defined-only "$1" | awk '{print $2, $3}' | sort; }

[ -f "$library" ] || fail "there is no $library"
build_copy >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    fail "cannot build the copy with debug information"
}
copy=build/abi/src/libscclib.so
[ "$(visible "$library")" = "$(visible "$copy")" ] || {
    diff <(visible "$library") <(visible "$copy") >&2 || true
    fail "$library and $copy have different symbols; one of them is out of date"
}
abidw --headers-dir include --exported-interfaces-only --no-show-locs --no-corpus-path --no-comp-dir-path \
    --type-id-style hash --out-file "$work/scclib.abi" "$copy"
# The compilers and ccache record the sources' directory in different forms.
sed -i "s#path='[^']*/\(src\|include\)/#path='\1/#" "$work/scclib.abi"
if grep -nF "$PWD" "$work/scclib.abi" >&2; then
    fail "the record contains a path of this checkout"
fi

if [ "$renew" = --renew ]; then
    mkdir -p abi
    cp "$work/scclib.abi" "$recorded"
    echo "recorded: $recorded"
    exit 0
fi
[ -f "$recorded" ] || fail "there is no $recorded; record it with: scripts/check_abi.sh $library --renew"
abidiff --harmless "$recorded" "$work/scclib.abi" >"$work/changes" 2>&1 || {
    cat "$work/changes" >&2
    cat >&2 <<TEXT

check_abi: the binary interface has changed as listed above. Programs linked with the library and the
switch's own processes depend on it. If the change is intended, record the new interface with
    scripts/check_abi.sh $library --renew
and commit $recorded with the change. A removed or changed function also needs a new soname.
TEXT
    exit 1
}
echo "interface as recorded: $(grep -c '<elf-symbol ' "$recorded") symbols"
