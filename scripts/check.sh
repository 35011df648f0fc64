#!/usr/bin/env bash
# check.sh [nightly | STAGE...]: runs the given stages, those that take too long for every commit, or, without an
# argument, those that continuous integration runs.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh

stage_scripts() { shellcheck -x run .ci/run scripts/*.sh; }
stage_format() { scripts/format.sh; }
stage_gcc() { build release; }
stage_clang() { build clang; }
stage_header() {
    # Each public header on its own, as C11 and as C++17, with both compilers.
    local compiler header source
    for header in scclib.h scc_records.h; do
        for compiler in gcc clang; do
            echo "#include \"$header\"" | "$compiler" -std=c11 -Wall -Wextra -Wpedantic -Werror -Iinclude -x c -fsyntax-only -
        done
        for compiler in g++ clang++; do
            echo "#include \"$header\"" | "$compiler" -std=c++17 -Wall -Wextra -Wpedantic -Werror -Iinclude -x c++ -fsyntax-only -
        done
    done
    # The examples in C++17, as strictly.
    for compiler in g++ clang++; do
        for source in examples/*.cpp; do
            "$compiler" -std=c++17 -Wall -Wextra -Wpedantic -Wmissing-field-initializers -Werror -Iinclude -fsyntax-only "$source"
        done
    done
    # C programs link the records library, so it must not need the C++ run-time library.
    build release scc_records
    if nm -uC build/release/devkit/records/libscc_records.a | grep -E ' U (std::|operator |__cxa|__gxx)'; then
        echo "check: the records library needs the C++ run-time library" >&2
        return 1
    fi
}
stage_binary() {
    build release
    scripts/check_binary.sh build/release/src/libscclib.so
    scripts/check_imports.sh build/release/src/libscclib.so
    build clang scclib_static
    scripts/check_log_names.sh build/clang/src/libscclib.a
    local binaries
    mapfile -t binaries < <(find build/release/src build/release/platform build/release/devkit -type f \
        \( -name 'lib*.so' -o -name 'lib*.so.*' -o -name sccd-dev -o -name scc-ss-dev -o -name scc-ss-linux -o -name sccctl \))
    scripts/check_hardening.sh "${binaries[@]}"
    scripts/check_options.sh
}
stage_steps() { scripts/check_steps.sh; }
stage_abi() { scripts/check_abi.sh build/release/src/libscclib.so; }
stage_man() {
    scripts/check_man_pages.sh
    build release sccctl
    scripts/man_commands.py build/release/devkit/ctl/sccctl docs/man/sccctl.1 docs/man/sccd-dev.1
}
stage_install() {
    build release
    scripts/check_install.sh build/release
}
stage_packages() { scripts/check_packages.sh; }
stage_reproducible() { scripts/check_reproducible.sh; }
stage_arm64() { scripts/check_arm64.sh; }
stage_capture() {
    build release
    scripts/check_capture.sh release
}
stage_metrics() {
    build release
    scripts/check_metrics.sh release
}
stage_complete() {
    scripts/check_complete.sh
    scripts/check_recipes.py docs/architecture.md
}
# tidy_sources PATTERN...: runs one clang-tidy for each processor.
tidy_options=()
tidy_sources() {
    build debug
    git ls-files "$@" | xargs -P "$jobs" -n 4 clang-tidy -p build/debug --quiet "${tidy_options[@]}" 2>/dev/null
}
stage_tidy() { tidy_sources 'src/*.cpp' 'platform/*.cpp'; }
stage_tidy_devkit() { tidy_sources 'devkit/*.cpp'; }
# All checks on the tools, whose own .clang-tidy leaves out those that take minutes in third-party headers.
stage_tidy_tools() {
    tidy_options=(--config-file=.clang-tidy)
    tidy_sources 'devkit/*.cpp'
}
run_asan() {
    local preset=$1
    shift
    ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1 UBSAN_OPTIONS=print_stacktrace=1 run_tests "$preset" "$@"
}
# The thread sanitizer also finds locks that are taken in two orders, even when no run deadlocks.
run_tsan() {
    local preset=$1
    shift
    TSAN_OPTIONS=halt_on_error=1:detect_deadlocks=1:second_deadlock_stack=1 run_tests "$preset" "$@"
}
# The library's tests and those with all processes. The workstation's own tests take as long to build as all of these,
# and their programs have one thread beside the library's: every night has them, with both sanitizers.
library_tests=(agent_tests api_tests client_tests fault_tests guest_tests integration_tests msg_tests platform_tests
    ss_tests system_log_tests util_tests sccd-dev scc-ss-dev sccctl)
stage_asan() {
    build asan "${library_tests[@]}" model_tests
    run_asan asan -E '_NOT_BUILT$|^(devkit|linux)\.'
}
stage_tsan() {
    build tsan "${library_tests[@]}"
    run_tsan tsan -E '_NOT_BUILT$|^(devkit|linux|model)\.'
}
stage_whole_asan() {
    build asan
    run_asan asan
}
stage_clang_asan() {
    build clang-asan
    run_asan clang-asan
}
stage_clang_tsan() {
    build clang-tsan
    run_tsan clang-tsan
}
# The tests in which several threads take locks.
stage_locks() {
    build clang-tsan client_tests ss_tests agent_tests
    run_tsan clang-tsan -R \
        '^client\.(Locks|Start|Registration|Flow|Threads|SendChecker)\.|^ss\.(ServiceLocks|Registration)|^agent\.'
}
stage_fuzz() { scripts/fuzz.sh --seed 1 --jobs $((jobs * 2)) 5; }
stage_soak() { scripts/soak.sh 0.5; }
stage_faults() { scripts/faults.sh 800; }
stage_delays() { scripts/delays.sh 4; }
stage_coverage() { scripts/coverage.sh; }

every_commit=(scripts format gcc clang header binary steps abi man install packages arm64 capture metrics complete tidy soak faults asan tsan fuzz)
every_night=(reproducible tidy_devkit delays coverage whole_asan clang_asan clang_tsan)
stages=("$@")
[ $# -gt 0 ] || stages=("${every_commit[@]}")
[ "$*" != nightly ] || stages=("${every_night[@]}")
for stage in "${stages[@]}"; do
    start=$SECONDS
    # An unknown stage is an error, not a success.
    declare -F "stage_$stage" >/dev/null || { echo "unknown stage $stage" >&2; exit 2; }
    # Not in a condition, where bash would continue after a failed command of the stage.
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
