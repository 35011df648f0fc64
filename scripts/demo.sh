#!/usr/bin/env bash
# The demo: real processes in a fresh runtime directory, told as a short transcript.
#   1. an application's life, with the daemon killed in the middle of a burst
#   2. sccctl loads, applies, renumbers and reads back 200 ACLs with 10,000 ACEs
#   3. daemon, service and application: a capture's packets become counters, flows and an address move;
#      the service and the daemon are killed and everyone comes back
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build=$PWD/build/${SCC_DEMO_BUILD:-release}
sccd=$build/devkit/sccd/sccd-dev
service=$build/devkit/service/scc-ss-dev
ctl=$build/devkit/ctl/sccctl
work=$(mktemp -d /tmp/scclib-demo-XXXXXX)
export TMPDIR=$work/1
mkdir -p "$TMPDIR"
running=()

finish() {
    local pid
    for pid in "${running[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap finish EXIT

fail() {
    echo "demo: $1" >&2
    for log in "$work"/*.log; do
        echo "--- ${log##*/}" >&2
        tail -n 20 "$log" >&2
    done
    exit 1
}

# wait_for FILE TEXT [COUNT]: until FILE holds TEXT on that many lines, 30 seconds at most.
wait_for() {
    local until=$((SECONDS + 30))
    until [ "$(grep -cF -- "$2" "$1" 2>/dev/null || true)" -ge "${3:-1}" ]; do
        [ $SECONDS -lt $until ] || fail "nobody said \"$2\""
        sleep 0.05
    done
}

start_daemon() {
    : >"$work/sccd.log"
    "$sccd" >"$work/sccd.log" 2>&1 &
    daemon=$!
    running+=("$daemon")
    wait_for "$work/sccd.log" "sccd-dev: ready"
}

kill_hard() {
    kill -9 "$1"
    wait "$1" 2>/dev/null || true
}

heading() { printf '\n== %s\n' "$1"; }

one_application() {
    heading "1. An application, and a daemon that dies"
    start_daemon
    "$build/examples/demo_app" >"$work/app.log" 2>&1 &
    local app=$!
    running+=("$app")
    wait_for "$work/app.log" "waiting for notifications"
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
    "$ctl" acl load "$work/acls.txt" --progress
    cat >"$work/commands.txt" <<COMMANDS
acl load $work/acls.txt
acl resequence 17 --type 3 5 5
acl show 17 --type 3
counter acl 17 --type 3
acl save $work/saved.txt
COMMANDS
    # A fresh daemon: the shell's registration loads the file itself, so that the cache can answer.
    kill_hard "$daemon"
    start_daemon
    "$ctl" shell <"$work/commands.txt" >"$work/shell.log" 2>&1 || fail "the shell failed"
    head -n 12 "$work/shell.log"
    echo "..."
    tail -n 4 "$work/shell.log"
    echo "the saved file has $(grep -c '^acl' "$work/saved.txt") ACLs and $(grep -cE '^ +[0-9]+ ' "$work/saved.txt") ACEs"
    kill_hard "$daemon"
}

start_service() {
    : >"$work/service.log"
    "$service" --pcap "$PWD/tests/devkit/data/flows.pcap" --pcap-on signal --vlan-ifx 0:1 --vlan-ifx 10:1 \
        --vlan-ifx 20:2 >"$work/service.log" 2>&1 &
    security=$!
    running+=("$security")
    wait_for "$work/service.log" "scc-ss-dev: registered"
}

# Waits until the service counts what it holds, then shows the counter.
counters() {
    local acl
    for acl in "$@"; do "$ctl" counter acl "$acl" --type 3; done
}

whole_road() {
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
    "$ctl" acl load "$work/rules.txt"
    "$ctl" watch --app 4 --count 4 --seconds 20 >"$work/watch.log" 2>&1 &
    local watcher=$!
    running+=("$watcher")
    local until=$((SECONDS + 20))
    until "$ctl" clients | grep -qE '(^| )4( |$)'; do
        [ $SECONDS -lt $until ] || fail "the watcher did not register"
    done
    kill -USR1 "$security"
    wait "$watcher" || fail "the capture's reports did not arrive"
    echo "-- what the applications heard of the capture:"
    cat "$work/watch.log"
    echo "-- the counters in hardware:"
    counters 1 2
    echo "-- the service is killed, and comes back:"
    kill_hard "$security"
    start_service
    wait_for "$work/service.log" "scc-ss-dev: registered"
    counters 1 2
    echo "-- the daemon is killed; the service finds the new one:"
    kill_hard "$daemon"
    start_daemon
    wait_for "$work/service.log" "scc-ss-dev: registered" 2
    "$ctl" acl load "$work/rules.txt"
    kill -USR1 "$security"
    until=$((SECONDS + 20))
    until [ "$("$ctl" --json counter acl 1 --type 3 | grep -oE '"counter": ?[0-9]+' | grep -oE '[0-9]+')" != 0 ]; do
        [ $SECONDS -lt $until ] || fail "the counters stayed 0"
    done
    counters 1 2
    kill "$security" "$daemon"
}

one_application
many_acls
whole_road
heading "done"
