#!/usr/bin/env bash
# check_log_names.sh LIBRARY: every line of the library's log names a function with C linkage, which is what
# whoever reads the log finds in the header, in a backtrace and with nm. LIBRARY is the static
# one as clang builds it: g++ leaves no symbols of __func__.
set -euo pipefail
export LC_ALL=C
cd "$(dirname "${BASH_SOURCE[0]}")/.."
library=${1:?path of libscclib.a}

names=$(nm "$library" 2>/dev/null | grep -F '__func__.') || { echo "check_log_names: $library has no __func__" >&2; exit 1; }
# A line that is written in a C++ function under its own name leaves that function's __func__.
symbols=$(sed -nE 's/.*__func__\.(_Z[A-Za-z0-9_]*).*/\1/p' <<<"$names")
if [ -n "$symbols" ]; then
    echo "check_log_names: these functions log under their own names:" >&2
    c++filt <<<"$symbols" >&2
    exit 1
fi
defined=$(nm --defined-only "$library" 2>/dev/null | awk '$2 ~ /[Tt]/ {print $3}' | sort -u)
named=$(grep -rhoE '(function = |SCC_LOG_FROM\()"[^"]*"' src | sed 's/.*"\(.*\)"/\1/' | sort -u)
unknown=$(comm -13 <(echo "$defined") <(echo "$named"))
if [ -n "$unknown" ]; then
    echo "check_log_names: no such functions: $unknown" >&2
    exit 1
fi
echo "names in the log: $(wc -l <<<"$named")"
