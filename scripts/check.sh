#!/usr/bin/env bash
# Every check beside the tests. Without arguments all stages in order; with arguments those named.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh

stage_scripts() { shellcheck -x run .ci/run scripts/*.sh; }
stage_format() { scripts/format.sh; }
stage_gcc() { build release; }
stage_clang() { build clang; }
stage_header() {
    # The public header alone, as C11 and as C++17, by both compilers.
    local compiler
    for compiler in gcc clang; do
        echo '#include "scclib.h"' | "$compiler" -std=c11 -Wall -Wextra -Wpedantic -Werror -Iinclude -x c -fsyntax-only -
    done
    for compiler in g++ clang++; do
        echo '#include "scclib.h"' | "$compiler" -std=c++17 -Wall -Wextra -Wpedantic -Werror -Iinclude -x c++ -fsyntax-only -
    done
}
stage_binary() {
    build release
    scripts/check_binary.sh build/release/src/libscclib.so
    local binaries
    mapfile -t binaries < <(find build/release/src build/release/platform build/release/devkit -type f \
        \( -name 'lib*.so' -o -name 'lib*.so.*' -o -name sccd-dev -o -name scc-ss-dev -o -name sccctl -o -name sccd-top \))
    scripts/check_hardening.sh "${binaries[@]}"
}
stage_abi() { scripts/check_abi.sh build/release/src/libscclib.so; }
stage_man() { scripts/check_man_pages.sh; }
stage_install() {
    build release
    scripts/check_install.sh build/release
}
stage_packages() {
    build release
    scripts/check_packages.sh
}
stage_complete() { scripts/check_complete.sh; }
# tidy_sources PATTERN...: as many files at once as there are processors.
tidy_sources() {
    build debug
    git ls-files "$@" | xargs -P "$jobs" -n 4 clang-tidy -p build/debug --quiet 2>/dev/null
}
stage_tidy() { tidy_sources 'src/*.cpp' 'platform/*.cpp'; }
# The tools take five times as long, so this one is not among the stages that always run.
stage_tidy_tools() { tidy_sources 'devkit/*.cpp'; }
stage_asan() {
    build asan
    ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1 UBSAN_OPTIONS=print_stacktrace=1 run_tests asan
}
stage_tsan() {
    build tsan
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_tests tsan
}
stage_fuzz() { scripts/fuzz.sh 5 1; }
stage_faults() { scripts/faults.sh 800; }
stage_coverage() { scripts/coverage.sh; }

stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=(scripts format gcc clang header binary abi man install packages complete tidy faults coverage asan tsan fuzz)
for stage in "${stages[@]}"; do
    start=$SECONDS
    # A stage whose script is not there is a mistake in this list, not a success.
    declare -F "stage_$stage" >/dev/null || { echo "unknown stage $stage" >&2; exit 2; }
    # Not as a condition: bash would then go on behind a failed command of the stage.
    set +e
    (
        set -e
        "stage_$stage"
    )
    status=$?
    set -e
    if [ "$status" -ne 0 ]; then
        echo "check $stage: FAILED after $((SECONDS - start)) s" >&2
        exit 1
    fi
    echo "check $stage: passed in $((SECONDS - start)) s"
done
