#!/usr/bin/env bash
# A real change of the local time zone, end to end. orv-time and orvd run with
# TZ unset, so they follow /etc/localtime, inside a mount namespace of this
# script's own. The zone goes from Europe/Berlin to America/New_York the way a
# system changes it, by replacing /etc/localtime: orv-time must send 927, and
# orvd must recompute so that every schedule's NextStateChange and the states
# its client is told follow the new zone.
#
# orv-time watches the directory /etc for a new localtime; a bind mount over
# the file is never announced there. So the namespace gets a private /etc: an
# overlay of the real one whose writes land in a scratch tmpfs. The real /etc
# and the clock are never touched, and the mounts end with the namespace.
set -uo pipefail

usage="usage: zone_change.sh ORVD ORV-TIME ORV-CLI PLUGIN DEFINITION"
if [[ ${1:-} != --in-namespace ]]; then
    : "${5:?$usage}"
    if ! unshare --mount --propagation private true 2>/dev/null; then
        echo "SKIP: no private mount namespace here (unshare needs root or" \
            "CAP_SYS_ADMIN), so the zone cannot be changed without touching the system" >&2
        exit 77
    fi
    exec unshare --mount --propagation private "$0" --in-namespace "$@"
fi
shift
orvd=${1:?$usage} time_bin=${2:?$usage} cli=${3:?$usage} plugin=${4:?$usage}
definition=${5:?$usage}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
unset TZ
export LC_ALL=C
zoneinfo=/usr/share/zoneinfo
schedules=/Scheduler/Types/Light/Schedules
layers=$work/layers
# The body of the zone-change notification as busctl monitor prints it.
zone_changed='"payload":{"type":"ua{sv}","data":[927,'

# The mounts go first, so that the scratch directory can be removed.
leave_namespace() {
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null
    umount /etc 2>/dev/null
    umount "$layers" 2>/dev/null
    cleanup
}
trap leave_namespace EXIT

# /etc as before, with the test's own copy of ZONE as localtime.
private_etc() {
    if ! mkdir "$layers" || ! mount -t tmpfs tmpfs "$layers" ||
        ! mkdir "$layers/upper" "$layers/work"; then
        fail "cannot mount a scratch tmpfs in the namespace"
    fi
    if ! mount -t overlay overlay \
        -o "lowerdir=/etc,upperdir=$layers/upper,workdir=$layers/work" /etc 2>"$work/mount.err"; then
        echo "SKIP: cannot overlay a private /etc ($(cat "$work/mount.err"))" >&2
        exit 77
    fi
    install_zone Europe/Berlin
}

# Replaces /etc/localtime by a copy of ZONE, renamed over it in one step.
install_zone() {
    if ! cp "$zoneinfo/$1" /etc/localtime.new || ! mv -f /etc/localtime.new /etc/localtime; then
        fail "cannot install $1 as the private /etc/localtime"
    fi
}

