#!/usr/bin/env bash
# interleavings.sh [interleavings arguments...]: explores the interleavings of small programs that use the library's
# own sources, and prints a table; without arguments, all programs within their deep bounds.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
build debug interleavings
build/debug/tests/interleavings/interleavings "$@"
