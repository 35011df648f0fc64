#!/usr/bin/env bash
# bench_compare.sh REVISION [ROUNDS [PART...]]: compares the library in build/release with that of an earlier commit:
# first what each operation takes, then, in turns, the rates of parts of wire_bench (together and small unless given).
# Each measurement is divided by that of the floor in the same run; the medians of these ratios are compared.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
[ $# -gt 0 ] || { echo "usage: ./run bench compare REVISION [ROUNDS [PART...]]" >&2; exit 2; }
revision=$1
rounds=${2:-7}
parts=("${@:3}")
[ ${#parts[@]} -gt 0 ] || parts=(together small)

before=$(scripts/build_revision.sh "$revision")
scripts/steps.py --against "$before"

figures=$(mktemp -d /tmp/sccb-XXXXXX)
trap 'rm -rf "$figures"' EXIT
for ((round = 0; round < rounds; ++round)); do
    LD_LIBRARY_PATH=$before BENCH_JSON=$figures/before build/release/bench/wire_bench 1 "${parts[@]}" >/dev/null
    BENCH_JSON=$figures/now build/release/bench/wire_bench 1 "${parts[@]}" >/dev/null
done
python3 - "$figures" <<'END'
import collections, json, pathlib, statistics, sys

def medians(path):
    ratios = collections.defaultdict(list)
    for line in path.read_text().splitlines():
        figure = json.loads(line)
        ratios[figure["what"]].append(figure["ratio"])
    return {what: statistics.median(values) for what, values in ratios.items() if not what.endswith("floor")}

before, now = (medians(pathlib.Path(sys.argv[1], name)) for name in ("before", "now"))
print(f"{'medians of ratios':<66} {'before':>8} {'now':>8} {'change':>8}")
for what, ratio in now.items():
    print(f"{what:<66} {before[what]:>8.3f} {ratio:>8.3f} {ratio / before[what]:>8.3f}")
END
