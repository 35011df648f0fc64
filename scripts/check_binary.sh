#!/usr/bin/env bash
# Checks the shared library's symbols, its dependencies, and that it contains nothing a guest must not use.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
library=${1:?path of libscclib.so}

fail() {
    echo "check_binary: $1" >&2
    exit 1
}

named=$(exported_names)
visible=$(nm -D --defined-only "$library" | awk '{print $3}' | sed 's/@.*//' | grep -v '^SCCLIB_[0-9.]*$' | LC_ALL=C sort)
[ "$named" = "$visible" ] || {
    diff <(echo "$named") <(echo "$visible") || true
    fail "the visible symbols are not those of src/scclib.map"
}
declared=$(grep -oE '\b(_?scc_[a-z0-9_]+|_get_get_avail_svrid|ip_show|mask_show|ipv6_show|ipv6_mask_show|mac_show|ip_set|mask_count|g_scc_perf(_debug)?)[[(]|g_scc_perf_debug' include/scclib.h |
    tr -d '([' | sort -u)
for symbol in $named; do
    grep -qx "$symbol" <<<"$declared" || fail "$symbol is not declared in scclib.h"
done

needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort | tr '\n' ' ')
[ "$needed" = "libc.so.6 libqx-thread.so libqx_syslog.so " ] || fail "needs $needed"
grep -q 'NODELETE' < <(readelf -d "$library") || fail "may be unmapped by dlclose"
grep -q 'SONAME.*libscclib.so.1\]' < <(readelf -d "$library") || fail "has another soname"
if grep -qE '\.ctors|\.eh_frame_hdr_never' < <(readelf -S "$library"); then
    fail "has constructors"
fi
# Without static constructors, the only entry is the C run-time's frame_dummy.
array=$(readelf -SW "$library" | awk '$0 ~ /\.init_array/ {for (i = 1; i <= NF; i++) if ($i == "INIT_ARRAY") print $(i + 3)}')
[ "$((16#${array:-0}))" -le 8 ] || fail "has static constructors"
if grep -qE ' (_Zn|_Zd|__cxa_throw|__gxx_personality|abort$|exit$|printf$|puts$|signal|sigaction)' < <(nm -D --undefined-only "$library"); then
    fail "uses functions that a guest must not"
fi
echo "symbols: $(wc -w <<<"$named")"
