#!/usr/bin/env bash
# make_html.sh PAGES OUTPUT: renders the man pages and the guides as HTML, with an index. PAGES has the generated man
# pages (man3, man7); those of the programs are in docs/man. The guides keep their places, so that the links between
# them hold. Needs mandoc and lowdown. Fails on a link to a file that is not there.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
pages=${1:?directory with man3 and man7}
output=${2:?directory to write}
rm -rf "$output"
mkdir -p "$output/docs" "$output/include" "$output/reference"

cat >"$output/style.css" <<'CSS'
body { max-width: 60em; margin: 1em auto; padding: 0 1em; font-family: sans-serif; line-height: 1.4; }
pre { background: #f4f4f4; padding: 0.5em 1em; overflow-x: auto; }
table { border-collapse: collapse; }
th, td { border: 1px solid #bbb; padding: 0.2em 0.5em; text-align: left; vertical-align: top; }
table.head, table.foot { width: 100%; }
table.head td, table.foot td { border: none; }
td.head-vol { text-align: center; }
td.head-rtitle, td.foot-os { text-align: right; }
dd { margin-left: 2em; }
CSS

# Turns the names of other pages into links; mandoc knows them only in pages of another macro package.
link_names() {
    local name
    for name in "$output"/reference/*.html; do
        name=${name##*/}
        name=${name%.html}
        echo "s#<b>${name%.*}</b>(${name##*.})#<a href=\"$name.html\">${name%.*}(${name##*.})</a>#g"
    done >"$output/names.sed"
    sed -i -f "$output/names.sed" "$output"/reference/*.html
    rm "$output/names.sed"
}

render_pages() {
    local page
    for page in "$pages"/man[37]/* docs/man/*; do
        mandoc -T html -O style=../style.css,toc "$page" >"$output/reference/${page##*/}.html"
    done
    link_names
}

# render_guide FILE: FILE.md becomes FILE.html, with its first heading as the title.
render_guide() {
    local up=
    [[ $1 != docs/* ]] || up=../
    lowdown -s -T html -m "title: $(sed -n '1s/^# //p' "$1")" -m "css: ${up}style.css" "$1" |
        sed -E 's#(href="[^":]*)\.md(["\#])#\1.html\2#g' >"$output/${1%.md}.html"
}

# list TITLE PATTERN: a heading and links to the files below OUTPUT that match.
list() {
    local file
    echo "<h2>$1</h2>"
    echo "<ul>"
    for file in $2; do
        printf '<li><a href="%s">%s</a></li>\n' "$file" "$(sed -n 's#.*<title>\(.*\)</title>.*#\1#p' "$file")"
    done
    echo "</ul>"
}

make_index() (
    cd "$output"
    {
        echo '<!DOCTYPE html>'
        echo '<html lang="en"><head><meta charset="utf-8"><title>scclib</title>'
        echo '<link rel="stylesheet" href="style.css"></head><body>'
        echo '<h1>scclib</h1>'
        list "Guides" "*.html docs/*.html"
        list "Overviews" "reference/*.7.html"
        list "Programs" "reference/*.[18].html"
        list "Functions" "reference/*.3.html"
        echo '</body></html>'
    } >new
    mv new index.html
)

check_links() {
    local file target missing=0
    while IFS=: read -r file target; do
        target=${target#*\"}
        target=${target%\"}
        target=${target%%#*}
        case "$target" in '' | *:*) continue ;; esac
        [ -e "$(dirname "$file")/$target" ] || {
            echo "make_html: $file has a link to $target, which is missing" >&2
            missing=1
        }
    done < <(grep -roE '(href|src)="[^"]*"' --include='*.html' "$output")
    return "$missing"
}

render_pages
for guide in *.md docs/*.md; do render_guide "$guide"; done
cp include/*.h "$output/include/"
for folder in docs/*/; do
    case "$folder" in docs/man/) ;; *) cp -r "$folder" "$output/docs/" ;; esac
done
find "$output/docs" -name '*.json' -delete
make_index
check_links
