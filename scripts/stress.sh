#!/usr/bin/env bash
# stress.sh [RUNS [CTEST-ARGUMENT...]]: runs all tests RUNS times, two runs at a time, so that each test runs beside
# any other and beside itself. Every failure counts.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
runs=${1:-100}
[ $# -gt 0 ] && shift
build debug

# lane FIRST: every second run from FIRST on, with a record of its tests of its own.
lane() {
    local first=$1 dir=build/stress/$1 run begin
    shift
    for ((run = first; run <= runs; run += 2)); do
        begin=$SECONDS
        ctest --test-dir "$dir" --no-tests=error --output-on-failure --parallel $((jobs * 4)) "$@" >"$dir/run.log" 2>&1 ||
            cp "$dir/run.log" "build/stress/failed.$run.log"
        echo "stress: run $run of $runs, $((SECONDS - begin)) s, load $(cut -d ' ' -f 1 /proc/loadavg): $(grep 'tests passed' "$dir/run.log")"
        sed -n '/^The following tests FAILED/,/^Errors/s/^\t/  /p' "$dir/run.log"
    done
}

rm -rf build/stress
for first in 1 2; do
    mkdir -p "build/stress/$first"
    echo "subdirs(\"$PWD/build/debug\")" >"build/stress/$first/CTestTestfile.cmake"
done
lane 1 "$@" &
lane 2 "$@"
wait
failed=$(find build/stress -name 'failed.*.log' | wc -l)
echo "stress: $failed of $runs runs failed"
[ "$failed" -eq 0 ]
