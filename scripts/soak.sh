#!/usr/bin/env bash
# soak.sh MINUTES [--seed N] [--kills N] [--groups N]: runs daemons, services and clients side by side, and kills and
# stops them at random moments.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
build debug soak soak_client sccd-dev scc-ss-dev
exec build/debug/tests/soak/soak "$@"
