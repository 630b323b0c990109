#!/usr/bin/env bash
# orv-owner runs its command for each state with the right arguments, never
# through a shell; a state that is not one of the type's is refused by the
# scheduler before anything runs; a hanging command is killed at its time-out and the owner
# goes on serving. The options come from the packaged example config, with
# the command line overriding some of them.
set -uo pipefail

usage="usage: owner_exec.sh ORVD ORV-TIME ORV-CLI PLUGIN DEFINITION ORV-OWNER CONFIG"
orvd=${1:?$usage} time_bin=${2:?$usage} cli=${3:?$usage} plugin=${4:?$usage}
definition=${5:?$usage} owner_bin=${6:?$usage} config=${7:?$usage}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
export TZ=UTC LC_ALL=C

call() { timeout 10 "$cli" --bus "$addr" call Scheduler "$@"; }
waited() { timeout 10 bash -c "until $1; do sleep 0.02; done"; }

# The device's tool: records its arguments, one line per run, and hangs
# when asked to.
cat >"$work/light-set" <<EOF
#!/bin/sh
[ -f "$work/hang" ] && [ "\$2" = --state=on ] && sleep 30
printf '%s|' "\$@" >>"$work/args"
echo >>"$work/args"
EOF
chmod +x "$work/light-set"
: >"$work/args"

start_bus
"$time_bin" --bus "$addr" --status Synchronized 2>"$work/time.log" &
pids+=("$!")
"$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" 2>"$work/orvd.log" &
pids+=("$!")
"$owner_bin" --config "$config" --bus "$addr" --store "$work/light.json" --timeout 1 \
    --exec "$work/light-set" "{ID}" "--state={state}" 2>"$work/owner.log" &
owner=$!
pids+=("$owner")
waited "busctl --address='$addr' status org.orv.Device &>/dev/null" || fail "the owner did not start"

echo "the command runs with the substituted arguments"
# On for one second a year, so that the present state is known: "off".
call addSchedule '{"type": "Light", "info": {"ID": "porch light", "enable": true,
    "base": "Yearly", "def": "off", "override": "",
    "schedule": [{"state": "on", "begin": 0, "end": 1}]}}' >/dev/null
waited "grep -qx 'porch light|--state=off|' '$work/args'" || fail "the command did not run: $(cat "$work/args")"

echo "a state that is not one of the type's runs nothing"
runs=$(wc -l <"$work/args")
refusals=$({
    call overrideState "{\"type\": \"Light\", \"ID\": \"porch light\",
        \"State\": \"on; touch $work/pwned\"}"
    call overrideState '{"type": "Light", "ID": "porch light", "State": "$(reboot)"}'
} 2>&1)
[[ $(grep -c "^orv-cli: Scheduler.overrideState refused: state .* is not a state of type 'Light'$" \
    <<<"$refusals") == 2 ]] ||
    fail "the states were not refused: $refusals"
sleep 0.5
[[ ! -e $work/pwned && $(wc -l <"$work/args") == "$runs" ]] || fail "a refused state ran something"

echo "a hanging command is killed at its time-out and the owner goes on"
touch "$work/hang"
call overrideSchedule '{"type": "Light", "ID": "porch light", "override": "on"}' >/dev/null
call overrideSchedule '{"type": "Light", "ID": "porch light", "override": "off"}' >/dev/null
waited "grep -q 'killed at its time-out of 1000 ms' '$work/owner.log'" || fail "the hanging command was not killed"
waited "[[ \$(grep -c 'porch light|--state=off|' '$work/args') == $((runs + 1)) ]]" ||
    fail "the state after the hanging command did not run"
grep -q '"porch light" -> off: exited 0 after' "$work/owner.log" || fail "the exit status was not logged"

echo "SIGTERM stops it cleanly"
kill -TERM "$owner"
wait_exit "$owner" || fail "the owner did not stop"
((rc == 0)) || fail "the owner exited $rc on SIGTERM"
echo "PASS"
