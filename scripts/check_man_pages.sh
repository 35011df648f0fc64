#!/usr/bin/env bash
# Generates the manual and checks it: no warnings, no missing pages, no empty sections.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
work=$(mktemp -d "${TMPDIR:-/tmp}/scclib-man-XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() {
    echo "check_man_pages: $1" >&2
    exit 1
}

# Headings followed by nothing but another heading, a macro without text, or the end of the file.
empty_sections() {
    awk '
        FNR == 1 { if (title != "") print last ": " title; title = "" }
        { last = FILENAME }
        /^\.S[HS] / { if ($1 == ".SH") { if (title != "") print FILENAME ": " title; title = $0 } next }
        /^\.\\"/ || /^\.(PP|TP|nf|fi|br|sp|RS|RE)$/ { next }
        NF { title = "" }
        END { if (title != "") print last ": " title }' "$@"
}

python3 scripts/make_man_pages.py include/scclib.h src/scclib.map "$work" include/scc_records.h
pages=("$work"/man3/*.3 "$work"/man7/*.7 docs/man/*.1)
mandoc -T lint -W warning "${pages[@]}" || fail "pages with warnings"

while read -r name; do
    [ -s "$work/man3/$name.3" ] || fail "$name has no page"
done < <(exported_names)

empty=$(empty_sections "${pages[@]}")
[ -z "$empty" ] || fail "empty sections:"$'\n'"$empty"
for page in "$work"/man3/*.3; do
    for section in NAME SYNOPSIS DESCRIPTION; do
        grep -q "^.SH $section\$" "$page" || fail "$(basename "$page") has no $section"
    done
done
echo "pages: ${#pages[@]}"
