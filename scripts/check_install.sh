#!/usr/bin/env bash
# Installs into an empty prefix and builds a program against it, with pkg-config and with CMake.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
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

for program in "$work/by-pkg-config" "$work/project/build/first"; do
    # The error of a missing runtime directory shows that the program runs and finds the library.
    output=$(env -u TMPDIR LD_LIBRARY_PATH="$libdir" "$program" 2>&1 || true)
    grep -q 'cannot start: Input/output error' <<<"$output" || {
        echo "check_install: $program printed: $output" >&2
        exit 1
    }
done
