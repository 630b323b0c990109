#!/usr/bin/env bash
# Builds the default preset and measures the performance targets of the
# scheduler, then prints one table of figures, targets and verdicts:
#  - in process (bench/bench_scheduler, Google Benchmark through the virtual
#    host): the cost of each call and of a dispatched change at 100,000
#    schedules against 100, a full recomputation, and memory per schedule;
#  - on D-Bus (bench/orv-load against orvd on a private dbus-daemon, with
#    orv-time forced to Synchronized): lateness of changes, bursts of 1,000
#    and 10,000 changes due in one second against the bus routing as many
#    one-way calls between two native connections, addSchedule against a
#    bare Ping, how soon a started orvd owns its name, its resident memory
#    at rest (and, with --idle-seconds N, how often it wakes over N seconds
#    while nothing is due), and how soon orv-owner with 10,000 stored
#    schedules has been told all their states.
# Each D-Bus load gets a fresh orvd. Every process started here is stopped on
# the way out, also after a failure or Ctrl-C.
#
# Usage: scripts/bench.sh [--only inprocess|dbus] [--repetitions N]
#                         [--load NAME]... [--idle-seconds N]
# --load runs only the named D-Bus loads (lateness, burst, burst-10000,
# overhead, startup, idle, owner); without it all run.
#
# The exit code is 0 when every figure was measured, met or missed, and 1
# when a measurement could not be made.
set -euo pipefail
cd "$(dirname "$0")/.."

only=""
repetitions=3
idle_seconds=0
loads=()
usage="usage: scripts/bench.sh [--only inprocess|dbus] [--repetitions N] [--load NAME]... [--idle-seconds N]"
while (($#)); do
    case $1 in
    --only)
        only=${2:?--only needs inprocess or dbus}
        shift 2
        ;;
    --repetitions)
        repetitions=${2:?--repetitions needs a number}
        shift 2
        ;;
    --load)
        loads+=("${2:?--load needs the name of a D-Bus load}")
        shift 2
        ;;
    --idle-seconds)
        idle_seconds=${2:?--idle-seconds needs a number}
        shift 2
        ;;
    *)
        echo "$usage" >&2
        exit 2
        ;;
    esac
done

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default

bin=build/default
work=$(mktemp -d)
summary=$work/summary.tsv
: >"$summary"
pids=()
failed=0

forget() {
    local kept=() pid
    for pid in "${pids[@]}"; do
        [[ $pid == "$1" ]] || kept+=("$pid")
    done
    pids=("${kept[@]}")
}

stop_pid() {
    kill -TERM "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
    forget "$1"
}

