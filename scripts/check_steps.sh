#!/usr/bin/env bash
# Compares what each operation takes with the record (bench/steps.txt), or, with a compiler or C library other than
# the record's, with the last commit. A clone that has no earlier commit compares everything but instructions.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh

build release scclib steps counted_calls
against=()
if ! scripts/steps.py --recorded-here; then
    # Of a changed tree the last commit is HEAD.
    last=HEAD
    if git diff --quiet HEAD 2>/dev/null; then last=HEAD~1; fi
    if directory=$(scripts/build_revision.sh "$last"); then against=(--against "$directory"); fi
fi
scripts/steps.py --check "${against[@]}"
