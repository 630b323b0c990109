#!/usr/bin/env bash
# Runs orvd, orv-time and a client served by orv-cli on a private D-Bus
# daemon and follows on the wall clock what reaches the client: nothing before
# the clock is synchronised, then the current state, each change within its
# second, and the next change after the client was away. Last, the bus goes.
set -uo pipefail

usage="usage: realtime.sh ORVD ORV-TIME ORV-CLI PLUGIN DEFINITION"
orvd=${1:?$usage} time_bin=${2:?$usage} cli=${3:?$usage} plugin=${4:?$usage}
definition=${5:?$usage}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
export TZ=UTC LC_ALL=C
schedules=/Scheduler/Types/Light/Schedules

bctl() { timeout 10 busctl --address="$addr" "$@"; }
sched() { bctl call org.orv.Scheduler /Scheduler org.orv.Object "$1" 'a{sv}' "${@:2}"; }
# Seconds since the epoch as the client prints them, without the milliseconds.
iso() { date -u -d "@$1" +%Y-%m-%dT%H:%M:%S; }
# Fails unless the parameter NAME of the schedule ID reads VALUE: ID NAME VALUE.
reads() {
    local value
    value=$(bctl get-property org.orv.Scheduler "$schedules/$1" org.orv.Object "$2")
    [[ $value == "$3" ]] || fail "$1's $2 reads $value, not $3"
}
sleep_until() { while (($(date +%s) < $1)); do sleep 0.05; done; }

