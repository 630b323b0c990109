#!/usr/bin/env bash
# Runs orv-cli on a private D-Bus daemon: one instance serves Device.Light and
# the others call it, read it, list it and watch it. Outputs are compared with
# the files in expected/. Never touches the user's own session bus.
set -uo pipefail

bin=${1:?usage: cli.sh PATH-TO-orv-cli}
expected=$(cd "$(dirname "$0")/expected" && pwd)
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"

# Runs orv-cli on the private bus with a bound; sets rc, output in $work/NAME.out/.err.
cli() {
    local name=$1
    shift
    rc=0
    timeout 10 "$bin" --bus "$addr" "$@" >"$work/$name.out" 2>"$work/$name.err" || rc=$?
}

same() {
    diff -u "$expected/$2" "$work/$1" >&2 || fail "$1 differs from expected/$2"
}

start_server() {
    "$bin" --bus "$addr" serve Device.Light >"$work/serve.out" 2>"$work/serve.log" &
    server=$!
    pids+=("$server")
    timeout 10 bash -c "until busctl --address='$addr' status org.orv.Device >/dev/null 2>&1; do
        sleep 0.05; done" || fail "serve did not take org.orv.Device"
}

check_usage() {
    rc=0
    "$bin" frobnicate >/dev/null 2>"$work/usage.err" || rc=$?
    [[ $rc == 2 ]] || fail "an unknown command exited $rc, not 2"
    rc=0
    "$bin" call Device.Light >/dev/null 2>"$work/usage.err" || rc=$?
    [[ $rc == 2 ]] || fail "call without a function exited $rc, not 2"
    rc=0
    "$bin" --bus "unix:path=$work/no-such-socket" get Device.Light 2>"$work/nobus.err" || rc=$?
    [[ $rc == 2 ]] || fail "an unreachable bus gave exit $rc, not 2"
    grep -q "cannot connect" "$work/nobus.err" || fail "no message for an unreachable bus"
    rm -f "$work/usage.err" "$work/nobus.err"
}

check_call() {
    cli call_ok call Device.Light setState '{"ID":"s1","state":"on"}'
    [[ $rc == 0 ]] || fail "call exited $rc"
    same call_ok.out call_ok.out
    timeout 10 bash -c "until grep -q setState '$work/serve.out'; do sleep 0.05; done" ||
        fail "serve did not print the call"
    grep -Eq '^\{"time":"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}Z",' \
        "$work/serve.out" || fail "the call's time is not ISO 8601 UTC with milliseconds"
    sed -E 's/^\{"time":"[^"]*",/{/' "$work/serve.out" >"$work/serve_calls.out"
    same serve_calls.out serve_calls.out
}

check_call_errors() {
    cli call_bad_json call Device.Light setState '{"ID":'
    [[ $rc == 2 ]] || fail "bad JSON exited $rc, not 2"
    same call_bad_json.err call_bad_json.err
    cli call_not_object call Device.Light setState '["s1"]'
    [[ $rc == 2 ]] || fail "a JSON array as arguments exited $rc, not 2"
    same call_not_object.err call_not_object.err

    cli call_no_owner call Nobody.Light setState '{}'
    [[ $rc == 2 ]] || fail "a call to an unowned root exited $rc, not 2"
    grep -q "^orv-cli: unknown path Nobody.Light" "$work/call_no_owner.err" ||
        fail "no message for an unowned root"
    cli call_no_object call Device.Fan setState '{}'
    [[ $rc == 2 ]] || fail "a call to an unknown object exited $rc, not 2"
    grep -q "^orv-cli: unknown path Device.Fan" "$work/call_no_object.err" ||
        fail "no message for an unknown object"
    cli call_no_method call Device.Light blink '{}'
    [[ $rc == 2 ]] || fail "a call to an unknown function exited $rc, not 2"
    # None of the failed calls reached the served object.
    [[ $(grep -c . "$work/serve.out") == 1 ]] || fail "serve printed calls that failed"
}

check_get_and_list() {
    cli get get Device.Light
    [[ $rc == 0 ]] || fail "get exited $rc"
    same get.out get.out
    cli list list Device
    [[ $rc == 0 ]] || fail "list exited $rc"
    same list.out list.out
}

check_watch() {
    "$bin" --bus "$addr" watch Device.Light >"$work/watch.out" 2>"$work/watch.log" &
    local watcher=$!
    pids+=("$watcher")
    # Signals from outside the watched subtree must not show up.
    timeout 10 busctl --address="$addr" emit /Other org.orv.Object Notification 'ua{sv}' 1 0
    # The watcher's match is in place once one of the repeated signals arrives.
    timeout 10 bash -c "until [[ -s '$work/watch.out' ]]; do
        busctl --address='$addr' emit /Device/Light/Dimmer org.orv.Object Notification \
            'ua{sv}' 7 1 level s 40
        sleep 0.1; done" || fail "watch printed no notification"
    kill -TERM "$watcher"
    wait_exit "$watcher" || fail "watch did not stop after SIGTERM"
    [[ $rc == 0 ]] || fail "watch exited $rc after SIGTERM, not 0"
    head -n 1 "$work/watch.out" >"$work/watch_first.out"
    same watch_first.out watch.out
}

stop_server() {
    kill -TERM "$server"
    wait_exit "$server" || fail "serve did not stop after SIGTERM"
    [[ $rc == 0 ]] || fail "serve exited $rc after SIGTERM, not 0"
    if timeout 10 busctl --address="$addr" status org.orv.Device >/dev/null 2>&1; then
        fail "org.orv.Device is still owned after SIGTERM"
    fi
}

check_usage
start_bus
start_server
check_call
check_call_errors
check_get_and_list
check_watch
stop_server
echo "PASS"
