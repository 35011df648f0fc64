#!/usr/bin/env bash
# check_metrics.sh [PRESET]: promtool reads what sccctl metrics prints, and a parser of OpenMetrics the other format.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/daemons.sh
. scripts/daemons.sh

use_build metrics "${1:-release}"

# The package prometheus starts a server, so only its checker is taken from it.
find_promtool() {
    command -v promtool && return
    local tools=$PWD/build/promtool
    if [ ! -x "$tools/usr/bin/promtool" ]; then
        (cd "$work" && apt-get download -qq prometheus >&2 && dpkg-deb -x prometheus_*.deb "$tools")
    fi
    echo "$tools/usr/bin/promtool"
}

promtool=$(find_promtool)
start_program sccd.log "sccd-dev: ready" "$build/devkit/sccd/sccd-dev"
start_program service.log "scc-ss-dev: registered" "$build/devkit/service/scc-ss-dev"
start_program watch.log "server-status status=1" "$ctl" watch --app 5
"$ctl" acl create 101 >/dev/null
"$ctl" acl delete 102 2>/dev/null && fail "an unknown ACL was deleted"

"$ctl" metrics --output "$work/scc.prom"
"$promtool" check metrics <"$work/scc.prom" || fail "promtool refuses the text"
"$ctl" metrics --format openmetrics >"$work/scc.openmetrics"
/usr/bin/python3 - "$work/scc.openmetrics" <<'END' || fail "the OpenMetrics text is refused"
import sys
from prometheus_client.openmetrics.parser import text_string_to_metric_families
families = {each.name: each for each in text_string_to_metric_families(open(sys.argv[1]).read())}
results = {each.labels["result"]: each.value for each in families["scc_results"].samples}
if families["scc_results"].type != "counter" or results != {"0": 1.0, "2005": 1.0}:
    sys.exit(f"scc_results is a {families['scc_results'].type} with {results}")
END
echo "metrics: $(grep -c '^# TYPE' "$work/scc.prom") families, $(grep -vc '^#' "$work/scc.prom") samples"
