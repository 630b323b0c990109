#!/usr/bin/env bash
# Nothing from outside ends or stalls the services by accident:
#  - SIGHUP, SIGUSR1, SIGUSR2 and SIGPIPE leave orvd, orv-time and orv-owner
#    running; SIGUSR1 logs a status line, SIGHUP opens a rotated log file
#    again and rereads the trace levels;
#  - a log whose reader went away, or stopped reading, neither ends orvd nor
#    keeps it from answering; the lines it could not write are counted, and
#    the count is written once the log is read again.
set -uo pipefail

usage="usage: signals.sh ORVD ORV-TIME ORV-CLI PLUGIN DEFINITION ORV-OWNER"
orvd=${1:?$usage} time_bin=${2:?$usage} cli=${3:?$usage} plugin=${4:?$usage}
definition=${5:?$usage} owner_bin=${6:?$usage}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
export TZ=UTC LC_ALL=C
unset scheduler_plugin

waited() { timeout 10 bash -c "until $1; do sleep 0.02; done"; }
ping_orvd() {
    timeout 10 busctl --address="$addr" call org.orv.Scheduler /Scheduler \
        org.freedesktop.DBus.Peer Ping >/dev/null
}
add() {
    timeout 10 "$cli" --bus "$addr" call Scheduler addSchedule "{\"type\": \"Light\",
        \"info\": {\"ID\": \"$1\", \"enable\": true, \"base\": \"Daily\", \"def\": \"off\",
        \"override\": \"\", \"schedule\": [{\"state\": \"on\", \"begin\": 0, \"end\": 60}]}}" \
        >/dev/null
}

start_bus
"$time_bin" --bus "$addr" --status Synchronized --log "$work/time.log" 2>"$work/time.err" &
time_pid=$!
pids+=("$time_pid")
echo "default 200" >"$work/levels"
"$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" --log "$work/orvd.log" \
    --trace-file "$work/levels" 2>"$work/orvd.err" &
orvd_pid=$!
pids+=("$orvd_pid")
printf '#!/bin/sh\nexit 0\n' >"$work/set"
chmod +x "$work/set"
"$owner_bin" --bus "$addr" --type Light --path Device.Light --states on,off \
    --store "$work/light.json" --log "$work/owner.log" --exec "$work/set" 2>"$work/owner.err" &
owner_pid=$!
pids+=("$owner_pid")
waited "busctl --address='$addr' status org.orv.Device &>/dev/null" || fail "the owner did not start"
add first || fail "addSchedule failed"

echo "SIGHUP, SIGUSR1, SIGUSR2 and SIGPIPE end none of them"
for name in orvd time owner; do
    pid_var=${name}_pid
    for signal in HUP USR1 USR2 PIPE; do
        kill -s "$signal" "${!pid_var}"
        sleep 0.1
        exited "${!pid_var}" && fail "SIGPIPE or another signal ended $name: $signal"
    done
    waited "grep -q 'status: ' '$work/$name.log'" || fail "$name wrote no status line on SIGUSR1"
    grep -q "reloaded: log $work/$name.log" "$work/$name.log" || fail "$name did not reload on SIGHUP"
done
grep -q "status: types 1, schedules 1, planned changes 1, next change 20" "$work/orvd.log" ||
    fail "orvd's status line lacks the scheduler's counts"
ping_orvd || fail "orvd does not answer after the signals"

echo "SIGHUP opens a rotated log again and rereads the trace levels"
mv "$work/orvd.log" "$work/orvd.log.1"
echo "scheduler_plugin 400" >"$work/levels"
kill -s HUP "$orvd_pid"
waited "[[ -s '$work/orvd.log' ]]" || fail "no new log after SIGHUP"
add second || fail "addSchedule failed"
waited "grep -q 'setState called for .Device.Light. with ID:.second.' '$work/orvd.log'" ||
    fail "the zone level from the trace file was not applied"
echo "default x" >"$work/levels"
kill -s HUP "$orvd_pid"
waited "grep -q 'line 1: the level .x. is not a number' '$work/orvd.log'" ||
    fail "a wrong trace file was not reported"
ping_orvd || fail "orvd does not answer after a wrong trace file"

stop_all() {
    for pid in "$owner_pid" "$orvd_pid"; do
        kill "$pid"
        wait_exit "$pid" || fail "a program did not stop"
    done
}
stop_all

# orvd with its standard error on a FIFO and every trace line on.
start_on_fifo() {
    rm -f "$work/fifo"
    mkfifo "$work/fifo"
    "$@" <"$work/fifo" >"$work/fifo.out" &
    reader=$!
    pids+=("$reader")
    scheduler_plugin=500 "$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" \
        --trace-level 500 2>"$work/fifo" &
    orvd_pid=$!
    pids+=("$orvd_pid")
    waited "busctl --address='$addr' status org.orv.Scheduler &>/dev/null" ||
        fail "orvd did not start"
    timeout 10 busctl --address="$addr" call org.orv.Scheduler /Scheduler org.orv.Object \
        registerScheduleType 'a{sv}' 3 type s Light path s Device.Light states av 2 s on s off \
        >/dev/null || fail "registerScheduleType failed"
}

echo "a log whose reader went away does not end orvd"
start_on_fifo head -c 1
add gone || fail "addSchedule failed"
wait_exit "$reader"
for i in $(seq 20); do add "gone$i" || fail "orvd stopped answering with its reader gone"; done
exited "$orvd_pid" && fail "orvd ended when its log's reader went away"
ping_orvd || fail "orvd does not answer with its reader gone"
kill "$orvd_pid"
wait_exit "$orvd_pid"

echo "a log nobody reads does not stall orvd, and the dropped lines are counted"
start_on_fifo cat
kill -s STOP "$reader"
# Every call traces a few lines with the ID: with an ID of 1,000 characters,
# enough to fill the pipe and the writer's queue many times over.
long=$(printf 'x%.0s' $(seq 1000))
for i in $(seq 300); do add "$long$i" || fail "orvd stalled on its log at call $i"; done
ping_orvd || fail "orvd does not answer while its log is not read"
kill -s CONT "$reader"
add after || fail "addSchedule failed"
kill "$orvd_pid"
wait_exit "$orvd_pid"
wait "$reader" 2>/dev/null
grep -Eq '^log: [0-9]+ lines were dropped while the log could not be written$' "$work/fifo.out" ||
    fail "the count of dropped lines was not written: $(grep -c '' "$work/fifo.out") lines read"
grep -q "ID:\[after\]" "$work/fifo.out" || fail "the log did not go on once it was read again"
echo "PASS"
