#!/usr/bin/env bash
# mutate.sh [options] [FILE...]: plants faults in a copy of src/ and tells which of them the tests find; --help lists the
# options. Everything lies in build/mutate; a run that is stopped goes on where it was.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Debian's Python has libclang, whichever comes first in the path.
exec /usr/bin/python3 scripts/mutate/main.py "$@"
