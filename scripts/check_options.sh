#!/usr/bin/env bash
# Builds the library without the platform's two libraries (SCC_QX_SYSLOG and SCC_QX_THREAD off), then checks what
# it exports, imports and installs. It uses no preset, as packagers do: warnings must not be errors.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
directory=build/without_platform
log=$(mktemp /tmp/scclib-options-XXXXXX)
trap 'rm -f "$log"' EXIT

fail() {
    echo "check_options: $1" >&2
    exit 1
}

# The SDK does not exist, which shows that nothing of one is read.
build_library() {
    cmake -S . -B "$directory" -G Ninja -DCMAKE_BUILD_TYPE=None -DSCC_QX_SYSLOG=OFF -DSCC_QX_THREAD=OFF \
        -DSCC_PLATFORM_DIR=/nonexistent -DSCC_DEVKIT=OFF -DSCC_TESTS=OFF -DSCC_BENCH=OFF &&
        cmake --build "$directory" --parallel "$jobs" --target installed -- --quiet
}

build_library >"$log" 2>&1 || {
    cat "$log" >&2
    fail "cannot build the library without the platform's libraries"
}
grep -q -- '-Wall' "$directory/build.ninja" || fail "the library is built without warnings"
if grep -q -- '-Werror' "$directory/build.ninja"; then
    fail "a compiler's new warning would fail the build of somebody who uses no preset"
fi
library=$directory/src/libscclib.so
needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
[ "$needed" = "libc.so.6 " ] || fail "$library needs $needed"
exported=$(nm -D --defined-only "$library" | awk '{print $3}' | sed 's/@.*//' | grep -v '^SCCLIB_[0-9.]*$' | LC_ALL=C sort)
diff <(exported_names | grep -v '^scc_agent_') <(echo "$exported") >&2 ||
    fail "$library does not export everything but the agent's functions"
grep -q ' syslog' < <(nm -D --undefined-only "$library") || fail "$library does not log with syslog(3)"
scripts/check_install.sh "$directory"
echo "symbols without the platform's libraries: $(wc -w <<<"$exported")"
