#!/usr/bin/env bash
# Runs orvd with the scheduler plug-in on a private D-Bus daemon and checks
# what other services see: functions, instances, properties, introspection,
# signals, errors and a clean stop. Calls go through busctl and gdbus, two
# client libraries; orv-cli only serves the client object.
set -uo pipefail

usage="usage: daemon.sh ORVD ORV-TIME ORV-CLI PLUGIN DEFINITION"
orvd=${1:?$usage} time_bin=${2:?$usage} cli=${3:?$usage} plugin=${4:?$usage}
definition=${5:?$usage}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
# Hourly entries count from the start of the local hour; UTC keeps the
# arithmetic of this script plain, and the C locale its sorting.
export TZ=UTC LC_ALL=C
types=/Scheduler/Types
s1=$types/Light/Schedules/s1 s2=$types/Light/Schedules/s_2d2

bctl() { timeout 10 busctl --address="$addr" "$@"; }
sc() { bctl "$1" org.orv.Scheduler "${@:2}"; }
gctl() { timeout 10 gdbus "$1" --address "$addr" --dest org.orv.Scheduler "${@:2}"; }
# Calls a function of /Scheduler with its a{sv} arguments as busctl words.
sched() { sc call /Scheduler org.orv.Object "$1" 'a{sv}' "${@:2}"; }
iso() { date -u -d "@$1" +%Y-%m-%dT%H:%M:%SZ; }

# Adds a schedule with one entry: TYPE ID BASE STATE BEGIN END.
add() {
    sched addSchedule 2 type s "$1" info 'a{sv}' 6 ID s "$2" enable b true base s "$3" \
        def s off override s "" schedule av 1 'a{sv}' 3 state s "$4" begin u "$5" end u "$6"
}

