# Shared by ./run and the scripts: builds presets and runs their tests.
# shellcheck shell=bash

# Lets builds in different checkouts share the cache.
export CCACHE_NOHASHDIR=true
export CCACHE_BASEDIR=$PWD
export CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
export CMAKE_COLOR_DIAGNOSTICS=OFF

jobs=$(nproc)

# exported_names: the names that the shared library exports, sorted in the C locale.
exported_names() { sed -n 's/^    \([A-Za-z_].*\);$/\1/p' src/scclib.map | LC_ALL=C sort; }

# configure PRESET: silent unless it fails. The release build has the flags of the Debian packages, debug information
# included: what is measured and checked is what they contain, and ccache has their objects already.
configure() (
    if [ "$1" = release ] && command -v dpkg-buildflags >/dev/null; then
        eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
        CFLAGS+=" $CPPFLAGS"
        CXXFLAGS+=" $CPPFLAGS"
    fi
    log=$(cmake --preset "$1" 2>&1) || {
        echo "$log"
        return 1
    }
)

# build PRESET [targets...]: configures the preset if it is new or has changed, then builds.
build() {
    local preset=$1
    shift
    if [ ! "build/$preset/build.ninja" -nt CMakePresets.json ]; then
        configure "$preset" || return 1
    fi
    cmake --build "build/$preset" --parallel "$jobs" ${1:+--target "$@"} -- --quiet
}

# run_tests PRESET [ctest arguments...]: runs more cases at once than there are processors, since most of them
# wait. No failed case is retried.
run_tests() {
    local preset=$1
    shift
    local at_once=$((jobs * 4))
    if ctest --test-dir "build/$preset" --output-on-failure --parallel "$at_once" --progress "$@" >"build/$preset/test.log" 2>&1; then
        tail -n 4 "build/$preset/test.log"
        return 0
    fi
    grep -vE '^Test project|Start +[0-9]+:|Passed +[0-9]' "build/$preset/test.log" | tail -n 400
    return 1
}
