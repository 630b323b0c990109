#!/usr/bin/env bash
# orv-web's HTTP API against orvd, orv-time and a served client on a private
# bus: every endpoint, every error status, the token, the body limit, paths
# and headers that try to escape, and a scheduler that goes away and comes
# back.
set -uo pipefail

usage="usage: web_api.sh ORVD ORV-TIME ORV-CLI PLUGIN DEFINITION ORV-WEB"
orvd=${1:?$usage} time_bin=${2:?$usage} cli=${3:?$usage} plugin=${4:?$usage}
definition=${5:?$usage} web=${6:?$usage}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
export TZ=Europe/Berlin LC_ALL=C

start_orvd() {
    "$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" 2>>"$work/orvd.log" &
    orvd_pid=$!
    pids+=("$orvd_pid")
    timeout 10 bash -c "until busctl --address='$addr' status org.orv.Scheduler &>/dev/null; do
        sleep 0.05; done" || fail "orvd did not start"
    "$cli" --bus "$addr" call Scheduler registerScheduleType \
        '{"type": "Light", "path": "Device.Light", "states": ["on", "off", "eco"]}' >/dev/null ||
        fail "the type was not registered"
}

# req METHOD PATH [BODY] [TOKEN]: the status lands in $status, the body in
# $work/body, the headers in $work/headers.
req() {
    local args=(-s --path-as-is -o "$work/body" -D "$work/headers" -w '%{http_code}' -X "$1")
    [[ -n ${3:-} ]] && args+=(--data-binary "$3")
    status=$(curl "${args[@]}" -H "Authorization: Bearer ${4-$token}" "$url$2") ||
        fail "curl $1 $2 failed"
}
# expect STATUS METHOD PATH [BODY] [JQ-CONDITION] [TOKEN]
expect() {
    req "$2" "$3" "${4:-}" "${@:6}"
    [[ $status == "$1" ]] || fail "$2 $3 answered $status, not $1: $(cat "$work/body")"
    if [[ -n ${5:-} ]]; then
        jq -e "$5" "$work/body" >/dev/null || fail "$2 $3: not $5 in $(cat "$work/body")"
    fi
}
bus_schedule() {
    "$cli" --bus "$addr" call Scheduler getSchedule "{\"type\": \"Light\", \"ID\": \"$1\"}"
}

start_bus
start_time_and_client
start_orvd

echo "first start: a random token is written with mode 0600"
"$web" --bus "$addr" --listen 127.0.0.1:0 --token-file "$work/token" >"$work/web.out" \
    2>"$work/web.log" &
web_pid=$!
pids+=("$web_pid")
timeout 10 bash -c "until grep -q listening '$work/web.out'; do sleep 0.05; done" ||
    fail "orv-web did not start"
