#!/usr/bin/env bash
# check_hardening.sh FILE...: checks that each library and program has the hardening of optimised builds
# (cmake/hardening.cmake).
set -euo pipefail
export LC_ALL=C
[ $# -gt 0 ] || {
    echo "usage: check_hardening.sh FILE..." >&2
    exit 2
}

wrong=0
lacks() {
    echo "check_hardening: $1 $2" >&2
    wrong=1
}

for file in "$@"; do
    segments=$(readelf -lW "$file")
    dynamic=$(readelf -dW "$file")
    imports=$(nm -D --undefined-only "$file" | awk '{sub(/@.*/, "", $2); print $2}')
    grep -q 'GNU_RELRO' <<<"$segments" || lacks "$file" "has relocations that stay writable"
    grep -qE '\(FLAGS_1\).*NOW|BIND_NOW' <<<"$dynamic" || lacks "$file" "binds its symbols while it runs"
    awk '$1 == "GNU_STACK" {found = 1; bad = $(NF - 1) ~ /E/} END {exit !found || bad}' <<<"$segments" ||
        lacks "$file" "may have an executable stack"
    # A library is always position-independent, a program only if it is linked as such.
    if grep -q 'INTERP' <<<"$segments"; then
        grep -qE '\(FLAGS_1\).*PIE' <<<"$dynamic" || lacks "$file" "is not position-independent"
    fi
    grep -qx '__stack_chk_fail' <<<"$imports" || lacks "$file" "has no guarded stack"
    # Each of these has a checked variant, which replaces it where the compiler cannot prove that the copy fits.
    if grep -qxE 'v?(f|s|sn|d)?printf|memcpy|memmove|strcpy|strcat|recv|read|poll' <<<"$imports" &&
        ! grep -qxE '__[a-z]+_chk' <<<"$imports"; then
        lacks "$file" "copies and prints unchecked"
    fi
    if [ "$(uname -m)" = x86_64 ]; then
        branches=$(objdump -d --no-show-raw-insn "$file" | grep -c 'endbr64' || true)
        [ "$branches" -gt 0 ] || lacks "$file" "has no marked branch targets"
    fi
done
[ "$wrong" -eq 0 ] || exit 1
echo "hardened: $#"
