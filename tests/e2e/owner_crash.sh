#!/usr/bin/env bash
# An owner killed with SIGKILL at random moments while it saves a store of
# about 1,000 schedules never leaves a broken or mixed store: after each kill
# the store parses and holds either the set it held before or the new one.
#
# Each round changes the scheduler's schedules while the owner is down, then
# starts the owner, which registers again, reads the newer schedules back and
# saves them, and kills it somewhere in that work.
set -uo pipefail

usage="usage: owner_crash.sh ORVD ORV-TIME ORV-CLI PLUGIN DEFINITION OWNER [ROUNDS]"
orvd=${1:?$usage} time_bin=${2:?$usage} cli=${3:?$usage} plugin=${4:?$usage}
definition=${5:?$usage} owner_bin=${6:?$usage} rounds=${7:-200}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
export TZ=UTC LC_ALL=C
store=$work/light.json

call() { timeout 20 "$cli" --bus "$addr" call Scheduler "$@"; }
held() { call getCompleteSchedules '{"type": "Light"}' | jq -S '.out.scheduleInfo | map(del(.value))'; }
stored() { jq -S '.schedules' "$store"; }
now_ms() { echo $(($(date +%s%N) / 1000000)); }

start_bus
"$time_bin" --bus "$addr" --status Synchronized 2>"$work/time.log" &
pids+=("$!")
"$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" 2>"$work/orvd.log" &
pids+=("$!")
timeout 10 bash -c "until busctl --address='$addr' status org.orv.Scheduler &>/dev/null; do
    sleep 0.02; done" || fail "orvd did not take its name"

# 1,000 Daily schedules of two spans each.
jq -n '{type: "Light", rejected: [], schedules: [range(1000) | {ID: "s\(.)", enable: true,
    base: "Daily", def: "off", override: "", schedule: [
    {state: "on", begin: (. * 80), end: (. * 80 + 40)},
    {state: "on", begin: (. * 80 + 50), end: (. * 80 + 70)}]}]}' >"$store"

"$owner_bin" "$addr" "$store" >/dev/null 2>"$work/owner.err" &
owner=$!
timeout 20 bash -c "until [[ \$(jq '.schedules | length' '$store' 2>/dev/null) == 1001 ]]; do
    sleep 0.01; done" || fail "the owner did not register its 1,000 schedules"
kill -KILL "$owner"
wait_exit "$owner"

# One start that runs to the end, to learn how long a start with its save
# takes: the kills fall at random moments over that span.
call enableSchedule '{"type": "Light", "ID": "s999", "enable": false}' >/dev/null
newer=$(held)
inode=$(stat -c %i "$store")
started=$(now_ms)
"$owner_bin" "$addr" "$store" >/dev/null 2>>"$work/owner.err" &
owner=$!
# A save renames a new file over the store: its inode changes.
until [[ $(stat -c %i "$store") != "$inode" ]]; do
    (($(now_ms) - started < 20000)) || fail "the owner did not save the newer schedules"
done
span=$(($(now_ms) - started + 5))
[[ $(stored) == "$newer" ]] || fail "the owner saved other schedules than the scheduler holds"
kill -KILL "$owner"
wait_exit "$owner"
echo "a start with its save takes up to ${span} ms; killing at random moments in it"

old=0 new=0 enabled=true
for ((round = 1; round <= rounds; round++)); do
    before=$(stored) || fail "round $round: the store does not parse before the round"
    # The owner is down: this change is the scheduler's alone.
    [[ $enabled == true ]] && enabled=false || enabled=true
    call enableSchedule "{\"type\": \"Light\", \"ID\": \"s$((round % 1000))\", \"enable\": $enabled}" \
        >/dev/null || fail "round $round: cannot change a schedule"
    newer=$(held)
    "$owner_bin" "$addr" "$store" >/dev/null 2>>"$work/owner.err" &
    owner=$!
    # A start may take longer than a second on a busy or sanitised build.
    delay=$((RANDOM % span))
    sleep "$(printf '%d.%03d' $((delay / 1000)) $((delay % 1000)))"
    kill -KILL "$owner"
    wait_exit "$owner" || fail "round $round: the owner did not die"
    after=$(stored) || fail "round $round: the store does not parse after a kill: $(head -c 300 "$store")"
    if [[ $after == "$newer" ]]; then
        new=$((new + 1))
    elif [[ $after == "$before" ]]; then
        old=$((old + 1))
    else
        fail "round $round: the store holds neither the old set nor the new one"
    fi
done
echo "$rounds kills: $old left the old set, $new the new one"
# Kills on both sides of the rename show that they fell during the work.
((old > 0 && new > 0)) || fail "the kills did not fall on both sides of the save"
echo "PASS"
