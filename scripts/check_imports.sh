#!/usr/bin/env bash
# check_imports.sh LIBRARY [--renew]: compares every symbol that the library imports, and its origin, with the
# recorded list, abi/imports.txt. All of them are bound when the library is loaded, so a platform that lacks one
# cannot load it: add a symbol to the list only if every switch has it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export LC_ALL=C
library=${1:?path of libscclib.so}
renew=${2:-}
recorded=abi/imports.txt

fail() {
    echo "check_imports: $1" >&2
    exit 1
}

[ -f "$library" ] || fail "there is no $library"
needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
files=$(ldd "$library" | awk 'NF >= 3 && $2 == "=>" {print $1, $3}')

# "symbol library" of everything that the needed libraries define, the library's own name first.
definitions() {
    local name file
    for name in $needed; do
        file=$(awk -v name="$name" '$1 == name {print $2}' <<<"$files")
        [ -f "$file" ] || fail "$name was not found"
        nm -D --defined-only "$file" | awk -v name="$name" '{sub(/@.*/, "", $3); print $3, name}'
    done
}

# Weak symbols may stay unbound: the start-up code's hooks for tools.
imports() {
    awk '
        NR == FNR { if (!($1 in from)) from[$1] = $2; next }
        { symbol = $2; sub(/@.*/, "", symbol)
          origin = symbol in from ? from[symbol] : ($1 == "w" ? "-" : "nobody")
          printf "%-32s %s\n", symbol, origin }
    ' <(definitions) <(nm -D --undefined-only "$library") | sort
}

found=$(imports)
if [ "$renew" = --renew ]; then
    echo "$found" >"$recorded"
    echo "recorded: $recorded"
    exit 0
fi
[ -f "$recorded" ] || fail "there is no $recorded"
diff --label "$recorded" --label "$library" -u0 "$recorded" <(echo "$found") >&2 || {
    fail "the imports are not those of $recorded; once every switch has the new ones: scripts/check_imports.sh $library --renew"
}
echo "imports: $(wc -l <"$recorded")"
