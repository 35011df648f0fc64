#!/usr/bin/env bash
# Runs the benchmarks. Arguments: the number of interleaved rounds (7), and the parts of wire_bench to run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
rounds=${1:-7}
if [ $# -gt 1 ]; then
    exec build/release/bench/wire_bench "$@"
fi
echo "== requests and results against the raw-socket floor"
build/release/bench/wire_bench "$rounds"
echo "== the service side against the raw-socket floor"
build/release/bench/service_bench "$rounds"
echo "== costs that must not grow with the number of entries"
build/release/bench/memory_bench --benchmark_min_time=0.3
scripts/bench_idle.sh
