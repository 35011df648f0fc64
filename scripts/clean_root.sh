#!/usr/bin/env bash
# clean_root.sh PACKAGE.deb... -- COMMAND...: installs Debian packages on a layer over this machine's files, and runs
# the command there, in this checkout. Then removes the packages, and checks that they leave nothing. The layer is in
# memory and ends with this script, as does every process that was started. Needs root, and a kernel that lets it mount
# such a layer here: `clean_root.sh --possible` tells.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

quietly() {
    "$@" >"$work/log" 2>&1 || {
        cat "$work/log" >&2
        return 1
    }
}

# In its own mount and process namespace.
inside() {
    local package file names=() packages=()
    work=$1
    shift
    while [ "$1" != -- ]; do
        package=${1##*/}
        cp "$1" "$work/$package"
        packages+=("/var/tmp/$package")
        names+=("$(dpkg-deb --field "$1" Package)")
        shift
    done
    shift
    mount -t tmpfs none "$work/layer"
    mkdir "$work/layer/upper" "$work/layer/own" "$work/layer/root"
    mount -t overlay overlay -o "lowerdir=/,upperdir=$work/layer/upper,workdir=$work/layer/own" "$work/layer/root"
    local root=$work/layer/root
    mount -t proc proc "$root/proc"
    mount --rbind /dev "$root/dev"
    mount -t tmpfs none "$root/tmp"
    mount -t tmpfs none "$root/var/tmp"
    mount -t tmpfs none "$root/run"
    chmod 1777 "$root/tmp" "$root/var/tmp"
    mkdir -p "$root$PWD"
    mount --bind "$PWD" "$root$PWD"
    mv "$work"/*.deb "$root/var/tmp/"
    quietly chroot "$root" dpkg --install "${packages[@]}"
    chroot "$root" dpkg --listfiles "${names[@]}" | grep -v '^/.$' | sort -u >"$work/files"
    # Nothing of the caller's environment is an installed system's.
    chroot "$root" env -i -C "$PWD" HOME=/root LANG=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
        SCC_CLEAN_ROOT=1 "$@"
    quietly chroot "$root" dpkg --purge "${names[@]}"
    while read -r file; do
        [ -d "$root$file" ] || [ ! -e "$root$file" ] || {
            echo "clean_root: $file is left after the packages are purged" >&2
            return 1
        }
    done < <(grep '^/' "$work/files")
}

if [ "${1:-}" = --possible ]; then
    # Private mounts, which end with this process.
    # shellcheck disable=SC2016  # for the inner shell
    exec unshare --mount --pid --fork sh -c 'mount -t tmpfs none /mnt && mkdir /mnt/upper /mnt/own /mnt/root &&
        mount -t overlay overlay -o lowerdir=/,upperdir=/mnt/upper,workdir=/mnt/own /mnt/root' 2>/dev/null
fi
if [ "${1:-}" = --inside ]; then
    shift
    inside "$@"
    exit
fi
work=$(mktemp -d "${TMPDIR:-/tmp}/scclib-root-XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir "$work/layer"
unshare --mount --pid --fork --kill-child scripts/clean_root.sh --inside "$work" "$@"
