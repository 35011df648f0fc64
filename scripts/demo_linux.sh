#!/usr/bin/env bash
# The demo's fourth part: three hosts on a bridge, and rules that the kernel enforces. Runs inside a network and a
# process namespace of its own (scripts/demo.sh makes them), so nothing is left when it ends, however it ends.
#
# usage: demo_linux.sh DIRECTORY, which has the programs build/*/ and gets the logs
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
work=$1
build=$PWD/build/${SCC_DEMO_BUILD:-release}
sccd=$build/devkit/sccd/sccd-dev
service=$build/devkit/linux/scc-ss-linux
ctl=$build/devkit/ctl/sccctl
export TMPDIR=$work/4
mkdir -p "$TMPDIR"

fail() {
    echo "demo: $1" >&2
    for log in "$work"/linux-*.log; do
        echo "--- ${log##*/}" >&2
        tail -n 20 "$log" >&2
    done
    exit 1
}

# wait_for FILE TEXT [COUNT]: waits up to two minutes until FILE contains TEXT on that many lines.
wait_for() {
    local until=$((SECONDS + 120))
    until [ "$(grep -cF -- "$2" "$1" 2>/dev/null || true)" -ge "${3:-1}" ]; do
        [ $SECONDS -lt $until ] || fail "nobody said \"$2\""
        sleep 0.05
    done
}

# Suppresses the shell's message about a killed process; the transcript mentions it.
kill_hard() {
    {
        kill -9 "$1"
        wait "$1" || true
    } 2>/dev/null
}

hosts=()  # a process in the namespace of each host
on() {
    local host=$1
    shift
    nsenter -t "${hosts[$host]}" -n "$@"
}

# Host N has the address 10.9.0.N; its cable ends at port pN of the bridge, which is interface N of the daemon.
make_host() {
    local own
    own=$(readlink /proc/self/ns/net)
    unshare --net sleep infinity &
    hosts[$1]=$!
    until [ "$(readlink "/proc/${hosts[$1]}/ns/net")" != "$own" ]; do sleep 0.02; done
    ip link add "p$1" type veth peer name eth0 netns "${hosts[$1]}"
    ip link set "p$1" master br0 up
    on "$1" ip address add "10.9.0.$1/24" dev eth0
    on "$1" ip link set eth0 up
    echo "ifx $1 p$1" >>"$work/map"
}

start_daemon() {
    local keep=()
    [ -z "$state" ] || keep=(--state "$state")
    : >"$work/linux-sccd.log"
    "$sccd" "${keep[@]}" >"$work/linux-sccd.log" 2>&1 &
    daemon=$!
    wait_for "$work/linux-sccd.log" "sccd-dev: ready"
}

start_service() {
    : >"$work/linux-service.log"
    "$service" --map "$work/map" --report 1 --verbose >"$work/linux-service.log" 2>&1 &
    security=$!
    wait_for "$work/linux-service.log" "201 data recovery end: 0"
}

# The number of answers to COUNT pings from host 1 to host $1.
pings() {
    local answers
    answers=$(on 1 ping -q -c "$2" -i 0.02 -W 1 "10.9.0.$1" || true)
    grep -oE '[0-9]+ received' <<<"$answers" | grep -oE '^[0-9]+'
}

tcp() {
    # shellcheck disable=SC2016  # the inner shell expands it
    if on 1 timeout 2 bash -c 'exec 3<>/dev/tcp/10.9.0.2/8000 && read -r line <&3 && [ "$line" = hello ]' 2>/dev/null; then
        echo passes
    else
        echo fails
    fi
}

expect() {
    [ "$2" = "$3" ] || fail "$1: $2 instead of $3"
    printf '  %-46s %s\n' "$1" "$2"
}

counter_of() {
    "$ctl" --json counter "$@" --type 3 | grep -oE '"counter": ?[0-9]+' | grep -oE '[0-9]+$'
}

# Background commands ignore the interrupt, and ping keeps to it.
# An endless ping from host 1 to host $1, whose summary goes to linux-stream-$1.log when it is interrupted.
start_stream() {
    nsenter -t "${hosts[1]}" -n env --default-signal=INT ping -q -i 0.02 "10.9.0.$1" >"$work/linux-stream-$1.log" 2>&1 &
    streams+=("$!")
}
end_streams() {
    kill -INT "${streams[@]}"
    wait "${streams[@]}" || true
    streams=()
}
summary() { grep -oE '[0-9]+ packets transmitted, [0-9]+ received' "$work/linux-stream-$1.log"; }

