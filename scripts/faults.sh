#!/usr/bin/env bash
# faults.sh [N [fault_sweep arguments...]]: makes every allocation and system call of the library fail in turn, or a
# sample of N such faults; 0 for all.
# SCC_FAULTS_PRESET chooses the build: debug, or asan for the address and undefined-behaviour sanitizers.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
preset=${SCC_FAULTS_PRESET:-debug}
build "$preset" fault_sweep
sweep=build/$preset/tests/sweep

# A call that the sweep neither makes fail nor lists as unable to fail would go untested.
unknown=$(nm -u "$sweep/libscclib_swept.a" | awk '$1 == "U" {print $2}' |
    grep -vE '^(_|sweep_|scc_|g_scc|INIT_LIST_HEAD$|list_|ip_|ipv6_|mac_|mask_|ss_stat$)' | LC_ALL=C sort -u |
    LC_ALL=C comm -23 - <(grep -v '^#' tests/sweep/cannot_fail.txt | LC_ALL=C sort -u))
[ -z "$unknown" ] || {
    echo "faults: in neither tests/sweep/CMakeLists.txt nor tests/sweep/cannot_fail.txt:" >&2
    echo "$unknown" >&2
    exit 1
}

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0}
"$sweep/fault_sweep" --jobs "$((jobs * 3))" --sample "${1:-0}" "${@:2}"
