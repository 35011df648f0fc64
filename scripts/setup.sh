#!/usr/bin/env bash
# setup.sh [LIST]: installs what is missing of a list of Debian packages (scripts/packages.txt), or prints the command
# to do so if it lacks the rights.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

missing=()
while read -r package; do
    case "$package" in '' | '#'*) continue ;; esac
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' || missing+=("$package")
done <"${1:-scripts/packages.txt}"
[ ${#missing[@]} -eq 0 ] && exit 0

command=(apt-get install --yes --no-install-recommends "${missing[@]}")
if [ "$(id -u)" -eq 0 ]; then
    as_root=()
elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
    as_root=(sudo)
else
    echo "Packages are missing. Please run: sudo apt-get update && sudo ${command[*]}" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" "${command[@]}" >/dev/null
