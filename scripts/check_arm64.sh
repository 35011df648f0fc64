#!/usr/bin/env bash
# Cross-builds the library for 64-bit ARM with an SDK, as for a switch, and plays the demo's first part with an
# application of that processor, under qemu-user, and the daemon of this machine.
#
# The SDK's libqx_syslog is the workstation's. libevent is not there for ARM, so the SDK's libqx-thread has only the
# names that the library imports: it links, and an application without an event loop never calls them.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
tree=$PWD/build/arm64
sdk=$tree/sdk
mkdir -p "$tree"

fail() {
    echo "check_arm64: $1" >&2
    exit 1
}

quietly() {
    "$@" >"$tree/log" 2>&1 || {
        cat "$tree/log" >&2
        return 1
    }
}

make_sdk() {
    mkdir -p "$sdk/include" "$sdk/lib"
    cp platform/qx_*/qx_*.h "$sdk/include/"
    aarch64-linux-gnu-gcc -shared -fPIC -O2 -Wl,-soname,libqx_syslog.so -o "$sdk/lib/libqx_syslog.so" platform/qx_syslog/qx_syslog.c
    awk '$2 == "libqx-thread.so" {print "int " $1 "(void) { return -1; }"}' abi/imports.txt |
        aarch64-linux-gnu-gcc -shared -fPIC -O2 -Wl,-soname,libqx-thread.so -o "$sdk/lib/libqx-thread.so" -x c -
}

make_sdk
quietly cmake -S . -B "$tree" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DCMAKE_BUILD_TYPE=Release \
    -DSCC_WARNINGS_AS_ERRORS=ON -DSCC_PLATFORM_DIR="$sdk" -DSCC_DEVKIT=OFF -DSCC_TESTS=OFF -DSCC_BENCH=OFF
quietly cmake --build "$tree" --parallel "$jobs" --target scclib scclib_static first_app first_app_cpp demo_app

library=$tree/src/libscclib.so
grep -q 'Machine:.*AArch64' < <(readelf -h "$library") || fail "$library is for another processor"
exported=$(aarch64-linux-gnu-nm -D --defined-only "$library" | awk '{print $3}' | sed 's/@.*//' | grep -v '^SCCLIB_[0-9.]*$' | LC_ALL=C sort)
diff <(exported_names) <(echo "$exported") >&2 || fail "$library exports other names than src/scclib.map"

build release sccd-dev sccctl demo_app
SCC_DEMO_APP="qemu-aarch64 -L /usr/aarch64-linux-gnu -E LD_LIBRARY_PATH=$sdk/lib $tree/examples/demo_app" \
    scripts/demo.sh one_application >"$tree/demo.log" || fail "the application failed under qemu-aarch64"
cat "$tree/demo.log"
