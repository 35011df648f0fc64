#!/usr/bin/env bash
# delays.sh [RUNS [CTEST-ARGUMENT...]]: runs all tests again and again with threads delayed at random moments, each
# run with longer or more frequent delays than the one before, and then from the beginning. Every failure counts.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
runs=${1:-4}
[ $# -gt 0 ] && shift
build debug
# Delays in 1,000 calls, and the longest in microseconds.
levels=("20 10000" "60 20000" "150 30000" "400 4000")
failed=0
for ((run = 1; run <= runs; ++run)); do
    read -r permille us <<<"${levels[(run - 1) % ${#levels[@]}]}"
    export SCC_DELAY_PERMILLE=$permille SCC_DELAY_US=$us
    LD_PRELOAD=$PWD/build/debug/tests/scc_delays.so ctest --test-dir build/debug --output-on-failure --parallel $((jobs * 8)) "$@" \
        >build/debug/delays.log 2>&1 || {
        failed=$((failed + 1))
        cp build/debug/delays.log "build/debug/delays.failed.$run.log"
    }
    echo "delays: run $run of $runs, $permille of 1,000 calls delayed by up to $us us: $(grep 'tests passed' build/debug/delays.log)"
    sed -n '/^The following tests FAILED/,/^Errors/s/^\t/  /p' build/debug/delays.log
done
echo "delays: $failed of $runs runs failed"
[ "$failed" -eq 0 ]
