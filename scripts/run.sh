#!/usr/bin/env bash
# The main job: builds the project, then runs the scheduler for real on D-Bus
# with the Time service and a demo client, and shows what happens.
#
# The demo client is the owner program orv-owner: it owns the type "Light"
# (states on and off) for the client object Device.Light, keeps the type's
# schedules in a store that outlives the run (build/demo-state/light.json, or
# $XDG_STATE_HOME/orv-scheduler-demo when that is set), and runs a command for
# each "setState". The first run adds an Hourly schedule that switches the
# light every 5 seconds and a Weekly one for the evenings; later runs find
# them in the store. It prints a simulation of the next two minutes, the
# address of the web console (orv-web, with its token) and each command the
# owner runs.
# Ctrl-C (or --for SECONDS) stops everything cleanly.
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
    # The owner first, so that it saves while the scheduler is there, then
    # the daemon, so that it cleans up while its bus is still there.
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
state=${XDG_STATE_HOME:+$XDG_STATE_HOME/orv-scheduler-demo}
state=${state:-build/demo-state}
mkdir -p "$state"
echo "The owner of the type Light keeps its schedules in $state/light.json."
# The command runs as argv, never through a shell: date prints the time it
# ran with the schedule's ID and state.
"$bin/tools/orv-owner" --bus "$bus" --type Light --path Device.Light --states on,off \
    --store "$state/light.json" --exec date "+client ran at %H:%M:%S.%3N: {ID} -> {state}" \
    2>"$run/owner.log" &
owner_pid=$!
await org.orv.Device
pids=("$owner_pid" "$orvd_pid" "$time_pid" ${bus_pid:+"$bus_pid"})

# The web console, on ORV_WEB_PORT (8080 unless set); its token stays beside
# the owner's store so that an open page keeps working across runs.
port=${ORV_WEB_PORT:-8080}
"$bin/web/orv-web" --bus "$bus" --listen "127.0.0.1:$port" --token-file "$state/web-token" \
    >"$run/web.out" 2>"$run/web.log" &
web_pid=$!
pids=("$web_pid" "${pids[@]}")
for _ in $(seq 50); do
    grep -q listening "$run/web.out" 2>/dev/null && break
    kill -0 "$web_pid" 2>/dev/null || break
    sleep 0.1
done
if grep -q listening "$run/web.out" 2>/dev/null; then
    echo "The web console: http://127.0.0.1:$port/#token=$(head -n 1 "$state/web-token")"
else
    echo "The web console did not start (port $port taken? set ORV_WEB_PORT): $(cat "$run/web.log")"
fi

if cli call Scheduler getSchedule '{"type": "Light", "ID": "blink"}' 2>/dev/null |
    grep -q '"return":true'; then
    echo "The schedule \"blink\" came back from the store:"
    cli get Scheduler.Types.Light.Schedules.blink
else
    # Hourly entries count seconds from the start of the local hour: "on"
    # for 5 s out of every 10, the first one starting 3 s from now.
    now=$((10#$(date +%M) * 60 + 10#$(date +%S)))
    entries=$(awk -v first=$(((now + 3) % 10)) 'BEGIN {
        for (b = first; b + 5 < 3600; b += 10)
            printf "%s{\"state\": \"on\", \"begin\": %d, \"end\": %d}", (b == first ? "" : ","), b, b + 5
    }')
    echo "Adding the Hourly schedule \"blink\" (on 5 s out of every 10):"
    cli call Scheduler addSchedule "{\"type\": \"Light\", \"info\": {\"ID\": \"blink\",
        \"enable\": true, \"base\": \"Hourly\", \"def\": \"off\", \"override\": \"\",
        \"schedule\": [$entries]}}"
fi
if ! cli call Scheduler getSchedule '{"type": "Light", "ID": "evening"}' >/dev/null 2>&1; then
    echo "Adding the Weekly schedule \"evening\", to see and edit in the console:"
    cli schedule add Light evening 'Mon-Fri 18:00-23:00 on; Sat,Sun 09:00-23:30 on; default off'
fi

start=$(date -u +%Y-%m-%dT%H:%M:%SZ)
stop_at=$(date -u -d "+2 minutes" +%Y-%m-%dT%H:%M:%SZ)
echo "Simulation of the next two minutes:"
cli call Scheduler simulateSchedule \
    "{\"type\": \"Light\", \"ID\": \"blink\", \"start\": \"$start\", \"stop\": \"$stop_at\"}" |
    sed -e 's/^{"return":\["//' -e 's/"\],"out":{}}$//' -e 's/","/\n  /g' -e 's/^/  /'

echo
echo "Each command the owner runs for a setState appears below. Ctrl-C stops; run"
echo "this again and the schedule comes back from the store."
if [[ -n $duration ]]; then
    sleep "$duration"
else
    wait "$orvd_pid"
fi
