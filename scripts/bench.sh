#!/usr/bin/env bash
# bench.sh [ROUNDS [PART...]]: runs the benchmarks, or parts of wire_bench; 7 interleaved rounds unless given. The
# figures also go to build/bench.json, one a line.
# bench.sh steps: only counts what each operation takes.
# bench.sh compare REVISION [ROUNDS]: compares the library with that of an earlier commit.
# bench.sh peers [ROUNDS]: compares it with other libraries.
# bench.sh charts [ROUNDS]: runs all of these, keeps the figures in docs/charts, and draws the charts there.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
programs=build/release/bench

case "${1:-}" in
    steps) exec scripts/steps.py ;;
    compare)
        shift
        exec scripts/bench_compare.sh "$@"
        ;;
    peers)
        shift
        exec scripts/bench_peers.sh "$@"
        ;;
    charts)
        scripts/bench.sh "${2:-7}"
        scripts/bench_peers.sh "${2:-7}"
        mkdir -p docs/charts
        cat build/bench.json build/peers.json >docs/charts/figures.json
        cp build/steps.json docs/charts/steps.json
        exec scripts/draw_charts.py
        ;;
esac
rounds=${1:-7}
export BENCH_JSON=$PWD/build/bench.json
rm -f "$BENCH_JSON"
if [ $# -gt 1 ]; then
    exec "$programs/wire_bench" "$@"
fi
echo "== what an operation takes, which does not depend on the machine's load"
scripts/steps.py --json build/steps.json
echo "== requests and results against the raw-socket floor"
"$programs/wire_bench" "$rounds"
echo "== the service side against the raw-socket floor"
"$programs/service_bench" "$rounds"
echo "== costs that must not grow with the number of entries"
"$programs/memory_bench" "$rounds"
"$programs/pause_bench" "$rounds"
echo "== how long a result takes"
"$programs/latency_bench" 10
echo "== losses"
"$programs/scale_bench" 3
scripts/bench_idle.sh