owned() { timeout 20 bash -c "until busctl --address='$addr' status $1 &>/dev/null; do
    sleep 0.05; done"; }
# Waits, at most 15 s, for a message matching the pattern in the monitor's output.
seen() { timeout 15 bash -c "until grep -Eq '$1' '$work/monitor.out'; do sleep 0.05; done"; }

# Pattern of InterfacesAdded or InterfacesRemoved (MEMBER) for an object path.
ifaces() { echo "\"member\":\"$1\",\"payload\":\\{\"type\":\"[^\"]*\",\"data\":\\[\"$2\""; }

start_all() {
    start_bus
    start_time_and_client
    # ORVD_WRAPPER (words, unquoted on purpose) runs orvd under a checker.
    ${ORVD_WRAPPER:-} "$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" \
        2>"$work/orvd.log" &
    daemon=$!
    pids+=("$daemon")
    for name in org.orv.Time org.orv.Device org.orv.Scheduler; do
        owned "$name" || fail "$name was not taken"
    done
    busctl --address="$addr" --json=short monitor org.orv.Scheduler \
        >"$work/monitor.out" 2>/dev/null &
    pids+=("$!")
    # The monitor is ready once it shows a call made after it started.
    timeout 10 bash -c "until grep -q getScheduleTypes '$work/monitor.out'; do
        busctl --address='$addr' call org.orv.Scheduler /Scheduler org.orv.Object \
            getScheduleTypes 'a{sv}' 0 >/dev/null; sleep 0.1; done" ||
        fail "busctl monitor did not start"
}

check_functions() {
    local out line row now
    # s1 is "on" for 4 s from 6 s ahead; the entry may not cross the hour,
    # so close to its end this waits for the next one.
    now=$(date +%s)
    ((now % 3600 + 10 < 3600)) || { sleep $((3600 - now % 3600 + 1)) && now=$(date +%s); }
    due=$((now + 6))
    off=$((due % 3600))
    # The expected result, then the call, in order. A type may be registered
    # again with other states while no schedule uses a state it drops.
    local light="type s Light path s Device.Light states av"
    local rows=(
        "true sched registerScheduleType 3 $light 3 s on s off s eco"
        "true sched registerScheduleType 3 $light 2 s on s off"
        "false sched registerScheduleType 2 type s Fan path s Device.Fan"
        "false add Nope s9 Hourly on 0 10"
        "false add Light s9 Hourly dim 0 10"
        "false add Light s9 Sometimes on 0 10"
        "false add Light a.b Hourly on 0 10"
        "true add Light s1 Hourly on $off $((off + 4))"
        "true add Light s-2 Daily on 0 60"
        "true add Light é Hourly on 0 10"
        "false sched registerScheduleType 3 $light 1 s off"
        "false sched unregisterScheduleType 1 type s Fan"
        "false sched getSchedule 2 type s Light ID s s9"
    )
    for line in "${rows[@]}"; do
        read -ra row <<<"$line"
        out=$("${row[@]:1}") || fail "${row[*]:1} failed"
        [[ $out =~ ^va\{sv\}\ b\ ${row[0]}( |$) ]] || fail "${row[*]:1} returned $out"
    done
    changed=$(date +%s%6N)

    out=$(gctl call --object-path /Scheduler --method org.orv.Object.getScheduleTypes "{}")
    [[ $out == "(<true>, {'types': <[<'Light'>]>})" ]] || fail "getScheduleTypes gave $out"
    out=$(gctl call --object-path /Scheduler --method org.orv.Object.getSchedule \
        "{'type': <'Light'>, 'ID': <'s1'>}")
    local entry="{'state': <'on'>, 'begin': <uint32 $off>, 'end': <uint32 $((off + 4))>}"
    [[ $out == *"'base': <'Hourly'>"*"$entry"* ]] || fail "getSchedule gave $out"
    out=$(sc call --json=short /Scheduler org.orv.Object getSchedules 'a{sv}' 1 type s Light |
        grep -Eo '"ID":\{"type":"s","data":"[^"]*"' | cut -d'"' -f10)
    [[ $(sort <<<"$out" | xargs) == "s-2 s1 é" ]] || fail "getSchedules listed $out"
    # Each element of a path is escaped on its own.
    out=$(gctl introspect --object-path $types/Light/Schedules | sed -n 's/^  node \(.*\) {$/\1/p')
    [[ $(sort <<<"$out" | xargs) == "_c3_a9 s1 s_2d2" ]] || fail "the schedule nodes are $out"
}

# Before s1's change: Set is refused, and every parameter reads as expected.
check_properties() {
    local out path
    gctl call --object-path "$s1" --method org.freedesktop.DBus.Properties.Set \
        org.orv.Object Enable "<false>" >/dev/null 2>&1 && fail "gdbus could set Enable"
    sc set-property "$s1" org.orv.Object CurrentState s on 2>/dev/null &&
        fail "busctl could set CurrentState"
    out=$(sc get-property "$s1" org.orv.Object NextStateChange)
    [[ $out =~ ^s\ \"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z\"$ ]] ||
        fail "NextStateChange is not ISO 8601 UTC: $out"
    local -A all=(
        [$types/Light]='a{sv} 3 "Type" s "Light" "Path" s "Device.Light" "States" s "on,off"'
        [$s1]="a{sv} 8 \"ID\" s \"s1\" \"Enable\" b true \"Base\" s \"Hourly\"\
 \"Default\" s \"off\" \"Override\" s \"\" \"TemporaryOverride\" b false\
 \"CurrentState\" s \"off\" \"NextStateChange\" s \"$(iso "$due")\""
    )
    for path in "${!all[@]}"; do
        out=$(sc call "$path" org.freedesktop.DBus.Properties GetAll s org.orv.Object)
        [[ $out == "${all[$path]}" ]] || fail "GetAll on $path gave $out"
    done
}

check_introspection() {
    local out want name
    out=$(sc introspect /Scheduler org.orv.Object | awk '$2 == "method" { print $1, $3, $4 }')
    # Every function of the definition, and nothing else, with the same signature.
    want=$(grep -Eo '^ *\{ "name": "[a-zA-Z]+", "type": "[a-z]+",$' "$definition" |
        cut -d'"' -f4 | sed 's/.*/.& a{sv} va{sv}/' | sort)
    [[ -n $want && $out == "$want" ]] || fail "the methods of /Scheduler are: $out"
    out=$(sc introspect --xml-interface "$s1")
    for name in ID:s Enable:b Base:s Default:s Override:s TemporaryOverride:b CurrentState:s \
        NextStateChange:s; do
        [[ $out == *"<property name=\"${name%:*}\" type=\"${name#*:}\" access=\"read\"/>"* ]] ||
            fail "s1 does not list ${name%:*} as a read-only ${name#*:}"
    done
    out=$(sc introspect --xml-interface /)
    [[ $out == *'<interface name="org.freedesktop.DBus.ObjectManager">'* ]] ||
        fail "/ has no ObjectManager"
    [[ $out == *'<node name="Scheduler"/>'* ]] || fail "/ does not list the node Scheduler"
}

check_signals() {
    local out notified light='"path":"/Scheduler/Types/Light",.*"member":"Notification"'
    seen "$(ifaces InterfacesAdded "$s2").*\"ID\":\\{\"type\":\"s\",\"data\":\"s-2\"" ||
        fail "no InterfacesAdded for s-2"
    seen "$light" || fail "no Notification from /Scheduler/Types/Light"
    out=$(grep -m 1 "$light" "$work/monitor.out")
    [[ $out == *'"payload":{"type":"ua{sv}","data":[920,{}]}'* ]] ||
        fail "the Notification is not 920 without parameters: $out"
    notified=$(grep -Eo '"timestamp-realtime":[0-9]+' <<<"$out" | cut -d: -f2)
    ((notified - changed >= 3000000 && notified - changed <= 9000000)) ||
        fail "the Notification came $((notified - changed)) us after the changes"
    local on='"CurrentState":\{"type":"s","data":"on"\}'
    seen "\"path\":\"$s1\",.*\"member\":\"PropertiesChanged\".*$on" ||
        fail "no PropertiesChanged on s1's CurrentState"
    out=$(sc get-property "$s1" org.orv.Object CurrentState NextStateChange | xargs)
    [[ $out == "s on s $(iso $((due + 4)))" ]] || fail "after its change s1 reads $out"

    [[ $(sched removeSchedules 2 type s Light ID av 1 s s-2) == "va{sv} b true 0" ]] ||
        fail "removeSchedules s-2 failed"
    seen "$(ifaces InterfacesRemoved "$s2")" || fail "no InterfacesRemoved for s-2"
    # What a call causes goes out after its reply, so the caller does not
    # wait for the bus to route it first.
    local call reply removed
    call=$(grep -n '"member":"removeSchedules"' "$work/monitor.out" | tail -n 1 | cut -d: -f1)
    reply=$(awk -v from="$call" 'NR > from && /"type":"method_return"/ { print NR; exit }' \
        "$work/monitor.out")
    removed=$(grep -En "$(ifaces InterfacesRemoved "$s2")" "$work/monitor.out" | cut -d: -f1)
    ((${reply:-0} > call && ${reply:-0} < removed)) ||
        fail "the reply to removeSchedules (line ${reply:-none}) did not precede InterfacesRemoved (line $removed)"
    out=$(sc call --json=short / org.freedesktop.DBus.ObjectManager GetManagedObjects)
    [[ $out == *"\"$s1\":{\"org.orv.Object\":{\"ID\":{\"type\":\"s\",\"data\":\"s1\"}"* ]] ||
        fail "GetManagedObjects does not list s1: $out"
    [[ $out != *\"$s2\"* ]] || fail "GetManagedObjects still lists s-2"
}

# A wrong signature gets InvalidArgs with the signature the method takes, on
# every interface orvd serves: PATH METHOD EXPECTED [ARGUMENT...] per row.
check_signatures() {
    local row words out props="org.freedesktop.DBus.Properties"
    local rows=(
        "/Scheduler $props.Get ss string:org.orv.Object"
        "/Scheduler $props.GetAll s"
        "/Scheduler $props.Set ssv string:org.orv.Object string:Status"
        "/Scheduler org.freedesktop.DBus.Introspectable.Introspect - string:x"
        "/ org.freedesktop.DBus.ObjectManager.GetManagedObjects - int32:1"
        "/Scheduler org.freedesktop.DBus.Peer.Ping - string:x"
        "/Scheduler org.freedesktop.DBus.Peer.GetMachineId - string:x"
        "/Scheduler org.orv.Object.getScheduleTypes a{sv} string:x"
        "$s1 org.orv.Object.frobnicate a{sv}"
    )
    for row in "${rows[@]}"; do
        read -ra words <<<"$row"
        local expected=${words[2]/#-/} given
        given=$(IFS=; for w in "${words[@]:3}"; do
            case $w in string:*) printf s ;; int32:*) printf i ;; esac
        done)
        out=$(timeout 10 dbus-send --bus="$addr" --print-reply --dest=org.orv.Scheduler \
            "${words[0]}" "${words[1]}" "${words[@]:3}" 2>&1)
        [[ $out == "Error org.freedesktop.DBus.Error.InvalidArgs: ${words[1]##*.} takes the signature \"$expected\", not \"$given\"." ]] ||
            fail "${words[1]} with \"$given\" got: $out"
    done
}

check_errors() {
    local line rc props="org.freedesktop.DBus.Properties"
    local calls=(
        "call org.orv.Scheduler /Scheduler org.orv.Object frobnicate a{sv} 0"
        "call org.orv.Scheduler /Nowhere org.orv.Object getScheduleTypes a{sv} 0"
        "call org.orv.Scheduler /Scheduler org.orv.Object getScheduleTypes s x"
        "call org.orv.Scheduler $types/Light/Schedules/s9 $props GetAll s org.orv.Object"
        "get-property org.orv.Scheduler $s1 org.orv.Object Colour"
    )
    for line in "${calls[@]}"; do
        # shellcheck disable=SC2086  # the words of the call
        bctl $line &>/dev/null
        rc=$?
        [[ $rc == 1 ]] || fail "busctl $line exited $rc, not 1 with an error reply"
    done
    exited "$daemon" && fail "orvd stopped after the failed calls"
    check_signatures
    [[ $(sched unregisterScheduleType 1 type s Light) == "va{sv} b true 0" ]] ||
        fail "unregisterScheduleType Light failed"
    seen "$(ifaces InterfacesRemoved $types/Light)" || fail "no InterfacesRemoved for Light"
}

stop_daemon() {
    kill -TERM "$daemon"
    wait_exit "$daemon" || fail "orvd did not stop after SIGTERM"
    [[ $rc == 0 ]] || fail "orvd exited $rc after SIGTERM, not 0"
    sc status >/dev/null 2>&1 && fail "org.orv.Scheduler is still owned after SIGTERM"
}

start_all
check_functions
check_properties
check_introspection
check_signals
check_errors
stop_daemon
echo "PASS"
