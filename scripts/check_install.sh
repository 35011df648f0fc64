#!/usr/bin/env bash
# Installs into an empty prefix and builds a program against it, with pkg-config and with CMake; then the same with a
# library that was built for a platform's SDK.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
build=${1:?build directory}
work=$(mktemp -d /tmp/scclib-install-XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/root" >/dev/null
libdir=$(dirname "$(find "$work/root" -name libscclib.so)")
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
gcc -std=c11 -Wall -Werror examples/first_app.c -o "$work/by-pkg-config" \
    $(pkg-config --define-variable=prefix="$work/root" --cflags --libs scclib) -Wl,-rpath,"$libdir" -Wl,-rpath-link,"$libdir"

# The records library, from C and from C++, unless the build has no workstation. A faulty rule shows that it runs.
records=()
[ ! -f "$work/root/include/scc_records.h" ] || records=(add_ace.c add_ace.cpp)
for source in "${records[@]}"; do
    compiler=(gcc -std=c11)
    [ "$source" = add_ace.c ] || compiler=(g++ -std=c++17)
    # shellcheck disable=SC2046
    "${compiler[@]}" -D_DEFAULT_SOURCE -Wall -Wextra -Wpedantic -Werror "examples/$source" -o "$work/$source.out" \
        $(pkg-config --define-variable=prefix="$work/root" --cflags --libs scc_records) -Wl,-rpath,"$libdir" \
        -Wl,-rpath-link,"$libdir"
    output=$(LD_LIBRARY_PATH="$libdir" "$work/$source.out" 101 5 "permit tcp any" 2>&1 || true)
    grep -q 'destination address is missing' <<<"$output" || {
        echo "check_install: $source printed: $output" >&2
        exit 1
    }
done

mkdir "$work/project"
cp examples/first_app.c examples/add_ace.c "$work/project/"
cat >"$work/project/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(first C)
find_package(scclib REQUIRED)
add_executable(first first_app.c)
target_link_libraries(first PRIVATE scclib::scclib)
CMAKE
[ ${#records[@]} -eq 0 ] || cat >>"$work/project/CMakeLists.txt" <<'CMAKE'
add_executable(add_ace add_ace.c)
target_link_libraries(add_ace PRIVATE scclib::scc_records scclib::scclib)
CMAKE
cmake -S "$work/project" -B "$work/project/build" -DCMAKE_PREFIX_PATH="$work/root" >/dev/null
cmake --build "$work/project/build" >/dev/null

# runs LIBRARIES PROGRAM...: the error of a missing runtime directory shows that each runs and finds its libraries.
runs() {
    local libraries=$1 program output
    shift
    for program in "$@"; do
        output=$(env -u TMPDIR LD_LIBRARY_PATH="$libraries" "$program" 2>&1 || true)
        grep -q 'cannot start: Input/output error' <<<"$output" || {
            echo "check_install: $program printed: $output" >&2
            exit 1
        }
    done
}
runs "$libdir" "$work/by-pkg-config" "$work/project/build/first"
[ ${#records[@]} -gt 0 ] || exit 0

# The workstation's two libraries, where an SDK has them.
sdk=$work/sdk
mkdir -p "$sdk/include" "$sdk/lib"
cp platform/qx_*/qx_*.h "$sdk/include/"
cp "$build"/platform/libqx*.so "$sdk/lib/"
quietly() {
    "$@" >"$work/log" 2>&1 || {
        cat "$work/log" >&2
        return 1
    }
}
quietly cmake -S . -B "$work/for-sdk" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSCC_PLATFORM_DIR="$sdk" \
    -DSCC_WARNINGS_AS_ERRORS=ON -DSCC_DEVKIT=OFF -DSCC_TESTS=OFF -DSCC_BENCH=OFF
quietly cmake --build "$work/for-sdk" --parallel "$jobs"
quietly cmake --install "$work/for-sdk" --prefix "$work/root-sdk"
libdir=$(dirname "$(find "$work/root-sdk" -name libscclib.so)")
if find "$work/root-sdk" -name '*qx*' | grep . >&2; then
    echo "check_install: libraries of the SDK are installed" >&2
    exit 1
fi
# shellcheck disable=SC2046
PKG_CONFIG_PATH=$libdir/pkgconfig gcc -std=c11 -D_DEFAULT_SOURCE -Wall -Werror examples/event_loop_app.c \
    -o "$work/sdk-by-pkg-config" -Wl,-rpath,"$libdir" \
    $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --define-variable=prefix="$work/root-sdk" --cflags --libs scclib) -lqx-thread

mkdir "$work/sdk-project"
cp examples/first_app.c examples/event_loop_app.c "$work/sdk-project/"
cat >"$work/sdk-project/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(first C)
find_package(scclib REQUIRED)
add_executable(first first_app.c)
target_link_libraries(first PRIVATE scclib::scclib)
add_executable(first_static first_app.c)
target_link_libraries(first_static PRIVATE scclib::scclib_static)
add_executable(event_loop event_loop_app.c)
target_compile_definitions(event_loop PRIVATE _DEFAULT_SOURCE)
target_link_libraries(event_loop PRIVATE scclib::scclib scclib::qx_thread)
CMAKE
quietly cmake -S "$work/sdk-project" -B "$work/sdk-project/build" -DCMAKE_PREFIX_PATH="$work/root-sdk"
quietly cmake --build "$work/sdk-project/build"
runs "$libdir:$sdk/lib" "$work/sdk-by-pkg-config" "$work/sdk-project/build"/{first,first_static,event_loop}

# On a machine that has the SDK elsewhere, CMake says so, and takes the other place.
mv "$sdk" "$work/moved"
if cmake -S "$work/sdk-project" -B "$work/moved-build" -DCMAKE_PREFIX_PATH="$work/root-sdk" >"$work/log" 2>&1; then
    echo "check_install: an SDK that is not there was found" >&2
    exit 1
fi
grep -q 'set SCC_PLATFORM_DIR' < <(tr -s ' \n' ' ' <"$work/log") || { cat "$work/log" >&2; exit 1; }
quietly cmake -S "$work/sdk-project" -B "$work/moved-build" -DCMAKE_PREFIX_PATH="$work/root-sdk" \
    -DSCC_PLATFORM_DIR="$work/moved"
quietly cmake --build "$work/moved-build"
runs "$libdir:$work/moved/lib" "$work/moved-build"/{first,first_static,event_loop}
