#!/usr/bin/env bash
# Checks the Debian packages: lintian, their contents and dependencies, and that programs can be built against them.
# They are unpacked into an empty directory, so that needs no root. Where mounts are allowed, they are then installed on
# a throw-away layer over this machine's files, in which the guides are followed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh
work=$(mktemp -d "${TMPDIR:-/tmp}/scclib-packages-XXXXXX")
trap 'rm -rf "$work"' EXIT
root=$work/root
triplet=$(dpkg-architecture -q DEB_HOST_MULTIARCH)

fail() {
    echo "check_packages: $1" >&2
    exit 1
}

field() { dpkg-deb --field "$work/debs/$1"_*.deb "$2"; }

# files_of PACKAGE: its files, except man pages of functions, share/doc and lintian's overrides. LIB stands for
# the processor's library folder.
files_of() {
    dpkg-deb --contents "$work/debs/$1"_*.deb | awk '!/^d/ {print $6}' | sed "s#^\./##; s#^usr/lib/$triplet/#LIB/#" |
        grep -vE '/man3/|/share/doc/|/lintian/' | LC_ALL=C sort
}

# expect PACKAGE FILES...: checks that it contains exactly these files.
expect() {
    local package=$1
    shift
    diff <(printf '%s\n' "$@" | LC_ALL=C sort) <(files_of "$package") >&2 || fail "$package contains other files"
    [ -s "$root/usr/share/doc/$package/copyright" ] || fail "$package has no copyright file"
}

# depends PACKAGE WORDS...: checks that each is among its dependencies.
depends() {
    local package=$1 text
    shift
    text=$(field "$package" Depends)
    for word in "$@"; do
        [[ ", $text" == *", $word"* ]] || fail "$package depends on \"$text\", without $word"
    done
}

# The package's symbols are those of the recorded interface, no more and no fewer.
diff <(sed -n "s/.*<elf-symbol name='\([^']*\)'.* version='\([^']*\)'.*/\1@\2/p" abi/scclib.abi | LC_ALL=C sort) \
    <(awk '/^ / && $1 !~ /^SCCLIB_/ {print $1}' debian/libscclib1.symbols | LC_ALL=C sort) >&2 ||
    fail "debian/libscclib1.symbols and abi/scclib.abi have different symbols"

