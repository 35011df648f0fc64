# Shared by the scripts that run the daemons: a runtime directory of their own, programs that end with the script,
# and waits for what they print.
# shellcheck shell=bash

running=()        # the processes that end with the script
wait_seconds=30   # how long wait_for waits
shown_logs="*.log" # in $work, of which fail shows the last lines

# make_runtime_directory NAME: sets $work to a new directory and $TMPDIR to one in it. When the script ends, so do
# the processes in $running, and the directory is removed, unless SCC_KEEP is set.
make_runtime_directory() {
    work=$(mktemp -d "/tmp/scclib-$1-XXXXXX")
    export TMPDIR=$work/1
    mkdir -p "$TMPDIR"
    trap end_everything EXIT
}

# use_build NAME PRESET: sets $build to that build's directory and $ctl to its sccctl, and makes a runtime directory.
use_build() {
    build=$PWD/build/$2
    # shellcheck disable=SC2034 # used by the scripts
    ctl=$build/devkit/ctl/sccctl
    make_runtime_directory "$1"
}

end_everything() {
    exec 2>/dev/null # suppresses the shell's messages about killed processes
    local pid
    for pid in "${running[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    [ -n "${SCC_KEEP:-}" ] || rm -rf "$work"
}

# fail TEXT: says what went wrong, with the last lines of the logs.
fail() {
    local log
    echo "$(basename "$0" .sh): $1" >&2
    # shellcheck disable=SC2231 # a pattern
    for log in "$work"/$shown_logs; do
        [ -e "$log" ] || continue
        echo "--- ${log##*/}" >&2
        tail -n 20 "$log" >&2
    done
    exit 1
}

# wait_for FILE TEXT [COUNT]: waits until FILE contains TEXT on that many lines.
wait_for() {
    local until=$((SECONDS + wait_seconds))
    until [ -e "$1" ] && [ "$(grep -caF -- "$2" "$1" || true)" -ge "${3:-1}" ]; do
        [ $SECONDS -lt $until ] || fail "nobody said \"$2\""
        sleep 0.05
    done
}

# start_program LOG TEXT COMMAND...: runs a command whose output goes to $work/LOG, and waits for this text in it.
# Its process is then $started.
start_program() {
    local log=$work/$1 ready=$2
    shift 2
    : >"$log"
    "$@" >"$log" 2>&1 &
    started=$!
    running+=("$started")
    wait_for "$log" "$ready"
}

# kill_hard PROCESS: suppresses the shell's message about a killed process.
kill_hard() {
    {
        kill -9 "$1"
        wait "$1" || true
    } 2>/dev/null
}
