#!/usr/bin/env bash
# check_capture.sh [PRESET]: records a session in which every message is exchanged, reads the capture with tshark
# and the dissector, and compares every name and value with what the daemon's trace and sccctl say.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/daemons.sh
. scripts/daemons.sh

use_build capture "${1:-release}"

start_daemon() {
    start_program trace.log "sccd-dev: ready" "$build/devkit/sccd/sccd-dev" --trace=full --capture "$work/wire.pcapng"
    daemon=$started
    "$ctl" capture "$work/followed.pcapng" 2>"$work/capture.err" &
    capture=$!
    running+=("$capture")
    wait_for "$work/followed.pcapng" "sccd"
}

start_service() {
    start_program service.log "scc-ss-dev: registered" "$build/devkit/service/scc-ss-dev" \
        --pcap "$PWD/tests/devkit/data/flows.pcap" --pcap-on signal --vlan-ifx 0:1 --vlan-ifx 10:1 --vlan-ifx 20:2
    service=$started
}

notify_everything() {
    local user="ifx=3 vid=10 mac=00:11:22:33:44:55 ip=10.0.0.7 mask=255.255.255.0"
    local user6="ifx=4 vid=11 mac=00:11:22:33:44:56 ip=2001:db8::7"
    local line
    while read -r line; do
        # shellcheck disable=SC2086
        "$ctl" notify --app 5 $line >/dev/null
    done <<END
d1x-addr-move ifx=3 vid=10 vid_before=9 vid_after=10 mac=00:11:22:33:44:55
user-change $user add=1
offline-detect first=1 open=1 interval=60 threshold=9
station-move permit=1
flow $user first=5 second=6
flow $user6 first=7 second=8
noflow-offline $user flow=9 time=10 extra=0a0b
direct-vlan value=1 vlans=[5,4094]
authmode mode=3
dirchn add=1 ip=10.0.0.1
port-violate ifx=3 vid=10 mac=00:11:22:33:44:55 add=1
user-roll ifx=3 vid=10 mac=00:11:22:33:44:55 roll_type=2
water-line start=1
ace-counter type=1 id=101 class=1 entries=[{"id":1,"value":3},{"id":2,"value":4}]
END
    "$ctl" daemon capability to=5 word=0x20 >/dev/null
    "$ctl" daemon debug-show app=5 mode=1 type=1 id=101 >/dev/null
    "$ctl" debug on --app 5 >/dev/null
    "$ctl" stats --app 5 >/dev/null
    "$ctl" alive --app 5 >/dev/null
    "$ctl" daemon debug-dump-service >/dev/null
}

session() {
    printf '01 02 03\n04\n' >"$work/block.hex"
    sed "/^#/d; s|BLOCK|$work/block.hex|" tests/devkit/data/every_command.txt >"$work/lines"
    start_program watch.log "server-status status=1" "$ctl" watch --app 5
    "$ctl" shell --json <"$work/lines" >"$work/results.json"
    start_service
    # With the service, and with ACLs and users that are there when a second service comes.
    "$ctl" shell <"$work/lines" >/dev/null || true
    "$ctl" shell >/dev/null <<'END'
acl create 1
acl add-ace 1 10 permit ip any any
acl apply 1 --ifx 1
acl resequence 1 10 10
nac-user add --ifx 3 --vid 10 --mac 00:11:22:33:44:55 --ip 10.0.0.7
nac-app-set --ifx 3 --app-type dot1x-mac --operation add
nac-app-set --ifx 3 --app-type dot1x-mac --operation add --vid 12
http-dport-set 8080 add
offline-detect-cfg on 1 100
counter acl 1
counter ace 1 10
END
    kill -USR1 "$service"
    wait_for "$work/trace.log" "flow-up" 1
    wait_for "$work/trace.log" "ace-counter-up" 1
    notify_everything
    kill "$service"
    wait "$service" || true
    start_service
    wait_for "$work/trace.log" "nacm-l4port-recover" 2
}

start_daemon
session
kill "$service"
wait "$service" || true
"$ctl" clients >/dev/null # its end has been noticed
until=$((SECONDS + 30))
until [ "$(stat -c %s "$work/followed.pcapng")" -eq "$(stat -c %s "$work/wire.pcapng")" ]; do
    [ $SECONDS -lt $until ] || fail "sccctl capture does not follow"
    sleep 0.05
done
kill -INT "$capture"
wait "$capture" || fail "sccctl capture failed: $(cat "$work/capture.err")"
kill "$daemon"
wait "$daemon" || fail "the daemon failed"

dissector=$build/devkit/wireshark/scc.lua
for capture in wire followed; do
    tshark -X "lua_script:$dissector" -r "$work/$capture.pcapng" -T pdml >"$work/$capture.pdml" 2>"$work/tshark.err" ||
        fail "tshark: $(cat "$work/tshark.err")"
done
scripts/compare_capture.py "$work/wire.pdml" "$work/followed.pdml" "$work/trace.log" "$work/results.json" "$dissector"

# Malformed messages are shown as such, and no value is too short for the dissector.
malformed=$(scripts/make_malformed_capture.py "$work/malformed.pcapng")
tshark -X "lua_script:$dissector" -r "$work/malformed.pcapng" -V >"$work/malformed.txt" 2>&1
! grep -q "Lua Error" "$work/malformed.txt" || fail "the dissector fails: $(grep -m 1 "Lua Error" "$work/malformed.txt")"
found=$(tshark -X "lua_script:$dissector" -r "$work/malformed.pcapng" -Y scc.malformed 2>/dev/null | wc -l)
[ "$found" -eq "$malformed" ] || fail "$found of $malformed malformed messages are shown as such"
echo "$found malformed messages are shown as such"
