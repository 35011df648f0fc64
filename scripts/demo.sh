#!/usr/bin/env bash
# demo.sh [PART...]: the demo, or these parts of it: real processes in a fresh runtime directory, told as a transcript.
#   1. an application's life, with the daemon killed in the middle of a burst
#   2. sccctl loads, applies, renumbers and reads back 200 ACLs with 10,000 ACEs
#   3. daemon, service and application: a capture's packets become counters, flows and an address move;
#      the service and the daemon are killed and everyone comes back
#   4. three hosts on a bridge, whose packets the kernel drops for an application (where network namespaces are
#      allowed)
# The parts are one_application, many_acls, everything_together and real_packets. SCC_DEMO_APP is the command that
# runs the application of the first part.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
# shellcheck source=scripts/daemons.sh
. scripts/daemons.sh

use_build demo "${SCC_DEMO_BUILD:-release}"
read -ra application <<<"${SCC_DEMO_APP:-$build/examples/demo_app}"
sccd=$build/devkit/sccd/sccd-dev
service=$build/devkit/service/scc-ss-dev

start_daemon() {
    start_program sccd.log "sccd-dev: ready" "$sccd"
    daemon=$started
}

heading() { printf '\n== %s\n' "$1"; }

one_application() {
    heading "1. An application, and a daemon that dies"
    start_daemon
    start_program app.log "waiting for notifications" "${application[@]}"
    local app=$started
    "$ctl" notify --app 5 station-move permit=1 >/dev/null
    "$ctl" notify --app 5 authmode mode=3 >/dev/null
    wait_for "$work/app.log" "notifications received"
    "$ctl" stats --app 5 >"$work/stats.txt"
    wait_for "$work/app.log" "burst of requests begins"
    sleep 0.2
    kill_hard "$daemon"
    wait_for "$work/app.log" "daemon lost"
    start_daemon
    wait "$app" || fail "the application failed"
    cat "$work/app.log"
    echo "-- its statistics, as the daemon collected them before the burst:"
    cat "$work/stats.txt"
    kill_hard "$daemon"
}

make_acl_file() {
    local acl ace
    for acl in $(seq 1 200); do
        echo "acl $acl type 3 class 1"
        for ace in $(seq 1 50); do
            echo "  $((ace * 10)) permit tcp 10.$acl.0.0/16 any port $((1000 + ace))"
        done
        echo "apply $acl ifx $acl"
    done
}

many_acls() {
    heading "2. sccctl: 200 ACLs with 10,000 ACEs"
    start_daemon
    make_acl_file >"$work/acls.txt"
    (cd "$work" && "$ctl" acl load acls.txt --progress)
    cat >"$work/commands.txt" <<COMMANDS
acl load acls.txt
acl resequence 17 --type 3 5 5
acl show 17 --type 3
counter acl 17 --type 3
acl save saved.txt
COMMANDS
    # A fresh daemon, since only a registration that loads the file itself has the ACLs in its cache.
    kill_hard "$daemon"
    start_daemon
    (cd "$work" && "$ctl" shell <commands.txt >shell.log 2>&1) || fail "the shell failed"
    echo "-- ACL 17, renumbered from 5 in steps of 5, read back from the cache:"
    grep -A 4 '^    sn ' "$work/shell.log"
    echo "    ..."
    grep '^    250 ' "$work/shell.log" || fail "ACL 17 was not renumbered"
    echo "-- its counter: $(sed -n 's/^  counter //p' "$work/shell.log") (no service is there to count)"
    echo "the saved file has $(grep -c '^acl' "$work/saved.txt") ACLs and $(grep -cE '^ +[0-9]+ ' "$work/saved.txt") ACEs"
    kill_hard "$daemon"
}

start_service() {
    start_program service.log "scc-ss-dev: registered" "$service" --pcap "$PWD/tests/devkit/data/flows.pcap" \
        --pcap-on signal --vlan-ifx 0:1 --vlan-ifx 10:1 --vlan-ifx 20:2
    security=$started
}