# Calls that plan changes are made half a second into a second, so that a
# change that came at the fraction of the planning call, and not at the start
# of its own second, shows. Sets now to that second.
next_second() {
    local ms=$((1500 - 10#$(date +%N) / 1000000))
    sleep "$((ms / 1000)).$(printf %03d $((ms % 1000)))"
    now=$(date +%s)
}

# Fails when a call from line FIRST of NAME.out on, other than those made in
# the planning second SKIP, came later than 400 ms into its second.
at_second_start() {
    local late
    late=$(tail -n +"$2" "$work/$1.out" | grep -v "\"time\":\"$(iso "$3")\." |
        grep -Ev '"time":"[^"]*\.[0-3][0-9]{2}Z"')
    [[ -z $late ]] || fail "changes came late in their second: $late"
}

# Adds a schedule that is "on" once, from BEGIN to END (seconds since the
# epoch), and "off" otherwise: ID BEGIN END.
once() {
    local out
    out=$(sched addSchedule 2 type s Light info 'a{sv}' 6 ID s "$1" enable b true base s Once \
        def s off override s "" schedule av 1 'a{sv}' 3 state s on begin u "$2" end u "$3")
    [[ $out == "va{sv} b true 0" ]] || fail "addSchedule $1 returned $out"
}

owned() { timeout 20 bash -c "until busctl --address='$addr' status $1 &>/dev/null; do
    sleep 0.05; done"; }

# Starts a client serving Device.Light that prints its calls to $work/NAME.out.
start_serve() {
    "$cli" --bus "$addr" serve Device.Light >"$work/$1.out" 2>"$work/$1.log" &
    serve=$!
    pids+=("$serve")
    owned org.orv.Device || fail "serve did not take org.orv.Device"
}

# Waits, at most 20 s, until NAME.out holds COUNT calls.
calls() {
    timeout 20 bash -c "until (( \$(grep -c . '$work/$1.out') >= $2 )); do sleep 0.05; done" ||
        fail "$1.out did not reach $2 calls"
}

# The calls in NAME.out from line FIRST on, as "SECOND ID STATE", sorted.
received() {
    tail -n +"$2" "$work/$1.out" |
        sed -E 's/^\{"time":"([^.]*)\.[0-9]{3}Z",.*"function":"setState",/\1 /;
            s/ "args":\{"ID":"([^"]*)","state":"([^"]*)"\}\}$/ \1 \2/' | sort
}

# Checks the calls from line FIRST of NAME.out on against rows of "DUE ID STATE".
expect() {
    local got want
    want=$(for row in "${@:3}"; do echo "$(iso "${row%% *}") ${row#* }"; done | sort)
    got=$(received "$1" "$2")
    [[ $got == "$want" ]] || fail "the client received [$got] instead of [$want]"
}

start_all() {
    start_bus
    "$time_bin" --bus "$addr" --status Unsynchronized 2>"$work/time.log" &
    pids+=("$!")
    owned org.orv.Time || fail "orv-time did not take org.orv.Time"
    start_serve serve
    "$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" 2>"$work/orvd.log" &
    daemon=$!
    pids+=("$daemon")
    owned org.orv.Scheduler || fail "orvd did not take org.orv.Scheduler"
    [[ $(sched registerScheduleType 3 type s Light path s Device.Light states av 2 s on s off) == \
        "va{sv} b true 0" ]] || fail "registerScheduleType Light failed"
}

# s1 is on from t0 + 3 to t0 + 12: planned, but not sent before the clock is
# synchronised; afterwards its state at that moment is sent at once.
check_synchronisation() {
    next_second
    t0=$now
    once s1 $((t0 + 3)) $((t0 + 12))
    sleep_until $((t0 + 5))
    [[ -s $work/serve.out ]] && fail "the client was called before the clock was synchronised"
    reads s1 CurrentState 's "Unsynchronized"'
    reads s1 NextStateChange "s \"$(iso $((t0 + 3)))Z\""

    next_second
    [[ $(bctl call org.orv.Time /Time org.orv.Object setStatus 'a{sv}' 1 Status s Synchronized) == \
        "va{sv} b true 0" ]] || fail "setStatus Synchronized failed"
    calls serve 1
    local when id state
    read -r when id state <<<"$(received serve 1)"
    [[ "$id $state" == "s1 on" ]] && (($(date -u -d "$when" +%s) - now <= 2)) ||
        fail "after synchronising at $(iso "$now") the client got: $(received serve 1)"
}

# s2 is on from now + 3 to now + 5; its changes and s1's at t0 + 12 come in their seconds.
check_changes() {
    next_second
    once s2 $((now + 3)) $((now + 5))
    calls serve 5
    expect serve 2 "$now s2 off" "$((now + 3)) s2 on" "$((now + 5)) s2 off" "$((t0 + 12)) s1 off"
    at_second_start serve 2 "$now"
}

# s3 is on from now + 3 to now + 8. The client is away at the first change;
# from the moment it left, s3 reads "Unsynchronized". Back, it is told the present state of each
# schedule at once, and the second change reaches it in its second.
check_absent_client() {
    next_second
    once s3 $((now + 3)) $((now + 8))
    calls serve 6
    expect serve 6 "$now s3 off"
    reads s3 CurrentState 's "off"'
    kill -TERM "$serve"
    wait_exit "$serve" || fail "serve did not stop"
    # Unknown from the moment the client is gone, before any change.
    local i
    for ((i = 0; i < 40; i++)); do
        [[ $(bctl get-property org.orv.Scheduler "$schedules/s3" org.orv.Object CurrentState) == \
            's "Unsynchronized"' ]] && break
        sleep 0.05
    done
    (($(date +%s) < now + 3)) || fail "the test was too slow to see s3 before its change"
    reads s3 CurrentState 's "Unsynchronized"'
    sleep_until $((now + 4))
    reads s3 CurrentState 's "Unsynchronized"'
    local back
    back=$(date +%s)
    start_serve serve_again
    calls serve_again 3
    reads s3 CurrentState 's "on"'
    received serve_again 1 | grep -q "^$(iso "$back")\|^$(iso $((back + 1)))" ||
        fail "the client was not told its states within 1 s of coming back: $(received serve_again 1)"
    [[ $(received serve_again 1 | cut -d' ' -f2-) == $'s1 off\ns2 off\ns3 on' ]] ||
        fail "the client was told [$(received serve_again 1)] when it came back"
    calls serve_again 4
    expect serve_again 4 "$((now + 8)) s3 off"
}

check_bus_lost() {
    kill -TERM "$bus_pid"
    wait_exit "$daemon" || fail "orvd kept running without its bus"
    [[ $rc == 1 ]] || fail "orvd exited $rc after losing the bus, not 1"
    grep -q "^orvd: lost the connection to the bus$" "$work/orvd.log" ||
        fail "orvd did not say that it lost the bus"
}

start_all
check_synchronisation
check_changes
check_absent_client
check_bus_lost
echo "PASS"