# shellcheck disable=SC2317 # called by the trap
cleanup() {
    local status=$?
    trap - EXIT INT TERM
    # The latest first, so that orvd ends while its bus is still there.
    local i
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        kill -TERM "${pids[i]}" 2>/dev/null || true
        wait "${pids[i]}" 2>/dev/null || true
    done
    rm -rf "$work"
    exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Runs a command in the background and waits for it, so that a signal
# reaches the traps at once instead of after the command.
step() {
    "$@" &
    local pid=$! rc=0
    pids+=("$pid")
    wait "$pid" || rc=$?
    forget "$pid"
    return "$rc"
}

export TZ=UTC LC_ALL=C
# The plug-in's trace zone stays unregistered: tracing would be measured.
unset scheduler_plugin

echo "=== load average before: $(cut -d ' ' -f 1-3 /proc/loadavg)"

if [[ $only != dbus ]]; then
    echo "=== in process"
    step "$bin/bench/bench_scheduler" --benchmark_format=console \
        --benchmark_repetitions="$repetitions" --benchmark_display_aggregates_only=true \
        --benchmark_out="$work/inprocess.json" --benchmark_out_format=json \
        --summary="$summary" || {
        failed=1
        printf 'in-process benchmarks\t-\t-\tnot measured\n' >>"$summary"
    }
fi

# Waits at most 10 s for a bus name to get an owner.
await() {
    local _
    for _ in $(seq 100); do
        busctl --address="$addr" status "$1" >/dev/null 2>&1 && return 0
        sleep 0.1
    done
    echo "$1 did not appear on the bus" >&2
    return 1
}

# Waits at most 10 s for a bus name to lose its owner: the bus daemon may
# still be reading what an ended orvd sent last (after 10,000 schedules, a
# signal for each) when the next one asks for the name.
released() {
    local _
    for _ in $(seq 100); do
        busctl --address="$addr" status "$1" >/dev/null 2>&1 || return 0
        sleep 0.1
    done
    echo "$1 kept its owner" >&2
    return 1
}

show_log() {
    [[ -s $1 ]] && { echo "--- $1" >&2; tail -n 20 "$1" >&2; }
    return 0
}

# True when the D-Bus load NAME is to run.
wanted() {
    ((${#loads[@]} == 0)) || [[ " ${loads[*]} " == *" $1 "* ]]
}

# orv-load against no orvd, for the loads that start their own: NAME
# ORV-LOAD-OPTIONS...
bare() {
    local name=$1
    shift
    wanted "$name" || return 0
    echo "=== D-Bus: $name"
    released org.orv.Scheduler || failed=1
    if ! step "$bin/bench/orv-load" --bus "$addr" --summary "$summary" "$@"; then
        failed=1
        printf 'D-Bus %s\t-\t-\tnot measured\n' "$name" >>"$summary"
    fi
}

# One load against a fresh orvd, whose process orv-load gets as --pid: NAME
# ORV-LOAD-OPTIONS...
load() {
    local name=$1 orvd_pid
    shift
    wanted "$name" || return 0
    echo "=== D-Bus: $name"
    released org.orv.Scheduler || failed=1
    "${orvd[@]}" 2>"$work/orvd-$name.log" &
    orvd_pid=$!
    pids+=("$orvd_pid")
    if ! await org.orv.Scheduler ||
        ! step "$bin/bench/orv-load" --bus "$addr" --summary "$summary" --pid "$orvd_pid" "$@"; then
        failed=1
        printf 'D-Bus %s\t-\t-\tnot measured\n' "$name" >>"$summary"
        show_log "$work/orvd-$name.log"
    fi
    stop_pid "$orvd_pid"
}

if [[ $only != inprocess ]]; then
    dbus-daemon --session --nofork --print-address=3 3>"$work/address" 2>"$work/bus.log" &
    pids+=("$!")
    for _ in $(seq 100); do
        [[ -s $work/address ]] && break
        sleep 0.1
    done
    addr=$(head -n 1 "$work/address")
    "$bin/tools/orv-time" --bus "$addr" --status Synchronized 2>"$work/time.log" &
    pids+=("$!")
    await org.orv.Time

    orvd=("$bin/host/orvd" --bus "$addr" --plugin "$bin/plugin/scheduler_plugin.so"
        --definition definitions/scheduler.json --trace-level 0)

    load lateness --mode lateness --count 1000 --window 60
    load burst --mode burst --count 1000
    load burst-10000 --mode burst --count 10000 --lead 10
    load overhead --mode overhead --population 10000 --rounds 2000
    bare startup --mode startup --starts 9 -- "${orvd[@]}"
    load idle --mode idle --population 1000 --idle-seconds "$idle_seconds"
    load owner --mode owner --population 10000 --owner "$bin/tools/orv-owner"
fi

echo
echo "=== load average after: $(cut -d ' ' -f 1-3 /proc/loadavg)"
awk -F '\t' '
    BEGIN { split("figure value target verdict", head, " ") }
    {
        rows = NR
        for (i = 1; i <= 4; i++) {
            cell[NR, i] = $i
            if (length($i) > width[i]) width[i] = length($i)
        }
    }
    END {
        for (i = 1; i <= 4; i++) if (length(head[i]) > width[i]) width[i] = length(head[i])
        format = "%-" width[1] "s  %-" width[2] "s  %-" width[3] "s  %s\n"
        printf format, head[1], head[2], head[3], head[4]
        for (r = 1; r <= rows; r++) printf format, cell[r, 1], cell[r, 2], cell[r, 3], cell[r, 4]
    }' "$summary"

if grep -q $'\tnot measured$' "$summary"; then
    failed=1
fi
exit "$failed"
