#!/usr/bin/env bash
# soak.sh MINUTES [--seed N] [--kills N] [--groups N]: daemons, services and clients side by side, which are killed and
# stopped at random moments. SCC_SOAK_PRESET chooses the build: debug, asan or tsan.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
preset=${SCC_SOAK_PRESET:-debug}
build "$preset" soak soak_client sccd-dev scc-ss-dev
exec "build/$preset/tests/soak/soak" "$@"
