#!/usr/bin/env bash
# package.sh [DIRECTORY]: builds the Debian packages in DIRECTORY (build/packages). Does not need root.
#
#   libscclib1          the shared library
#   scclib-dev          headers, static libraries, man pages, pkg-config and CMake files
#   scclib-devkit       development daemon, software service and sccctl
#   scclib-service-linux  the security service on the kernel's packet filter, where libmnl is installed
#   scclib-workstation  the workstation's versions of the platform's two libraries
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
umask 022
mkdir -p "${1:-build/packages}"
output=$(cd "${1:-build/packages}" && pwd)
tree=build/release
work=$(mktemp -d "${TMPDIR:-/tmp}/scclib-package-XXXXXX")
trap 'rm -rf "$work"' EXIT

version=$(sed -n 's/^project(scclib VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
architecture=$(dpkg --print-architecture)
maintainer="scclib maintainers <maintainers@localhost>"
# For reproducibility: the same commit gives the same packages.
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || stat -c %Y CMakeLists.txt)
export SOURCE_DATE_EPOCH

# stage PACKAGE COMPONENT: installs the component into the package's tree.
stage() {
    local root=$work/$1
    DESTDIR=$root cmake --install "$tree" --prefix /usr --component "$2" --strip >/dev/null
    if [ -d "$root/usr/share/man" ]; then
        find "$root/usr/share/man" -type f -exec gzip -9n {} +
    fi
    mkdir -p "$root/usr/share/doc/$1" "$root/DEBIAN"
    cat >"$root/usr/share/doc/$1/copyright" <<TEXT
scclib, the client library of the security-control daemon, and its development kit.

No licence has been chosen for scclib yet.
TEXT
}

# needed PACKAGE: the packages whose libraries the programs and libraries of PACKAGE need.
needed() {
    local binaries
    mapfile -t binaries < <(find "$work/$1/usr" -type f \( -path '*/bin/*' -o -path '*/sbin/*' -o -name 'lib*.so*' \) | sort)
    mkdir -p "$work/depends/debian"
    printf 'Source: scclib\nPackage: %s\n' "$1" >"$work/depends/debian/control"
    echo "libscclib 1 libscclib1 (= $version)" >"$work/depends/debian/shlibs.local"
    # The platform's libraries are not versioned; their dependency is added explicitly.
    (cd "$work/depends" && dpkg-shlibdeps -O --ignore-missing-info -l"$libraries/libscclib1" \
        -l"$libraries/scclib-workstation" "${binaries[@]}" 2>"$work/depends/log") | sed -n 's/^shlibs:Depends=//p'
}

# pack PACKAGE SECTION DEPENDS SUMMARY, the long description on standard input.
pack() {
    local root=$work/$1
    {
        echo "Package: $1"
        echo "Version: $version"
        echo "Architecture: $architecture"
        echo "Maintainer: $maintainer"
        echo "Section: $2"
        echo "Priority: optional"
        [ "$1" != scclib-workstation ] || echo "Provides: scclib-platform"
        echo "Installed-Size: $(du -sk --exclude=DEBIAN "$root" | cut -f1)"
        echo "Depends: $3"
        echo "Description: $4"
        sed 's/^/ /'
    } >"$root/DEBIAN/control"
    (cd "$root" && find usr -type f -print0 | sort -z | xargs -0 md5sum) >"$root/DEBIAN/md5sums"
    if find "$root/usr/lib" -maxdepth 2 -name 'lib*.so*' 2>/dev/null | grep -q .; then
        [ "$1" = scclib-dev ] || echo "activate-noawait ldconfig" >"$root/DEBIAN/triggers"
    fi
    dpkg-deb --root-owner-group --build "$root" "$output/$1_${version}_$architecture.deb" >/dev/null
    echo "$output/$1_${version}_$architecture.deb"
}

build release installed >&2
stage libscclib1 runtime
stage scclib-dev development
stage scclib-devkit devkit
stage scclib-workstation workstation
with_linux=
if [ -x "$tree/devkit/linux/scc-ss-linux" ]; then
    with_linux=yes
    stage scclib-service-linux service-linux
fi

# dpkg-shlibdeps takes one directory per option; this one has a link for each package.
libraries=$work/libraries
mkdir "$libraries"
for package in libscclib1 scclib-workstation; do
    ln -s "$(dirname "$(find "$work/$package" -name 'lib*.so*' -type f | head -n 1)")" "$libraries/$package"
done

pack libscclib1 libs "$(needed libscclib1), scclib-workstation (= $version) | scclib-platform" \
    "client library of the switch's security-control daemon" <<'TEXT'
Security applications and the security service talk to the daemon through this
library: requests, queries, notifications and ACLs. It needs the platform's
logging and event-loop libraries, or their workstation versions.
TEXT
pack scclib-dev libdevel "libscclib1 (= $version), scclib-workstation (= $version) | scclib-platform" \
    "client library of the security-control daemon, for development" <<'TEXT'
The headers, the static libraries, a man page of every function, and what
pkg-config and CMake need to find them.
TEXT
pack scclib-devkit devel "$(needed scclib-devkit), scclib-workstation (= $version) | scclib-platform" \
    "development daemon, software service and command-line tool of scclib" <<'TEXT'
sccd-dev stands in for the security-control daemon, scc-ss-dev for the security
service with a forwarding table in memory, and sccctl makes every request and
query of the library a command.
TEXT
if [ -n "$with_linux" ]; then
    pack scclib-service-linux net \
        "$(needed scclib-service-linux), scclib-workstation (= $version) | scclib-platform" \
        "security service of scclib on the kernel's packet filter" <<'TEXT'
scc-ss-linux carries the operations of the security-control daemon out in
nftables: ACLs that drop packets, access control, rate limits and counters.
TEXT
fi
pack scclib-workstation libs "$(needed scclib-workstation)" \
    "workstation versions of the libraries that scclib needs" <<'TEXT'
libqx_syslog.so and libqx-thread.so with their headers, for machines that are
not a switch. A switch has its own.
TEXT
