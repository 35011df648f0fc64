#!/usr/bin/env bash
# Checks that every exported name has a man page, a test, and a use in an example, a command of sccctl, or
# the devkit's service; and that the tests that SECURITY.md names exist.
set -euo pipefail
export LC_ALL=C
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
work=$(mktemp -d "${TMPDIR:-/tmp}/scclib-complete-XXXXXX")
trap 'rm -rf "$work"' EXIT

# The identifiers of some files: a name counts only as a whole word.
words() { grep -rhowE '_?[A-Za-z][A-Za-z0-9_]+' "$@" | sort -u; }

# missing WHAT: reports the names on standard input, if any, and sets `failed`.
failed=
missing() {
    local names
    names=$(cat)
    [ -n "$names" ] || return 0
    echo "check_complete: $1:" >&2
    while read -r name; do echo "    $name" >&2; done <<<"$names"
    failed=yes
}

exported_names >"$work/exported"
python3 scripts/make_man_pages.py include/scclib.h src/scclib.map "$work/man"
for page in "$work"/man/man3/*.3; do basename "$page" .3; done | sort >"$work/documented"
words --include='*.cpp' --include='*.h' --include='*.c' tests >"$work/tested"
words examples/*.c devkit/ctl/*.cpp devkit/service/*.cpp >"$work/shown"

missing "no man page" < <(comm -23 "$work/exported" "$work/documented")
missing "in no test" < <(comm -23 "$work/exported" "$work/tested")
missing "in no example, no command of sccctl and not in the devkit's service" < <(comm -23 "$work/exported" "$work/shown")
# SECURITY.md proves its claims by tests: Suite.Name.
# shellcheck disable=SC2016  # the backquotes are Markdown's
grep -oE '`[A-Z][A-Za-z0-9]+\.[A-Z][A-Za-z0-9]+`' SECURITY.md | tr -d '`' | sort -u >"$work/claimed"
grep -rhoE '^TEST(_F|_P)?\([A-Za-z0-9_]+, *[A-Za-z0-9_]+\)' tests --include='*.cpp' |
    sed -E 's/^TEST(_F|_P)?\(([^,]+), *([^)]+)\)/\2.\3/' | sort -u >"$work/cases"
[ -s "$work/claimed" ] || missing "names no test" < <(echo SECURITY.md)
missing "named by SECURITY.md, but no test" < <(comm -23 "$work/claimed" "$work/cases")
[ -z "$failed" ] || exit 1
echo "exported names with page, test and use: $(wc -l <"$work/exported")"