# Nothing that is denied came through, nothing that is permitted was lost.
check_streams() {
    local sent received
    read -r sent _ _ received _ <<<"$(summary 2)"
    if [ "$sent" = 0 ] || [ "$received" != 0 ]; then
        fail "a packet that is denied passed: $(summary 2)"
    fi
    printf '  %-46s %s\n' "the stream that is denied, meanwhile:" "$(summary 2)"
    read -r sent _ _ received _ <<<"$(summary 3)"
    # The last requests may be on their way when the stream is interrupted.
    if [ "$received" = 0 ] || [ $((sent - received)) -gt 2 ]; then
        fail "a packet that is permitted was lost: $(summary 3)"
    fi
    printf '  %-46s %s\n' "the stream that is permitted:" "$(summary 3)"
}

streams=()
state=
if grep -q -- --state < <("$sccd" --help); then
    state=$work/state.json
fi
ip link set lo up
ip link add br0 type bridge
ip link set br0 up
for host in 1 2 3; do make_host "$host"; done
on 2 python3 -c '
import socket
server = socket.create_server(("10.9.0.2", 8000))
print("listening", flush=True)
while True:
    client = server.accept()[0]
    client.sendall(b"hello\n")
    client.close()
' >"$work/linux-server.log" 2>&1 &
wait_for "$work/linux-server.log" listening
start_daemon
start_service

echo "-- three hosts on a bridge, before there is a rule:"
expect "host 1 pings host 2, 10 times: answers" "$(pings 2 10)" 10
expect "host 1 pings host 3, 10 times: answers" "$(pings 3 10)" 10
expect "a TCP connection from host 1 to host 2" "$(tcp)" passes

cat >"$work/linux-rules.txt" <<RULES
acl 1 type 3
  10 deny icmp host 10.9.0.1 host 10.9.0.2
  20 deny tcp host 10.9.0.1 host 10.9.0.2 eq 8000
  30 permit icmp any any
  40 permit ip any any
apply 1 ifx 1
RULES
(cd "$work" && "$ctl" acl load linux-rules.txt)
echo "-- an application denies what host 1 sends to host 2:"
expect "host 1 pings host 2, 10 times: answers" "$(pings 2 10)" 0
expect "the kernel's counter of that rule" "$(counter_of ace 1 10)" 10
expect "host 1 pings host 3, 10 times: answers" "$(pings 3 10)" 10
expect "the kernel's counter of that rule" "$(counter_of ace 1 30)" 10
expect "a TCP connection from host 1 to host 2" "$(tcp)" fails
[ "$(counter_of ace 1 20)" -ge 1 ] || fail "the TCP connection was not counted"

echo "-- the service is killed and started again:"
start_stream 2
start_stream 3
kill_hard "$security"
sleep 0.3
start_service
end_streams
check_streams
[ "$(counter_of ace 1 10)" -gt 10 ] || fail "the counter was lost"
echo "  it adopted the kernel's rules; their counters went on"

if [ -n "$state" ]; then
    echo "-- the daemon is killed and started again with its state:"
    start_stream 2
    start_stream 3
    kill_hard "$daemon"
    start_daemon
    wait_for "$work/linux-service.log" "201 data recovery end: 0" 2
    end_streams
    check_streams
else
    echo "-- the daemon is killed; the new one knows nothing, and the application loads its rules again:"
    kill_hard "$daemon"
    start_daemon
    wait_for "$work/linux-service.log" "201 data recovery end: 0" 2
    (cd "$work" && "$ctl" acl load linux-rules.txt)
    expect "host 1 pings host 2, 5 times: answers" "$(pings 2 5)" 0
fi

echo "-- the application takes its rules back:"
"$ctl" acl unapply 1 --type 3 --ifx 1 >/dev/null
expect "host 1 pings host 2, 10 times: answers" "$(pings 2 10)" 10
expect "a TCP connection from host 1 to host 2" "$(tcp)" passes
kill "$security"
wait "$security" || fail "the service failed"
"$service" --flush
expect "tables that are left after --flush" "$(nft list tables 2>/dev/null | grep -c scclib || true)" 0
