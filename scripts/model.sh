#!/usr/bin/env bash
# model.sh [ACTS]: compares the library with a model of it over that many random acts (a million). Prints what was
# played and the number of differences; a difference is printed with its acts and makes the script fail.
# SCC_MODEL_SEED chooses the first seed; without it, every run uses different seeds.
# SCC_MODEL_PRESET chooses the build: debug, or asan for the address and undefined-behaviour sanitizers.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
preset=${SCC_MODEL_PRESET:-debug}
build "$preset" model_tests
export SCC_MODEL_ACTS=${1:-${SCC_MODEL_ACTS:-1000000}}
export SCC_MODEL_SEED=${SCC_MODEL_SEED:-$(date +%s%N)}
echo "first seed: $SCC_MODEL_SEED"
"build/$preset/tests/model_tests" --gtest_brief=1
