#!/usr/bin/env bash
# An owner built on the client library keeps its type's schedules across
# restarts of the scheduler and of itself: the store follows every change,
# the scheduler gets the schedules back when it restarts, and a bad store
# is reported, moved aside and replaced by the backup.
set -uo pipefail

usage="usage: owner_store.sh ORVD ORV-TIME ORV-CLI PLUGIN DEFINITION OWNER"
orvd=${1:?$usage} time_bin=${2:?$usage} cli=${3:?$usage} plugin=${4:?$usage}
definition=${5:?$usage} owner_bin=${6:?$usage}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
export TZ=UTC LC_ALL=C
store=$work/light.json

cli() { timeout 10 "$cli" --bus "$addr" "$@"; }
call() { cli call Scheduler "$@"; }
owned() { timeout 10 bash -c "until busctl --address='$addr' status $1 &>/dev/null; do
    sleep 0.02; done"; }
# Waits, at most $2 seconds (default 10), for a condition of this shell.
until_true() {
    local deadline=$(($(date +%s%N) + ${2:-10} * 1000000000))
    until eval "$1"; do
        (($(date +%s%N) < deadline)) || return 1
        sleep 0.02
    done
}

start_orvd() {
    "$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" 2>>"$work/orvd.log" &
    daemon=$!
    pids+=("$daemon")
    owned org.orv.Scheduler || fail "orvd did not take its name"
}
start_owner() {
    "$owner_bin" "$addr" "$store" >>"$work/owner.out" 2>>"$work/owner.err" &
    owner=$!
    pids+=("$owner")
}
registered() { call getScheduleTypes | grep -q '"Light"'; }
# The schedules the scheduler holds, and those in the store, in one form.
held() { call getCompleteSchedules '{"type": "Light"}' | jq -S '.out.scheduleInfo | map(del(.value))'; }
stored() { jq -S '.schedules' "$store"; }
store_matches() { [[ -f $store && "$(held)" == "$(stored)" ]]; }
next_changes() { for id in evening "$@"; do
    cli get "Scheduler.Types.Light.Schedules.$id" | jq -r '.NextStateChange'; done; }

add() { # ID BASE BEGIN END [ENABLE]
    call addSchedule "{\"type\": \"Light\", \"info\": {\"ID\": \"$1\", \"enable\": ${5:-true},
        \"base\": \"$2\", \"def\": \"off\", \"override\": \"\",
        \"schedule\": [{\"state\": \"on\", \"begin\": $3, \"end\": $4}]}}" >/dev/null ||
        fail "cannot add $1"
}

start_bus
"$time_bin" --bus "$addr" --status Synchronized 2>"$work/time.log" &
pids+=("$!")
# The owner comes first and waits for the scheduler's name.
start_owner
until_true "grep -q 'waiting for the scheduler' '$work/owner.err'" || fail "the owner does not wait"
start_orvd
until_true registered || fail "the owner did not register its type"
# The example owner adds "evening" once registered.
until_true "grep -q '^evening: ' '$work/owner.out'" || fail "the owner got no state"

echo "changes through orv-cli reach the store after the change notice"
add morning Daily 21600 28800
add week Weekly 0 3600 false
add week Weekly 7200 9000 false # replaced
call overrideSchedule '{"type": "Light", "ID": "morning", "override": "on"}' >/dev/null
add noon Daily 43200 46800
add gone Hourly 0 60
call removeSchedules '{"type": "Light", "ID": ["gone"]}' >/dev/null
until_true store_matches 15 || fail "the store does not hold what the scheduler holds:
$(stored)
$(held)"
[[ $(jq '.schedules | length' "$store") == 4 ]] || fail "expected 4 stored schedules"
cp "$store" "$work/before.json"

echo "orvd killed and started again gets the schedules back from the owner"
# The schedules that plan a change: an override or a disabled schedule plans none.
before=$(next_changes noon)
kill -KILL "$daemon"
: >"$work/owner.out"
start_orvd
until_true registered 1 || fail "the owner did not register again within 1 s"
until_true store_matches || fail "the schedules did not come back"
after=$(next_changes noon)
[[ "$after" == "$before" ]] || fail "next changes differ after the restart: $before / $after"
# The enabled schedules' states are asserted again: the override holds "on".
until_true "grep -q '^morning: on$' '$work/owner.out' && grep -q '^evening: ' '$work/owner.out'" ||
    fail "the states were not asserted again"

echo "an owner killed and started again keeps the scheduler's newer schedules"
kill -KILL "$owner"
wait_exit "$owner"
add late Daily 79200 82800 # the owner is down: no store saw this
start_owner
until_true "grep -q '\"late\"' '$store'" || fail "the restarted owner did not save the scheduler's schedules"
until_true store_matches || fail "the store differs from the scheduler"

echo "both killed: the store brings every schedule back"
kill -KILL "$owner" "$daemon"
wait_exit "$owner"
cp "$store" "$work/good.json"
start_orvd
start_owner
until_true registered || fail "the owner did not register after both restarts"
until_true store_matches || fail "the schedules did not come back from the store"
[[ "$(stored)" == "$(jq -S '.schedules' "$work/good.json")" ]] || fail "schedules were lost"

echo "a garbage store is reported, moved aside and replaced by the backup"
kill -TERM "$owner"
wait_exit "$owner"
kill -KILL "$daemon"
printf '{"type": "Light", "schedules": [{"ID": tru' >"$store"
start_orvd
: >"$work/owner.err"
start_owner
until_true registered || fail "the owner did not start with a garbage store"
grep -q "store $store: line 1, column 4[0-9]: not valid JSON" "$work/owner.err" ||
    fail "no clear message for the garbage store"
ls "$store".corrupt-* >/dev/null 2>&1 || fail "the garbage store was not moved aside"
# The backup is the store before its last save: it held every schedule.
until_true "[[ \$(jq '.schedules | length' '$store' 2>/dev/null) == 5 ]]" ||
    fail "the backup's schedules did not come back"

echo "a refused stored schedule is kept as rejected"
kill -TERM "$owner"
wait_exit "$owner"
kill -KILL "$daemon"
# Of a form the store accepts, refused by the scheduler: an ID with a dot
# cannot name an instance of the data model.
jq '.schedules += [{"ID": "a.b", "enable": true, "base": "Daily", "def": "off",
    "override": "", "schedule": []}]' "$store" >"$work/next.json"
mv "$work/next.json" "$store"
start_orvd
: >"$work/owner.err"
start_owner
until_true "jq -e '.rejected | map(.schedule.ID) | index(\"a.b\")' '$store' >/dev/null" ||
    fail "the refused schedule was not kept as rejected: $(cat "$store")"
grep -q 'refused the stored schedule "a.b"' "$work/owner.err" || fail "the refusal was not logged"
until_true store_matches || fail "the accepted schedules are not stored"
echo "PASS"