url=$(sed -n 's|^listening on \(http://[^/]*\)/$|\1|p' "$work/web.out")
[[ $(stat -c %a "$work/token") == 600 ]] || fail "the token file is not mode 0600"
token=$(head -n 1 "$work/token")
((${#token} >= 32)) || fail "the token is too short: $token"

echo "the token: none, another, or in another form is refused"
for wrong in "" "x$token" "${token:1}" "${token}0" "$(tr a-f A-F <<<"$token")"; do
    expect 401 GET /api/types "" '.error | test("token")' "$wrong"
done
req GET /api/types "" "$token"
[[ $status == 200 ]] || fail "the right token was refused"
status=$(curl -s -o /dev/null -w '%{http_code}' -H "Authorization: bearer $token" "$url/api/types")
[[ $status == 401 ]] || fail "a token without the Bearer scheme got $status"

echo "the page is served without a token, with its security headers"
for asset in / /console.js /console.css; do
    status=$(curl -s -o /dev/null -D "$work/headers" -w '%{http_code}' "$url$asset")
    [[ $status == 200 ]] || fail "$asset answered $status"
    grep -qi "^Content-Security-Policy: default-src 'self'" "$work/headers" ||
        fail "$asset has no Content-Security-Policy"
done

echo "add and replace, from text and from JSON"
expect 200 PUT /api/types/Light/schedules/evening \
    '{"text": "Mon-Fri 18:00-23:00 on; default off"}' \
    '.base == "Weekly" and .text == "weekly: Mon-Fri 18:00-23:00 on; default off"'
bus_schedule evening | jq -e '.out.scheduleInfo.schedule | length == 5' >/dev/null ||
    fail "the bus does not hold the five spans"
expect 200 PUT /api/types/Light/schedules/chime \
    '{"base": "Hourly", "default": "off", "entries": [{"begin": 0, "end": 900, "state": "on"}]}' \
    '.grid == null and (.upcoming | length) > 0 and .upcoming[0].state != null'
expect 200 PUT /api/types/Light/schedules/evening '{"text": "daily: 06:30-07:00 eco"}' \
    '.default == "off" and .entries == [{"begin": 23400, "end": 25200, "state": "eco"}]'
bus_schedule evening | jq -e '.out.scheduleInfo.schedule[0].begin == 23400' >/dev/null ||
    fail "the replacement did not reach the bus"

echo "read back: types, a type, a schedule, its text and its picture"
expect 200 GET /api/types '.types[0].name == "Light" and (.types[0].schedules | length) == 2'
expect 200 GET /api/types/Light '.states == ["on", "off", "eco"]'
expect 200 GET /api/types/Light/schedules/evening \
    '.current != null and (.grid.cells | length) == 7 and (.grid.cells[0] | length) == 48'
req GET /api/types/Light/schedules/evening/text
[[ $status == 200 && $(cat "$work/body") == "daily: 06:30-07:00 eco; default off" ]] ||
    fail "text answered $status: $(cat "$work/body")"
req GET /api/types/Light/schedules/evening/week.svg
[[ $status == 200 ]] && xmllint --noout "$work/body" || fail "week.svg is not an SVG"

echo "control: enable, override, temporary override"
expect 200 POST /api/types/Light/schedules/evening/enable '{"enable": false}' '.enabled == false'
expect 200 POST /api/types/Light/schedules/evening/enable '{"enable": true}' '.enabled == true'
expect 200 POST /api/types/Light/schedules/evening/override '{"state": "on"}' '.override == "on"'
expect 200 POST /api/types/Light/schedules/evening/override '{"state": ""}' '.override == ""'
expect 200 POST /api/types/Light/schedules/evening/override-state '{"state": "eco"}' \
    '.temporary == true and .current == "eco"'
expect 200 PUT /api/types/Light/schedules/kept '{"text": "daily: 01:00-02:00 on; default off",
    "enabled": false, "override": "eco"}' '.enabled == false and .override == "eco"'
expect 200 PUT /api/types/Light/schedules/kept '{"text": "daily: 03:00-04:00 on"}' \
    '.enabled == false and .override == "eco"'

echo "simulation of one schedule and of all"
expect 200 GET "/api/types/Light/schedules/evening/simulation?start=2026-11-24T00:00:00Z&stop=2026-11-25T00:00:00Z" \
    '.state == "off" and .changes[0].time == "2026-11-24T05:30:00Z" and .changes[0].state == "eco"'
expect 200 GET "/api/simulation?start=2026-11-24T00:00:00Z&stop=2026-11-25T00:00:00Z" \
    '(.lines | length) > 2'

echo "bad input: 400, with the column of a text's error"
table=(
    "PUT|/api/types/Light/schedules/x|{\"text\": \"Mon 07:00-08:3x on; default off\"}|.column == 11"
    "PUT|/api/types/Light/schedules/x|{\"text\": \"Mon 07:00-08:00 dim; default off\"}|.error | test(\"dim\")"
    "PUT|/api/types/Light/schedules/x|{\"text\": \"Mon 07:00-08:00 on\"}|.error | test(\"default\")"
    "PUT|/api/types/Light/schedules/x|not json|.error | test(\"JSON\")"
    "PUT|/api/types/Light/schedules/x|{\"base\": \"Weekly\"}|.error | test(\"default\")"
    "PUT|/api/types/Light/schedules/x|{\"base\": \"Fortnightly\", \"default\": \"off\"}|.error | test(\"base\")"
    "PUT|/api/types/Light/schedules/x|{\"base\": \"Daily\", \"default\": \"off\", \"entries\": [{\"begin\": 0, \"end\": 90000, \"state\": \"on\"}]}|.error != null"
    "PUT|/api/types/Light/schedules/x|{\"text\": \"daily: 01:00-02:00 on; default off\", \"enabled\": \"yes\"}|.error | test(\"enabled\")"
    "PUT|/api/types/Light/schedules/a.b|{\"text\": \"daily: 01:00-02:00 on; default off\"}|.error | test(\"ID\")"
    "POST|/api/types/Light/schedules/evening/enable|{}|.error | test(\"enable\")"
    "POST|/api/types/Light/schedules/evening/override-state|{\"state\": \"dim\"}|.error != null"
    "GET|/api/types/Light/schedules/evening/simulation?start=yesterday||.error | test(\"start\")"
    "GET|/api/types/Light/schedules/x%zz||.error | test(\"escape\")"
)
for row in "${table[@]}"; do
    IFS='|' read -r method path body condition <<<"$row"
    expect 400 "$method" "$path" "$body" "$condition"
done
bus_schedule x >/dev/null 2>&1 && fail "a refused schedule reached the bus"

echo "unknown things: 404; methods a path does not take: 405"
expect 404 GET /api/types/Nope '.error | test("Nope")'
expect 404 PUT /api/types/Nope/schedules/x '{"text": "daily: 01:00-02:00 on; default off"}'
expect 404 GET /api/types/Light/schedules/none '.error | test("none")'
expect 404 POST /api/types/Light/schedules/none/enable '{"enable": true}'
expect 404 GET /api/types/Light/schedules/chime/week.svg
expect 404 GET /api/nothing
expect 405 POST /api/types '{}'
expect 405 DELETE /api/types/Light

echo "paths that try to leave the API never reach a file"
for path in /../../../etc/passwd /console.js/../../etc/passwd /%2e%2e/%2e%2e/etc/passwd \
    /api/types/..%2F..%2F..%2Fetc%2Fpasswd /api/../../etc/passwd /etc/passwd; do
    req GET "$path"
    [[ $status == 404 ]] || fail "$path answered $status"
    grep -q root: "$work/body" && fail "$path served a system file"
done

echo "headers cannot be injected through names"
for path in "/api/types/Light%0d%0aSet-Cookie:%20x=1" \
    "/api/types/Light/schedules/a%0d%0aSet-Cookie:%20x=1"; do
    expect 400 GET "$path" "" '.error | test("control")'
    grep -qi '^Set-Cookie' "$work/headers" && fail "$path set a header"
done

echo "an over-long body: 413, and the scheduler never sees it"
head -c 70000 /dev/zero | tr '\0' a >"$work/big"
status=$(curl -s -o "$work/body" -w '%{http_code}' -X PUT --data-binary @"$work/big" \
    -H "Authorization: Bearer $token" "$url/api/types/Light/schedules/big")
[[ $status == 413 ]] || fail "an over-long body answered $status"
jq -e '.error | test("64 KiB")' "$work/body" >/dev/null || fail "413 without a reason"

echo "live events: a state change, a removal, the scheduler leaving and coming back"
curl -s -N -H "Authorization: Bearer $token" "$url/api/events" >"$work/events" &
pids+=("$!")
seen_event() { timeout 10 bash -c "until grep -q '$1' '$work/events'; do sleep 0.05; done"; }
seen_event '"present":true' || fail "the stream did not start with the scheduler's presence"
expect 200 POST /api/types/Light/schedules/evening/override-state '{"state": "on"}'
seen_event '"CurrentState":"on"' || fail "no event for the state change"
expect 200 DELETE /api/types/Light/schedules/chime '.removed == "chime"'
expect 404 DELETE /api/types/Light/schedules/chime
seen_event 'event: removed' || fail "no event for the removal"

kill "$orvd_pid"
wait_exit "$orvd_pid" || fail "orvd did not stop"
seen_event '"present":false' || fail "no event for the scheduler leaving"
expect 502 GET /api/types '.error | test("not on the bus")'
expect 502 PUT /api/types/Light/schedules/x '{"text": "daily: 01:00-02:00 on; default off"}'
start_orvd
timeout 10 bash -c "until (( \$(grep -c '\"present\":true' '$work/events') >= 2 )); do
    sleep 0.05; done" || fail "no event for the scheduler coming back"
expect 200 GET /api/types '.types[0].name == "Light"'

echo "connections: a hundred silent clients cost no more than the pool holds"
fds() { find "/proc/$web_pid/fd" -mindepth 1 | wc -l; }
before=$(fds)
port=${url##*:}
# The holder opens its connections, waits until every one the kernel lets
# through is connected, says so, and keeps them silent a while longer.
python3 -c '
import select, socket, sys, time
held = []
for _ in range(100):
    s = socket.socket()
    s.setblocking(False)
    s.connect_ex(("127.0.0.1", int(sys.argv[1])))
    held.append(s)
pending, deadline = list(held), time.time() + 3
while pending and time.time() < deadline:
    _, writable, _ = select.select([], pending, [], 0.1)
    pending = [s for s in pending if s not in writable]
open(sys.argv[2], "w").write("%d\n" % (len(held) - len(pending)))
time.sleep(2)
' "$port" "$work/connected" &
holder=$!
timeout 10 bash -c "until [[ -s '$work/connected' ]]; do sleep 0.05; done" ||
    fail "the idle clients did not connect"
# The most descriptors seen while the clients are there: the pool serves 16
# and lets 16 wait, the rest must stay in the kernel's backlog.
during=$before
while kill -0 "$holder" 2>/dev/null; do
    now=$(fds)
    ((now > during)) && during=$now
    sleep 0.1
done
((during - before <= 40)) || fail "100 idle clients took $((during - before)) descriptors"
timeout 15 bash -c "until [[ \$(curl -s -o /dev/null -w '%{http_code}' -H 'Authorization: Bearer $token' \
    '$url/api/types') == 200 ]]; do sleep 0.2; done" || fail "no answer after the idle clients left"

echo "signals: HUP, USR1, USR2 and PIPE leave it serving; TERM ends it with 0"
for signal in HUP USR1 USR2 PIPE; do
    kill -s "$signal" "$web_pid"
done
expect 200 GET /api/types
kill -TERM "$web_pid"
wait_exit "$web_pid" || fail "orv-web did not stop on SIGTERM"
((rc == 0)) || fail "orv-web exited $rc on SIGTERM"

echo "a token file that others may read is refused"
chmod 644 "$work/token"
"$web" --bus "$addr" --listen 127.0.0.1:0 --token-file "$work/token" >/dev/null 2>"$work/bad.err"
rc=$?
((rc == 1)) && grep -q "0600" "$work/bad.err" || fail "a readable token file was used (exit $rc)"
echo "web API: all checks passed"
