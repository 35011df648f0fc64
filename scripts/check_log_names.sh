#!/usr/bin/env bash
# check_log_names.sh LIBRARY: checks that every log line names a function with C linkage, which a reader of the log
# can find in the header, in a backtrace and with nm. LIBRARY is the static library.
set -euo pipefail
export LC_ALL=C
cd "$(dirname "${BASH_SOURCE[0]}")/.."
library=${1:?path of libscclib.a}

# A C++ function that logs under its own name leaves its __func__ in the library.
if symbols=$(nm "$library" 2>/dev/null | grep -E ' _ZZ.*8__func__$'); then
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
