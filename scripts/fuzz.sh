#!/usr/bin/env bash
# fuzz.sh [SECONDS] [SEED]: runs each fuzzer for some seconds (60) on its corpus; fails on a finding.
# A seed makes runs reproducible.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
seconds=${1:-60}
seed=${2:-0}
build fuzz message_fuzz reply_fuzz
# A header may announce up to 4 GiB; allocations above this limit fail, as on a small switch.
export ASAN_OPTIONS=allocator_may_return_null=1:max_allocation_size_mb=64
work=$(mktemp -d /tmp/scclib-fuzz-XXXXXX)
trap 'rm -rf "$work"' EXIT
for fuzzer in message_fuzz reply_fuzz; do
    mkdir "$work/$fuzzer"
    "build/fuzz/fuzz/$fuzzer" -max_total_time="$seconds" -seed="$seed" -max_len=4096 -malloc_limit_mb=0 -print_final_stats=1 \
        -artifact_prefix="$work/" "$work/$fuzzer" "fuzz/corpus/$fuzzer" >"$work/log" 2>&1 || {
        tail -n 60 "$work/log"
        exit 1
    }
    grep -E 'stat::number_of_executed_units|cov:' "$work/log" | tail -n 2
done
