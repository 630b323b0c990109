#!/usr/bin/env bash
# orv-cli schedule add|show|next|svg on a private bus, with the clock given by
# --now and TZ fixed, so that every output can be compared with the files in
# expected/. Set UPDATE_EXPECTED=1 to write them instead.
set -uo pipefail

usage="usage: cli_schedule.sh ORVD ORV-TIME ORV-CLI PLUGIN DEFINITION"
orvd=${1:?$usage} time_bin=${2:?$usage} cli_bin=${3:?$usage} plugin=${4:?$usage}
definition=${5:?$usage}
expected=$(cd "$(dirname "$0")/expected" && pwd)
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
export TZ=Europe/Berlin LC_ALL=C
now=--now=2026-11-24T13:05:00Z # Tuesday 14:05 in Berlin

# Runs orv-cli; its output lands in $work/NAME.out and .err, its code in rc.
cli() {
    local name=$1
    shift
    rc=0
    timeout 10 "$cli_bin" --bus "$addr" "$@" >"$work/$name.out" 2>"$work/$name.err" || rc=$?
}
same() {
    if [[ -n ${UPDATE_EXPECTED:-} ]]; then
        cp "$work/$1" "$expected/$2"
        return
    fi
    diff -u "$expected/$2" "$work/$1" >&2 || fail "$1 differs from expected/$2"
}

start_bus
"$time_bin" --bus "$addr" --status Synchronized 2>"$work/time.log" &
pids+=("$!")
"$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" 2>"$work/orvd.log" &
pids+=("$!")
timeout 10 bash -c "until busctl --address='$addr' status org.orv.Scheduler &>/dev/null; do
    sleep 0.05; done" || fail "orvd did not start"
cli register call Scheduler registerScheduleType \
    '{"type": "Light", "path": "Device.Light", "states": ["on", "off", "eco"]}'

echo "add: the text form in, the canonical text out; bad text never reaches the bus"
cli add schedule add Light evening \
    'Sat,Sun 09:00-23:30 eco; Mon-Fri 18:00-23:00 on, 07:00-08:30 on; default off'
((rc == 0)) || fail "add exited $rc: $(cat "$work/add.err")"
same add.out schedule_add.out
cli hourly schedule add Light chime --disabled ':00-:15 on, :30-:45 on; default off'
cli bad schedule add Light broken 'Mon-Fri 07:00-08:3x on; default off'
((rc == 2)) || fail "bad text exited $rc, not 2"
same bad.err schedule_add_bad.err
cli dim schedule add Light dim 'Mon 07:00-08:00 dim; default off'
((rc == 2)) || fail "an unknown state exited $rc, not 2"
grep -q 'the state "dim" is not one of on, off, eco' "$work/dim.err" || fail "no reason for dim"
cli nothing schedule show Light broken
((rc == 1)) || fail "a refused text still reached the scheduler"

echo "a call the scheduler refuses: its reason on standard error, exit 1"
cli refused call Scheduler enableSchedule '{"type": "Light", "ID": "evening"}'
((rc == 1)) || fail "a refused call exited $rc, not 1"
grep -qx "orv-cli: Scheduler.enableSchedule refused: 'enable' is missing" "$work/refused.err" ||
    fail "no reason on standard error: $(cat "$work/refused.err")"
grep -qF '{"return":false,"out":{"error":"'"'"'enable'"'"' is missing"}}' "$work/refused.out" ||
    fail "the answer lacks its error: $(cat "$work/refused.out")"

echo "show, next and their JSON"
cli show schedule show Light "$now"
same show.out schedule_show.out
cli next schedule next Light evening --count 5 "$now"
same next.out schedule_next.out
cli json schedule show Light evening --json "$now"
jq -e '.[0].state == "off" and (.[0].grid | length) == 10 and .[0].changes[0].state == "on"' \
    "$work/json.out" >/dev/null || fail "show --json: $(cat "$work/json.out")"

echo "colour only on a terminal, and never with NO_COLOR"
grep -q $'\033' "$work/show.out" && fail "colour went to a file"
script -qec "'$cli_bin' --bus '$addr' schedule show Light evening $now" /dev/null >"$work/tty.out"
grep -q $'\033\\[48;5;' "$work/tty.out" || fail "no colour on a terminal"
NO_COLOR=1 script -qec "'$cli_bin' --bus '$addr' schedule show Light evening $now" /dev/null \
    >"$work/nocolour.out"
grep -q $'\033' "$work/nocolour.out" && fail "colour despite NO_COLOR"

echo "svg"
cli svg schedule svg Light evening "$now" -o "$work/evening.svg"
((rc == 0)) || fail "svg exited $rc: $(cat "$work/svg.err")"
xmllint --noout "$work/evening.svg" || fail "the SVG is not valid XML"
rsvg-convert "$work/evening.svg" -o "$work/evening.png" && [[ -s $work/evening.png ]] ||
    fail "the SVG does not render"
cli svg_hourly schedule svg Light chime
((rc == 2)) || fail "an Hourly schedule got a week picture"
echo "PASS"
