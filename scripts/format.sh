#!/usr/bin/env bash
# Checks that the sources are formatted; --write formats them.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h' '*.c' | grep -v '^include/')
if [ "${1:-}" = --write ]; then
    clang-format -i "${files[@]}"
else
    clang-format --dry-run --Werror "${files[@]}"
fi
