#!/usr/bin/env bash
# bench_peers.sh [ROUNDS]: builds and runs the comparison with other libraries, whose packages it installs, and prints
# what each needs on disk. The figures also go to build/peers.json, one a line.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh

scripts/setup.sh scripts/peer_packages.txt
[ -f build/peers/build.ninja ] ||
    cmake --preset release -B build/peers -DSCC_BENCH_PEERS=ON -DSCC_DEVKIT=OFF >/dev/null
cmake --build build/peers --parallel "$jobs" --target peers_bench -- --quiet

export BENCH_JSON=$PWD/build/peers.json
rm -f "$BENCH_JSON"
build/peers/bench/peers/peers_bench "${1:-7}"

# disk NAME PATTERN: the size of the library and of the libraries that it needs, without the C and C++ libraries.
disk() {
    local library total=0 count=0 file
    library=$(ldd build/peers/bench/peers/peers_bench | awk -v pattern="$2" '$1 ~ pattern {print $3; exit}')
    while read -r file; do
        total=$((total + $(stat -Lc %s "$file")))
        count=$((count + 1))
    done < <({ echo "$library"; ldd "$library" | awk '$2 == "=>" {print $3}'; } |
        grep -vE '/(libc|libm|libgcc_s|libstdc\+\+|libpthread|libdl|librt)\.so' | sort -u)
    printf '%-66s %12d KiB in %d files\n' "library and dependencies on disk, $1" $((total / 1024)) "$count"
    printf '{"what": "library and dependencies on disk, %s", "value": %d, "unit": "KiB", "ratio": %d, "goal": ""}\n' \
        "$1" $((total / 1024)) "$count" >>"$BENCH_JSON"
}
disk scclib '^libscclib'
disk ZeroMQ '^libzmq'
disk nng '^libnng'
disk sd-bus '^libsystemd'
disk "Cap'n Proto" '^libcapnp-rpc'
disk gRPC '^libgrpc[+][+][.]'