# The value of "counter" in the output of sccctl.
counter_of() {
    "$ctl" --json counter "$@" --type 3 | grep -oE '"counter": ?[0-9]+' | grep -oE '[0-9]+$'
}

# Prints the packet counters of every ACL and ACE in the rules file, queried through the library.
show_counters() {
    local first rest acl=0
    printf '  %-4s %-4s %-18s %8s\n' ACL ACE rule packets
    while read -r first rest; do
        case "$first" in
            acl) acl=${rest%% *} ;;
            apply) printf '  %-4s %-4s %-18s %8s\n' "$acl" all "" "$(counter_of acl "$acl")" ;;
            *) printf '  %-4s %-4s %-18s %8s\n' "$acl" "$first" "$rest" "$(counter_of ace "$acl" "$first")" ;;
        esac
    done <"$work/rules.txt"
}

# Makes the service replay its capture, and waits until the packets are counted.
run_capture() {
    local until=$((SECONDS + 20))
    kill -USR1 "$security"
    until [ "$(counter_of acl 2)" = 32 ]; do
        [ $SECONDS -lt $until ] || fail "the capture was not counted"
        sleep 0.05
    done
}

everything_together() {
    heading "3. Daemon, service and application"
    start_daemon
    start_service
    cat >"$work/rules.txt" <<RULES
acl 1 type 3
  10 permit tcp any any
  20 permit udp any any
  30 permit ip any any
apply 1 ifx 1
acl 2 type 3
  10 permit ether
apply 2 ifx 2
RULES
    (cd "$work" && "$ctl" acl load rules.txt)
    "$ctl" --json watch --app 4 --count 5 --seconds 20 >"$work/watch.log" 2>&1 &
    local watcher=$!
    running+=("$watcher")
    local until=$((SECONDS + 20))
    until grep -qE '(^| )4( |$)' < <("$ctl" clients); do
        [ $SECONDS -lt $until ] || fail "the watcher did not register"
    done
    run_capture
    wait "$watcher" || fail "the capture's reports did not arrive"
    echo "-- a capture runs through the service; the application's notifications:"
    scripts/demo_reports.py "$work/watch.log"
    echo "-- what the service counted:"
    show_counters
    echo "-- the service is killed; its successor gets the ACLs again and counts from 0:"
    kill_hard "$security"
    start_service
    show_counters
    echo "-- the capture runs again:"
    run_capture
    show_counters
    echo "-- the daemon is killed; the service finds the new one, the ACLs are loaded again, the capture runs:"
    kill_hard "$daemon"
    start_daemon
    wait_for "$work/service.log" "scc-ss-dev: registered" 2
    (cd "$work" && "$ctl" acl load rules.txt)
    run_capture
    show_counters
    kill "$security" "$daemon"
}

# The namespaces take their processes and interfaces with them, also when this script is interrupted.
real_packets() {
    heading "4. A service that enforces"
    local program
    for program in ip nft ping nsenter; do
        if ! command -v "$program" >/dev/null; then
            echo "left out: $program is not installed"
            return
        fi
    done
    if [ ! -x "$build/devkit/linux/scc-ss-linux" ]; then
        echo "left out: scc-ss-linux was not built, for lack of libmnl"
        return
    fi
    if ! unshare --net --pid --fork --kill-child true 2>/dev/null; then
        echo "left out: this user may not make network namespaces"
        return
    fi
    unshare --net --pid --fork --kill-child --mount-proc scripts/demo_linux.sh "$work" &
    local namespaces=$!
    running+=("$namespaces")
    wait "$namespaces" || fail "the fourth part failed"
}

parts=("$@")
[ $# -gt 0 ] || parts=(one_application many_acls everything_together real_packets)
for part in "${parts[@]}"; do "$part"; done
heading "done"
