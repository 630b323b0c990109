# Shared by the end-to-end scripts: a scratch directory, clean-up of the
# processes they start, bounded waits and a private D-Bus daemon. Source it
# after setting `pids=()`.

work=$(mktemp -d)

cleanup() {
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

# Prints the message and every non-empty log, output and error file, then
# ends the script.
fail() {
    echo "FAIL: $*" >&2
    for log in "$work"/*.log "$work"/*.out "$work"/*.err; do
        [[ -s "$log" ]] && { echo "--- $log" >&2; cat "$log" >&2; }
    done
    exit 1
}

# True once the process has ended (gone or a zombie waiting to be reaped).
exited() {
    local state
    state=$(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null) || return 0
    [[ $state == Z* ]]
}
export -f exited

# Waits, at most 10 s, for the process to end and sets rc to its exit code.
# Runs in this shell, not a subshell, since only the parent can reap a child.
wait_exit() {
    timeout 10 bash -c "until exited $1; do sleep 0.05; done" || return 1
    rc=0
    wait "$1" || rc=$?
}

# Starts a bus of the test's own; its address lands in $addr, its pid in
# $bus_pid.
start_bus() {
    : >"$work/addr"
    dbus-daemon --session --nofork --print-address=3 3>"$work/addr" 2>"$work/bus.log" &
    bus_pid=$!
    pids+=("$bus_pid")
    timeout 10 bash -c "until [[ -s '$work/addr' ]]; do sleep 0.05; done" ||
        fail "the private bus did not start"
    addr=$(head -n 1 "$work/addr")
}

# Starts orv-time with the clock forced "Synchronized" and a client serving
# Device.Light, whose setState calls land as JSON lines in $work/serve.out.
# Needs $time_bin and $cli.
start_time_and_client() {
    "$time_bin" --bus "$addr" --status Synchronized 2>"$work/time.log" &
    pids+=("$!")
    "$cli" --bus "$addr" serve Device.Light >"$work/serve.out" 2>"$work/serve.log" &
    pids+=("$!")
}
