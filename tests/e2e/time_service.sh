#!/usr/bin/env bash
# Runs orv-time on a private D-Bus daemon and checks its bus interface, its
# exit codes and its reaction to signals and to losing the bus. Never touches
# the user's own session bus.
set -uo pipefail

bin=${1:?usage: time_service.sh PATH-TO-orv-time}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"

bctl() {
    timeout 10 busctl --address="$addr" "$@"
}

# Starts orv-time with the given options; its pid lands in $svc.
start_service() {
    "$bin" --bus "$addr" "$@" 2>"$work/service.log" &
    svc=$!
    pids+=("$svc")
    timeout 10 bash -c "until busctl --address='$addr' status org.orv.Time >/dev/null 2>&1; do
        sleep 0.05; done" || fail "orv-time $* did not take its name"
}

status() {
    bctl get-property org.orv.Time /Time org.orv.Object Status
}

set_status() {
    bctl call org.orv.Time /Time org.orv.Object setStatus 'a{sv}' 1 Status s "$1"
}

# Records the traffic of the running service in $work/monitor.out.
start_monitor() {
    bctl monitor org.orv.Time >"$work/monitor.out" 2>/dev/null &
    pids+=("$!")
    # The monitor is ready once it shows a call made after it started.
    timeout 10 bash -c "until grep -q 'Member=Get' '$work/monitor.out'; do
        busctl --address='$addr' get-property org.orv.Time /Time org.orv.Object Status >/dev/null
        sleep 0.1; done" || fail "busctl monitor did not start"
}

# Waits, at most 10 s, for a line matching the pattern in the monitor's output.
seen() {
    timeout 10 bash -c "until grep -Eq '$1' '$work/monitor.out'; do sleep 0.05; done"
}

stop_service() {
    kill -TERM "$svc"
    wait_exit "$svc" || fail "orv-time did not stop after SIGTERM"
    [[ $rc == 0 ]] || fail "orv-time exited $rc after SIGTERM, not 0"
    if bctl status org.orv.Time >/dev/null 2>&1; then
        fail "org.orv.Time is still owned after SIGTERM"
    fi
}

# Bad options and an unreachable bus.
check_command_line() {
    local rc=0
    "$bin" --status Bogus >/dev/null 2>"$work/options.log" || rc=$?
    [[ $rc == 2 ]] || fail "--status Bogus exited $rc, not 2"
    rc=0
    "$bin" --bus "unix:path=$work/no-such-socket" 2>"$work/nobus.log" || rc=$?
    [[ $rc == 1 ]] || fail "an unreachable bus gave exit $rc, not 1"
    grep -q "cannot connect" "$work/nobus.log" || fail "no message for an unreachable bus"
    rm -f "$work/options.log" "$work/nobus.log"
}

check_forced_mode() {
    start_service --status Unsynchronized
    [[ $(status) == 's "Unsynchronized"' ]] || fail "forced status reads $(status)"

    start_monitor

    [[ $(set_status Synchronized) == "va{sv} b true 0" ]] || fail "setStatus Synchronized refused"
    [[ $(status) == 's "Synchronized"' ]] || fail "Status is $(status) after setStatus"
    seen 'Member=PropertiesChanged' || fail "no PropertiesChanged after setStatus"

    [[ $(set_status Sometimes) == "va{sv} b false 0" ]] || fail "an invalid status was accepted"
    [[ $(status) == 's "Synchronized"' ]] || fail "an invalid status changed Status"
}

check_introspection() {
    local out
    out=$(bctl introspect org.orv.Time /Time) || fail "introspection failed"
    grep -q '^org\.orv\.Object ' <<<"$out" || fail "org.orv.Object is not listed"
    grep -Eq '^\.Status +property +s .*emits-change' <<<"$out" || fail "Status is not listed"
    grep -Eq '^\.setStatus +method +a\{sv\} +va\{sv\}' <<<"$out" || fail "setStatus is not listed"
    grep -Eq '^\.Notification +signal +ua\{sv\}' <<<"$out" || fail "Notification is not listed"
}

check_name_taken() {
    local rc=0
    "$bin" --bus "$addr" 2>"$work/second.log" || rc=$?
    [[ $rc == 1 ]] || fail "a second instance exited $rc, not 1"
    grep -q "org.orv.Time" "$work/second.log" || fail "no message when the name is taken"
    rm -f "$work/second.log"
}

check_auto_mode() {
    start_service
    [[ $(status) =~ ^s\ \"(Synchronized|Unsynchronized)\"$ ]] || fail "auto status reads $(status)"
    start_monitor
    set_status Synchronized >/dev/null 2>&1 && fail "setStatus succeeded in auto mode"
    seen 'ErrorName=org\.freedesktop\.DBus\.Error\.NotSupported' ||
        fail "setStatus in auto mode did not answer NotSupported"
}

check_bus_lost() {
    start_service --status Synchronized
    kill -TERM "$bus_pid"
    wait_exit "$svc" || fail "orv-time kept running without its bus"
    [[ $rc == 1 ]] || fail "orv-time exited $rc after losing the bus, not 1"
    grep -q "lost the connection" "$work/service.log" || fail "no message when the bus went away"
}

check_command_line
start_bus
check_forced_mode
check_introspection
check_name_taken
stop_service
check_auto_mode
stop_service
check_bus_lost
echo "PASS"
