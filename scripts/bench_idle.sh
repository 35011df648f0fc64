#!/usr/bin/env bash
# Measures the processor time of an idle registered client over 20 seconds, as a share of one core, and at the
# same time that of a thread that only waits as the client's checker does.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
work=$(mktemp -d /tmp/sccb-XXXXXX)
export TMPDIR=$work
finish() {
    kill "$client" "$daemon" 2>/dev/null || true
    rm -rf "$work"
}
build/release/devkit/sccd/sccd-dev >"$work/log" &
daemon=$!
client=$daemon
trap finish EXIT
until grep -q ready "$work/log"; do sleep 0.05; done
build/release/devkit/ctl/sccctl watch --seconds 60 >"$work/watch" &
client=$!
until grep -q 'status=1' "$work/watch"; do sleep 0.05; done
ticks() { awk '{print $14 + $15}' "/proc/$client/stat"; }
before=$(ticks)
bare=$(build/release/bench/idle_floor 20)
after=$(ticks)
awk -v used=$((after - before)) -v hz="$(getconf CLK_TCK)" -v bare="$bare" \
    'BEGIN {printf "an idle registered client: %.2f %% of one core (less than 0.5); a bare wait: %s %%\n", used * 100 / hz / 20, bare}'