bctl() { timeout 10 busctl --address="$addr" "$@"; }
orv() { timeout 10 "$cli" --bus "$addr" "$@"; }
iso() { date -u -d "@$1" +%Y-%m-%dT%H:%M:%SZ; }
owned() { timeout 20 bash -c "until busctl --address='$addr' status $1 &>/dev/null; do
    sleep 0.05; done"; }

# The start of the period of PERIOD seconds (a day, or a week from Monday)
# that holds now in ZONE. Entry offsets count from the local midnight read at
# the UTC offset in force now: the wall-clock midnight, except on the day
# the clocks change, where a later entry still comes at its wall-clock time.
period_start() {
    local day offset midnight weekday
    day=$(TZ=$1 date -d "@$now" +%F)
    offset=$(TZ=$1 date -d "@$now" +%z)
    weekday=$(TZ=$1 date -d "@$now" +%u)
    midnight=$(date -d "$day 00:00 $offset" +%s)
    if (($2 == 604800)); then
        echo $((midnight - (weekday - 1) * 86400))
    else
        echo "$midnight"
    fi
}

# The state at now and the next change, as "STATE SECONDS", of a schedule that
# is "on" from BEGIN to END of each period and "off" otherwise: ZONE PERIOD
# BEGIN END.
expected() {
    local start state=off next=0 at
    start=$(period_start "$1" "$2")
    ((start + $3 <= now && now < start + $4)) && state=on
    for at in $((start + $3)) $((start + $4)) $((start + $2 + $3)) $((start + $2 + $4)); do
        ((at > now && (next == 0 || at < next))) && next=$at
    done
    echo "$state $next"
}

# The schedules: "evening", Daily, on from 18:00 to 23:00; "window", Weekly,
# on for two hours either side of now in Berlin, so that it is off in New
# York whatever the hour and the client must be told. Sets spans[ID] to
# "PERIOD BEGIN END".
declare -A spans
plan_schedules() {
    local rel
    rel=$((now - $(period_start Europe/Berlin 604800)))
    spans[evening]="86400 64800 82800"
    spans[window]="604800 $((rel < 7200 ? 0 : rel - 7200)) $((rel > 597600 ? 604800 : rel + 7200))"
}

# Starts when no change of either zone lies within the next minute, which
# the test needs at most: every expectation then holds until its end.
pick_now() {
    local tries zone id at soonest
    for ((tries = 0; tries < 2; tries++)); do
        now=$(date +%s)
        plan_schedules
        soonest=0
        for zone in Europe/Berlin America/New_York; do
            for id in "${!spans[@]}"; do
                # shellcheck disable=SC2086
                read -r _ at <<<"$(expected "$zone" ${spans[$id]})"
                ((soonest == 0 || at < soonest)) && soonest=$at
            done
        done
        ((soonest - now > 60)) && return
        sleep $((soonest - now + 2))
    done
    fail "a change falls within a minute of every start"
}

start_all() {
    start_bus
    start_time_and_client
    # The plug-in's traces at 400 say when each recompute arms its timer.
    scheduler_plugin=400 "$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" \
        2>"$work/orvd.log" &
    pids+=("$!")
    for name in org.orv.Time org.orv.Device org.orv.Scheduler; do
        owned "$name" || fail "$name was not taken"
    done
    : >"$work/monitor.out"
    bctl --json=short monitor org.orv.Time org.orv.Scheduler >"$work/monitor.out" 2>/dev/null &
    pids+=("$!")
    # The monitor is ready once it shows a call made after it started.
    timeout 10 bash -c "until grep -q '\"member\":\"Get\"' '$work/monitor.out'; do
        busctl --address='$addr' get-property org.orv.Time /Time org.orv.Object Status >/dev/null
        sleep 0.1; done" || fail "busctl monitor did not start"
}

add_schedules() {
    orv call Scheduler registerScheduleType \
        '{"type":"Light","path":"Device.Light","states":["on","off"]}' >/dev/null ||
        fail "registerScheduleType Light failed"
    local id period begin end base
    for id in "${!spans[@]}"; do
        read -r period begin end <<<"${spans[$id]}"
        base=$( ((period == 86400)) && echo Daily || echo Weekly)
        orv call Scheduler addSchedule "{\"type\":\"Light\",\"info\":{\"ID\":\"$id\",
            \"enable\":true,\"base\":\"$base\",\"def\":\"off\",\"override\":\"\",
            \"schedule\":[{\"state\":\"on\",\"begin\":$begin,\"end\":$end}]}}" >/dev/null ||
            fail "addSchedule $id failed"
    done
}

# The setState calls from line FIRST of serve.out on, as "ID STATE", sorted.
told_since() {
    tail -n +"$1" "$work/serve.out" |
        sed -E 's/.*"args":\{"ID":"([^"]*)","state":"([^"]*)"\}\}$/\1 \2/' | sort
}

# Waits, at most 10 s, until serve.out holds COUNT calls.
calls() {
    timeout 10 bash -c "until (( \$(grep -c . '$work/serve.out') >= $1 )); do sleep 0.05; done"
}

# Waits, at most 10 s, until the parameter NAME of the schedule ID reads
# VALUE; fails with what it reads instead: ID NAME VALUE WHY.
reads() {
    local path=$schedules/$1 value tries
    for ((tries = 0; tries < 100; tries++)); do
        value=$(bctl get-property org.orv.Scheduler "$path" org.orv.Object "$2")
        [[ $value == "s \"$3\"" ]] && return
        sleep 0.1
    done
    fail "$4: $1's $2 reads $value, not \"$3\""
}

# Every schedule shows ZONE's answer: its NextStateChange and CurrentState,
# and the states told to the client from line FIRST of serve.out on are
# TOLD (sorted "ID STATE" lines).
check_zone() {
    local zone=$1 first=$2 told=$3 id state next
    calls $((first - 1 + $(grep -c . <<<"$told"))) ||
        fail "in $zone the client was told [$(told_since "$first")], not [$told]"
    for id in "${!spans[@]}"; do
        # shellcheck disable=SC2086
        read -r state next <<<"$(expected "$zone" ${spans[$id]})"
        reads "$id" NextStateChange "$(iso "$next")" "in $zone"
        reads "$id" CurrentState "$state" "in $zone"
    done
    [[ $(told_since "$first") == "$told" ]] ||
        fail "in $zone the client was told [$(told_since "$first")], not [$told]"
}

# The "ID STATE" lines a client is told on moving from zone FROM to zone TO,
# sorted; with FROM empty, every schedule's state in TO.
changed_states() {
    local id before after
    for id in "${!spans[@]}"; do
        # shellcheck disable=SC2086
        read -r after _ <<<"$(expected "$2" ${spans[$id]})"
        # shellcheck disable=SC2086
        [[ -n $1 ]] && read -r before _ <<<"$(expected "$1" ${spans[$id]})"
        [[ -z $1 || $before != "$after" ]] && echo "$id $after"
    done | sort
}

# Waits, at most 10 s, for a PropertiesChanged of the schedule ID, after the
# 927, that carries NextStateChange VALUE: those who follow the schedule
# learn of the moved change without reading it again.
announced() {
    local tries
    for ((tries = 0; tries < 100; tries++)); do
        awk -v mark="$zone_changed" 'index($0, mark) { seen = 1 } seen' "$work/monitor.out" |
            grep -F "\"path\":\"$schedules/$1\"" |
            grep -qF "\"NextStateChange\":{\"type\":\"s\",\"data\":\"$2\"}" && return
        sleep 0.1
    done
    fail "no PropertiesChanged of $1 after the zone change carried NextStateChange $2"
}

# The timer that the last recompute armed, read from orvd's trace, must wait
# for the earliest change that the schedules publish in ZONE, and not for one
# that only the plug-in knows: SWITCHED (when the zone was replaced) ZONE.
check_armed() {
    local id next earliest=0 timeout_us armed_at
    for id in "${!spans[@]}"; do
        # shellcheck disable=SC2086
        read -r _ next <<<"$(expected "$2" ${spans[$id]})"
        ((earliest == 0 || next < earliest)) && earliest=$next
    done
    timeout_us=$(awk '/recomputed [0-9]+ planned changes/ { armed = "" }
        match($0, /Starting peeklist timer with timeout [0-9]+ us/) {
            armed = substr($0, RSTART + 37, RLENGTH - 40) } END { print armed }' \
        "$work/orvd.log")
    [[ $timeout_us =~ ^[0-9]+$ ]] || fail "orvd traced no timer armed after the recompute"
    armed_at=$((earliest - (timeout_us + 999999) / 1000000))
    ((armed_at >= $1 - 1 && armed_at <= $(date +%s) + 1)) ||
        fail "in $2 orvd waits $timeout_us us, not until $(iso "$earliest") as published"
}

check_berlin() {
    [[ $(date +%z) == $(TZ=Europe/Berlin date +%z) && ! -L /etc/localtime ]] ||
        fail "the namespace's /etc/localtime is not the test's copy of Europe/Berlin"
    add_schedules
    check_zone Europe/Berlin 1 "$(changed_states "" Europe/Berlin)"
}

check_new_york() {
    local first switched tries id next
    first=$(($(grep -c . "$work/serve.out") + 1))
    switched=$(date +%s)
    install_zone America/New_York
    for ((tries = 0; tries < 100; tries++)); do
        grep -qF "\"member\":\"Notification\",$zone_changed" "$work/monitor.out" && break
        sleep 0.1
    done
    ((tries < 100)) || fail "orv-time sent no 927 when /etc/localtime was replaced"
    check_zone America/New_York "$first" "$(changed_states Europe/Berlin America/New_York)"
    for id in "${!spans[@]}"; do
        # shellcheck disable=SC2086
        read -r _ next <<<"$(expected America/New_York ${spans[$id]})"
        announced "$id" "$(iso "$next")"
    done
    check_armed "$switched" America/New_York
}

private_etc
pick_now
start_all
check_berlin
check_new_york
echo "PASS"
