#!/usr/bin/env bash
# The main job: builds the project, then runs the scheduler for real on D-Bus
# with the Time service and a demo client, and shows what happens.
#
# It registers the type "Light" (states on and off) for the client object
# Device.Light and an Hourly schedule that switches the light every 5 seconds,
# prints each "setState" call as the client receives it, and prints a
# simulation of the next two minutes. Ctrl-C (or --for SECONDS) stops
# everything cleanly.
#
# It uses the session bus when one is reachable, and otherwise a private
# dbus-daemon of its own.
set -euo pipefail
cd "$(dirname "$0")/.."

duration=""
if [[ ${1:-} == --for ]]; then
    duration=${2:?--for needs a number of seconds}
fi

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default

bin=build/default
run=$(mktemp -d)
pids=()

stop() {
    trap - INT TERM EXIT
    echo
    echo "Stopping."
    # The daemon first, so that it cleans up while its bus is still there.
    for pid in "${pids[@]}"; do
        kill -TERM "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$run"
    exit 0
}
trap stop INT TERM EXIT

# Waits at most 10 s for a bus name to get an owner.
await() {
    for _ in $(seq 100); do
        busctl --address="$bus" status "$1" >/dev/null 2>&1 && return 0
        sleep 0.1
    done
    echo "$1 did not appear on the bus; see $run/*.log" >&2
    exit 1
}

if [[ -n ${DBUS_SESSION_BUS_ADDRESS:-} ]] &&
    busctl --address="$DBUS_SESSION_BUS_ADDRESS" status >/dev/null 2>&1; then
    bus=$DBUS_SESSION_BUS_ADDRESS
    echo "Using the session bus."
else
    dbus-daemon --session --nofork --print-address=3 3>"$run/address" 2>"$run/bus.log" &
    bus_pid=$!
    for _ in $(seq 100); do
        [[ -s "$run/address" ]] && break
        sleep 0.1
    done
    bus=$(head -n 1 "$run/address")
    echo "No session bus: started a private one at $bus"
fi

cli() {
    "$bin/tools/orv-cli" --bus "$bus" "$@"
}

# Started in this order and stopped in the reverse one (see stop).
"$bin/host/orvd" --bus "$bus" --plugin "$bin/plugin/scheduler_plugin.so" \
    --definition definitions/scheduler.json 2>"$run/orvd.log" &
orvd_pid=$!
await org.orv.Scheduler
"$bin/tools/orv-time" --bus "$bus" --status Synchronized 2>"$run/time.log" &
time_pid=$!
await org.orv.Time
cli serve Device.Light 2>"$run/client.log" > >(sed -u 's/^/client received: /') &
client_pid=$!
await org.orv.Device
pids=("$orvd_pid" "$client_pid" "$time_pid" ${bus_pid:+"$bus_pid"})

echo "Registering the type Light for Device.Light:"
cli call Scheduler registerScheduleType \
    '{"type": "Light", "path": "Device.Light", "states": ["on", "off"]}'

# Hourly entries count seconds from the start of the local hour: "on" for
# 5 s out of every 10, the first one starting 3 s from now.
now=$((10#$(date +%M) * 60 + 10#$(date +%S)))
entries=$(awk -v first=$(((now + 3) % 10)) 'BEGIN {
    for (b = first; b + 5 < 3600; b += 10)
        printf "%s{\"state\": \"on\", \"begin\": %d, \"end\": %d}", (b == first ? "" : ","), b, b + 5
}')
echo "Adding the Hourly schedule \"blink\" (on 5 s out of every 10):"
cli call Scheduler addSchedule "{\"type\": \"Light\", \"info\": {\"ID\": \"blink\",
    \"enable\": true, \"base\": \"Hourly\", \"def\": \"off\", \"override\": \"\",
    \"schedule\": [$entries]}}"

start=$(date -u +%Y-%m-%dT%H:%M:%SZ)
stop_at=$(date -u -d "+2 minutes" +%Y-%m-%dT%H:%M:%SZ)
echo "Simulation of the next two minutes:"
cli call Scheduler simulateSchedule \
    "{\"type\": \"Light\", \"ID\": \"blink\", \"start\": \"$start\", \"stop\": \"$stop_at\"}" |
    sed -e 's/^{"return":\["//' -e 's/"\],"out":{}}$//' -e 's/","/\n  /g' -e 's/^/  /'

echo "The schedule as the bus shows it:"
cli get Scheduler.Types.Light.Schedules.blink
echo
echo "Each setState call appears below as the client receives it. Ctrl-C stops."
if [[ -n $duration ]]; then
    sleep "$duration"
else
    wait "$orvd_pid"
fi
