#!/usr/bin/env bash
# fuzz.sh [--replay] [--seed N] [--jobs N] [--keep DIRECTORY] [SECONDS] [TARGET...]: each fuzzer replays its corpus and
# then runs for that many seconds (60); prints a table. A find makes the script fail; its input is kept, and the
# command that reproduces it is printed.
#   --replay  only replay the corpora
#   --seed    runs with the same seed try the same inputs, as far as the time allows
#   --jobs    the number of fuzzers at once (1)
#   --keep    where the growing corpora are kept from run to run
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
seed=0
at_once=1
replay=
keep=
while [ $# -gt 0 ]; do
    case "$1" in
        --replay) replay=1 ;;
        --seed) seed=$2 && shift ;;
        --jobs) at_once=$2 && shift ;;
        --keep) keep=$2 && shift ;;
        *) break ;;
    esac
    shift
done
seconds=60
if [[ ${1:-} =~ ^[0-9]+$ ]]; then
    seconds=$1
    shift
fi
all=(stream_fuzz item_fuzz operation_fuzz reply_fuzz client_fuzz sccd_fuzz acl_text_fuzz packet_fuzz capture_fuzz)
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${all[@]}")
for target in "${targets[@]}"; do
    [[ " ${all[*]} " = *" $target "* ]] || { echo "unknown fuzzer $target; there are ${all[*]}" >&2; exit 2; }
done
build fuzz "${targets[@]}"

work=$(mktemp -d /tmp/scclib-fuzz-XXXXXX)
finds=build/fuzz/finds
mkdir -p "$finds"
trap 'rm -rf "$work"' EXIT

dictionary_of() {
    case "$1" in
        acl_text_fuzz) echo fuzz/dictionaries/acl_text.dict ;;
        sccd_fuzz) echo fuzz/dictionaries/control.dict ;;
        packet_fuzz | capture_fuzz) echo fuzz/dictionaries/packet.dict ;;
        *) echo fuzz/dictionaries/wire.dict ;;
    esac
}

# run_one TARGET: its log is $work/TARGET.log, its status $work/TARGET.status.
run_one() {
    local target=$1 grown=${keep:-$work}/$1 log=$work/$1.log status=0
    local options=(-max_len=2048 -timeout=20 "-artifact_prefix=$finds/$target-" -print_final_stats=1)
    mkdir -p "$grown" "fuzz/corpus/$target"
    "build/fuzz/fuzz/$target" "${options[@]}" -runs=0 "fuzz/corpus/$target" >"$log" 2>&1 || status=$?
    if [ "$status" -eq 0 ] && [ -z "$replay" ]; then
        "build/fuzz/fuzz/$target" "${options[@]}" -max_total_time="$seconds" -seed="$seed" \
            "-dict=$(dictionary_of "$target")" "$grown" "fuzz/corpus/$target" >"$log" 2>&1 || status=$?
    fi
    echo "$status" >"$work/$target.status"
}

for target in "${targets[@]}"; do
    while [ "$(jobs -rp | wc -l)" -ge "$at_once" ]; do
        wait -n
    done
    run_one "$target" &
done
wait

statistic() { sed -n "s/^stat::$2: *//p" "$work/$1.log" | tail -n 1; }
last_of() { sed -n "s/.* $2: \([0-9]*\).*/\1/p" "$work/$1.log" | tail -n 1; }

failed=0
printf '%-16s %14s %12s %8s %8s\n' target executions "a second" corpus edges
for target in "${targets[@]}"; do
    printf '%-16s %14s %12s %8s %8s\n' "$target" "$(statistic "$target" number_of_executed_units)" \
        "$(statistic "$target" average_exec_per_sec)" "$(last_of "$target" corp)" "$(last_of "$target" cov)"
    [ "$(cat "$work/$target.status")" -eq 0 ] || failed=1
done
[ "$failed" -ne 0 ] || exit 0
for target in "${targets[@]}"; do
    [ "$(cat "$work/$target.status")" -ne 0 ] || continue
    echo "$target found something:"
    grep -vE '^#[0-9]+|NEW_FUNC' "$work/$target.log" | tail -n 60
    input=$(sed -n 's/.*Test unit written to //p' "$work/$target.log" | tail -n 1)
    echo "repeat it with: build/fuzz/fuzz/$target ${input:-fuzz/corpus/$target/*}"
done
exit 1
