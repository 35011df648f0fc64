#!/usr/bin/env bash
# coverage.sh [--least-lines PERCENT] [--least-branches PERCENT] [ctest arguments...]: runs the tests and a sample of
# the fault sweep against an instrumented library, prints the lines and branches executed in each file of src/, and
# writes what was missed to build/coverage/html and build/coverage/missed.txt. Fails below the minimum percentages.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/common.sh
. scripts/common.sh

# The only definition of the minimum percentages.
least_lines=99.9
least_branches=99.5

while [ $# -gt 0 ]; do
    case "$1" in
        --least-lines) least_lines=$2 ;;
        --least-branches) least_branches=$2 ;;
        *) break ;;
    esac
    shift 2
done

tree=build/coverage
profiles=$PWD/$tree/profiles
# The names of a versioned package and those of the default one.
profdata=$(command -v llvm-profdata llvm-profdata-14 | head -n 1)
cov=$(command -v llvm-cov llvm-cov-14 | head -n 1)

# The counters are mapped onto the file (%c), one for each binary (%m), so a killed process loses none. ctest gives
# each test executable a file of its own (tests/CMakeLists.txt); this one is for the sweep.
mkdir -p "$profiles"
export LLVM_PROFILE_FILE=$profiles/%c%m.profraw
build coverage
rm -rf "$profiles" && mkdir -p "$profiles"
run_tests coverage "$@"
if [ $# -eq 0 ]; then
    "$tree/tests/sweep/fault_sweep" --jobs "$((jobs * 3))" --sample 800 >"$tree/faults.log" || {
        grep -v '^[a-z-]* *[a-z_]* *[0-9]* *[0-9]* *0$' "$tree/faults.log"
        exit 1
    }
fi

"$profdata" merge --sparse -o "$tree/tests.profdata" "$profiles"/*.profraw
mapfile -t binaries < <(find "$tree/src" "$tree/tests" -maxdepth 2 -type f \( -name 'libscclib.so.*' -o -name '*_tests' -o -name fault_sweep \) | sort)
objects=("${binaries[0]}")
for binary in "${binaries[@]:1}"; do
    # Binaries without the library have nothing to report.
    if grep -q '__llvm_covmap' < <(readelf -SW "$binary"); then
        objects+=(-object "$binary")
    fi
done
common=(-instr-profile "$tree/tests.profdata" "${objects[@]}" -ignore-filename-regex='/(tests|include|usr)/')
rm -rf "$tree/html"
"$cov" show "${common[@]}" -format=html -output-dir "$tree/html" -show-branches=count -show-line-counts >/dev/null
"$cov" export "${common[@]}" >"$tree/coverage.json"
python3 scripts/coverage_table.py "$tree/coverage.json" "$tree/missed.txt" "$least_lines" "$least_branches"
echo "report: $tree/html/index.html, what was missed: $tree/missed.txt"