scripts/package.sh "$work/debs" >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    fail "cannot build the packages"
}
# As root it would print a warning of its own. Overrides are in debian/, with their reasons.
lintian --allow-root --fail-on error,warning "$work"/debs/*.changes >&2 || fail "lintian complains"

mkdir "$root"
mapfile -t packages < <(find "$work/debs" -name '*.deb' ! -name '*-dbgsym_*' | sort)
for package in "${packages[@]}"; do dpkg-deb --extract "$package" "$root"; done
version=$(field libscclib1 Version)

expect libscclib1 LIB/libscclib.so.1 "LIB/libscclib.so.$version"
cmake_files=(Config.cmake ConfigVersion.cmake Targets.cmake Targets-release.cmake)
expect scclib-dev usr/include/scclib.h LIB/libscclib.a LIB/libscclib.so LIB/pkgconfig/scclib.pc \
    usr/include/scc_records.h LIB/libscc_records.a LIB/pkgconfig/scc_records.pc \
    "${cmake_files[@]/#/LIB/cmake/scclib/scclib}" usr/share/man/man7/scclib.7.gz \
    usr/share/man/man7/scclib-handlers.7.gz usr/share/man/man7/scc_records.7.gz
expect scclib-workstation LIB/libqx_syslog.so LIB/libqx-thread.so usr/include/qx_syslog.h usr/include/qx_thread.h
expect scclib-service-linux usr/sbin/scc-ss-linux usr/share/man/man8/scc-ss-linux.8.gz \
    lib/systemd/system/scc-ss-linux.service
expect scclib-doc usr/share/doc-base/scclib-doc.scclib
for program in sccd-dev scc-ss-dev sccctl; do
    for file in "bin/$program" "share/man/man1/$program.1.gz"; do
        [ -s "$root/usr/$file" ] || fail "there is no /usr/$file"
    done
done
[ -s "$root/usr/share/scclib/scenarios/slow-service.json" ] || fail "there are no scenarios"
[ -s "$root/usr/share/bash-completion/completions/sccctl" ] || fail "there is no completion for sccctl"
[ -s "$root/usr/share/zsh/vendor-completions/_sccctl" ] || fail "there is no completion for sccctl in zsh"
[ -s "$root/usr/share/scclib/wireshark/scc.lua" ] || fail "there is no dissector"
while read -r name; do
    [ -s "$root/usr/share/man/man3/$name.3.gz" ] || fail "scclib-dev has no page of $name"
done < <(exported_names)

for file in html/index.html html/reference/scc_svr_reg.3.html html/docs/first-application.html html/include/scclib.h \
    examples/first_app.c examples/first_app.cpp; do
    [ -s "$root/usr/share/doc/scclib-doc/$file" ] || fail "scclib-doc has no $file"
done
for package in libscclib1 scclib-devkit scclib-service-linux scclib-workstation; do
    [ -s "$work/debs/$package-dbgsym_${version}_$(dpkg --print-architecture).deb" ] || fail "there are no debug symbols of $package"
done

# The first version with the newest symbol that is used: programs run with every later one.
depends libscclib1 libc6 "scclib-workstation (>= $version) | scclib-platform"
depends scclib-dev "libscclib1 (= $version)" "scclib-workstation (= $version) | scclib-platform"
depends scclib-devkit libc6 libstdc++6 libevent libpcap "libscclib1 (>= $version)"
depends scclib-service-linux "libscclib1 (>= $version)" libmnl0
depends scclib-workstation libc6 libevent
for package in libscclib1 scclib-dev scclib-workstation; do
    [ "$(field "$package" Multi-Arch)" = same ] || fail "$package cannot be installed for two processors at once"
done

mapfile -t binaries < <(find "$root/usr" -type f \( -path '*/bin/*' -o -path '*/sbin/*' -o -name 'lib*.so*' \))
scripts/check_hardening.sh "${binaries[@]}"

# A program of each kind, with pkg-config and with CMake.
libdir=$root/usr/lib/$triplet
programs=(first_app event_loop_app)
export PKG_CONFIG_SYSROOT_DIR=$root PKG_CONFIG_LIBDIR=$libdir/pkgconfig
export PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=1 PKG_CONFIG_ALLOW_SYSTEM_LIBS=1
mkdir "$work/project"
cat >"$work/project/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(packages C)
find_package(scclib REQUIRED)
foreach(program ${PROGRAMS})
  add_executable(${program} ${program}.c)
  target_link_libraries(${program} PRIVATE scclib::scclib scclib::qx_thread)
endforeach()
CMAKE
for program in "${programs[@]}"; do
    cp "examples/$program.c" "$work/project/"
    # shellcheck disable=SC2046
    gcc -std=c11 -D_DEFAULT_SOURCE -Wall -Werror "examples/$program.c" -o "$work/$program" \
        $(pkg-config --cflags --libs scclib) -lqx-thread -Wl,-rpath-link,"$libdir"
done
build_project() {
    cmake -S "$work/project" -B "$work/project/build" -DCMAKE_PREFIX_PATH="$root/usr" \
        "-DPROGRAMS=$(IFS=';' && echo "${programs[*]}")" && cmake --build "$work/project/build"
}
build_project >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    fail "cannot build against the packages with CMake"
}

for program in "${programs[@]}"; do
    for built in "$work/$program" "$work/project/build/$program"; do
        # The error of a missing runtime directory shows that the program runs and finds the libraries.
        output=$(env -u TMPDIR LD_LIBRARY_PATH="$libdir" "$built" 2>&1 || true)
        grep -q 'cannot start: Input/output error' <<<"$output" || fail "$built printed: $output"
    done
done
for program in sccd-dev scc-ss-dev sccctl; do
    LD_LIBRARY_PATH=$libdir "$root/usr/bin/$program" --help >/dev/null || fail "$program does not run"
done
if scripts/clean_root.sh --possible; then
    scripts/clean_root.sh "${packages[@]}" -- scripts/check_guides.py
else
    echo "left out: no layer over this machine can be mounted here, so the packages are not installed"
fi
echo "packages: $(find "$work/debs" -name '*.deb' | wc -l)"
