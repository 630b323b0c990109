#!/usr/bin/env bash
# Sends orvd, on a private D-Bus daemon, calls that are wrong in type, size or
# signature and checks each answer, that orvd stays up and that a healthy
# schedule keeps its next change; then restarts orv-time under it, and stops
# it with SIGTERM while calls keep coming.
set -uo pipefail

usage="usage: robustness.sh ORVD ORV-TIME ORV-CLI PLUGIN DEFINITION"
orvd=${1:?$usage} time_bin=${2:?$usage} cli=${3:?$usage} plugin=${4:?$usage}
definition=${5:?$usage}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
export TZ=UTC LC_ALL=C
s1=/Scheduler/Types/Light/Schedules/s1

bctl() { timeout 20 busctl --address="$addr" "$@"; }
sched() { bctl call -- org.orv.Scheduler /Scheduler org.orv.Object "$1" 'a{sv}' "${@:2}"; }
owned() { timeout 20 bash -c "until busctl --address='$addr' status $1 &>/dev/null; do
    sleep 0.05; done"; }
next_change() { bctl get-property org.orv.Scheduler "$s1" org.orv.Object NextStateChange; }

# Adds to Light a schedule that is "on" once, from BEGIN to END seconds after
# $now: ID [BEGIN END].
add() {
    sched addSchedule 2 type s Light info 'a{sv}' 6 ID s "$1" enable b true base s Once \
        def s off override s "" schedule av 1 'a{sv}' 3 state s on \
        begin u $((now + ${2:-600})) end u $((now + ${3:-1200}))
}

# The answer of a call: true, false (a refusal carries its reason as the
# one out-argument "error"; the minimal client below prints none) or error.
answer() {
    local out
    out=$("$@" 2>/dev/null) || { echo error; return; }
    if [[ $out =~ ^va\{sv\}\ b\ (true|false)\ 0$ ||
          $out =~ ^va\{sv\}\ b\ (false)\ 1\ \"error\"\ s\ \".+\"$ ]]; then
        echo "${BASH_REMATCH[1]}"
    else
        echo "$out"
    fi
}

# Calls enableSchedule with an ID of SIZE bytes through a minimal D-Bus client,
# since no command line carries an argument that long; answers like busctl.
huge_id() {
    local socket=${addr#unix:path=}
    perl - "${socket%%,*}" "$1" <<'EOF'
use IO::Socket::UNIX;
my ($serial, $s) = (0, IO::Socket::UNIX->new(Peer => $ARGV[0]) || die "connect: $!");
alarm 20;
sub pad { my ($b, $n) = @_; $$b .= "\0" x ((-length $$b) % $n) }
sub str { my ($b, $t) = @_; pad($b, 4); $$b .= pack("V", length $t) . "$t\0" }
# A method call: destination, path, interface, member, signature, body.
sub msg {
    my ($f, @v) = ('', @_);
    for (0 .. 4) {
        my $type = (qw(s o s s g))[$_];
        pad(\$f, 8);
        $f .= pack("C", (6, 1, 2, 3, 8)[$_]) . "\1$type\0";
        $type eq 'g' ? ($f .= pack("C", length $v[$_]) . "$v[$_]\0") : str(\$f, $v[$_]);
    }
    my $h = pack("a1CCCVVV", 'l', 1, 0, 1, length $v[5], ++$serial, length $f) . $f;
    pad(\$h, 8);
    print $s $h . $v[5];
}
sub rd { my $d = ''; while (length $d < $_[0]) { read($s, my $c, $_[0] - length $d) or die; $d .= $c } $d }
# The type and body of the next method return (2) or error (3).
sub reply {
    my (undef, $type, undef, undef, $blen, undef, $flen) = unpack("a1CCCVVV", rd(16));
    rd($flen + (-$flen) % 8);
    my $body = rd($blen);
    return $type == 2 || $type == 3 ? ($type, $body) : reply();
}
print $s "\0AUTH EXTERNAL " . unpack("H*", "$<") . "\r\n";
<$s> =~ /^OK/ or die "not authenticated";
print $s "BEGIN\r\n";
msg("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello", "", "");
reply();
my $e = '';
for (['type', 'Light'], ['ID', 'x' x $ARGV[1]]) { pad(\$e, 8); str(\$e, $_->[0]); $e .= "\1s\0"; str(\$e, $_->[1]) }
msg("org.orv.Scheduler", "/Scheduler", "org.orv.Object", "enableSchedule", "a{sv}",
    pack("V", length $e) . "\0" x 4 . $e);
my ($type, $body) = reply();
print $type == 2 ? "va{sv} b " . (unpack("x4V", $body) ? "true" : "false") . " 0\n" : "error\n";
EOF
}

start_all() {
    start_bus
    "$time_bin" --bus "$addr" --status Synchronized 2>"$work/time.log" &
    time_pid=$!
    pids+=("$time_pid")
    "$cli" --bus "$addr" serve Device.Light >"$work/serve.out" 2>"$work/serve.log" &
    pids+=("$!")
    "$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" 2>"$work/orvd.log" &
    daemon=$!
    pids+=("$daemon")
    for name in org.orv.Time org.orv.Device org.orv.Scheduler; do
        owned "$name" || fail "$name was not taken"
    done
    [[ $(sched registerScheduleType 3 type s Light path s Device.Light states av 2 s on s off) == \
        "va{sv} b true 0" ]] || fail "registerScheduleType Light failed"
    now=$(date +%s)
    [[ $(answer add s1) == true ]] || fail "the healthy schedule s1 was refused"
    healthy=$(next_change)
}

check_bad_input() {
    local line row got many=()
    for ((i = 0; i < 2000; i++)); do many+=('a{sv}' 3 state s on begin u "$i" end u "$i"); done
    local info="info a{sv} 6 ID s x enable b true base s Daily def s off override s '' schedule av"
    local entry="1 a{sv} 3 state s on"
    # The expected answer, then the call.
    local rows=(
        "false sched addSchedule 2 type s Light info s x"
        "false sched addSchedule 2 type u 5 info a{sv} 0"
        "false sched enableSchedule 3 type s Light ID as 1 s1 enable b true"
        "false sched overrideSchedule 3 type s Light ID s s1 override a{sv} 0"
        "false sched overrideState 3 type s Light ID s nope State s on"
        "false sched removeSchedules 2 type s Light ID s s1"
        "false sched enableSchedule 3 type s Light ID s s1 enable a{sv} 0"
        "false sched getSchedule 2 type s Light ID s ''"
        "false sched unregisterScheduleType 1 type s ''"
        "false sched addSchedule 2 type s Nope $info 0"
        "false sched addSchedule 2 type s Light $info $entry begin x -1 end u 9"
        "false sched addSchedule 2 type s Light $info $entry begin u 0 end t 4294967296"
        "false sched addSchedule 2 type s Light $info $entry begin d 1e300 end u 9"
        "false add a.b"
        "false add ../x"
        "false add ''"
        "true add a/b"
        "error sched addSchedule as 1 x"
        "error bctl call org.orv.Scheduler /Scheduler org.orv.Object addSchedule a{ss} 1 type Light"
        "false sched addSchedule 2 type s Light $info 2000 \${many[@]}"
        "false huge_id $((1 << 20))"
    )
    for line in "${rows[@]}"; do
        eval "row=($line)"
        got=$(answer "${row[@]:1}")
        [[ $got == "${row[0]}" ]] || fail "${row[*]:1:12} answered $got, not ${row[0]}"
    done
    for reason in "a schedule has more than 1024 entries" "a text is longer than 4096 bytes"; do
        grep -q "refused: $reason" "$work/orvd.log" || fail "orvd did not say: $reason"
    done
    exited "$daemon" && fail "orvd stopped on bad input"
    [[ $(next_change) == "$healthy" ]] || fail "s1's next change moved to $(next_change)"
}

# orv-time goes away and a new one, not synchronised yet, comes: the change
# planned in between still reaches the client.
check_time_restart() {
    now=$(date +%s)
    [[ $(answer add s2 6 8) == true ]] || fail "addSchedule s2 failed"
    kill -KILL "$time_pid"
    wait_exit "$time_pid" || fail "orv-time did not end"
    "$time_bin" --bus "$addr" --status Unsynchronized 2>>"$work/time.log" &
    pids+=("$!")
    owned org.orv.Time || fail "the new orv-time did not take its name"
    # Besides the "off" sent when it was added: "on", then "off" again.
    timeout 20 bash -c "until grep -o '\"s2\",\"state\":\"[a-z]*' '$work/serve.out' |
        cut -d'\"' -f6 | xargs | grep -qx 'off on off'; do sleep 0.1; done" ||
        fail "s2's changes did not reach the client after orv-time restarted"
    [[ $(next_change) == "$healthy" ]] || fail "s1's next change moved to $(next_change)"
}

# A change every five seconds simulated over twenty days would not fit in
# one message of the bus: the answer stops at 10,000 changes, says so, and
# orvd stays on the bus.
check_long_simulation() {
    local entries="" i out
    for ((i = 0; i < 360; i++)); do
        entries+="${entries:+,}{\"state\": \"on\", \"begin\": $((10 * i)), \"end\": $((10 * i + 5))}"
    done
    timeout 20 "$cli" --bus "$addr" call Scheduler addSchedule "{\"type\": \"Light\",
        \"info\": {\"ID\": \"busy\", \"enable\": true, \"base\": \"Hourly\", \"def\": \"off\",
        \"override\": \"\", \"schedule\": [$entries]}}" >/dev/null || fail "adding busy failed"
    out=$(timeout 60 "$cli" --bus "$addr" call Scheduler simulateSchedules \
        "{\"start\": $now, \"stop\": $((now + 20 * 86400))}") || fail "the long simulation failed"
    grep -q '"truncated": *true' <<<"$out" || fail "the long simulation is not marked truncated"
    grep -q 'Simulation truncated after 10000 changes at' <<<"$out" ||
        fail "the long simulation does not say where it stopped"
    exited "$daemon" && fail "orvd ended on a long simulation"
    sched removeSchedules 2 type s Light ID av 1 s busy >/dev/null || fail "removing busy failed"
}

check_stop_under_load() {
    while :; do
        add load >/dev/null 2>&1
        sched removeSchedules 2 type s Light ID av 1 s load >/dev/null 2>&1
    done &
    pids+=("$!")
    sleep 2
    grep -q '"ID":"load"' "$work/serve.out" || fail "the load never reached orvd"
    kill -TERM "$daemon"
    wait_exit "$daemon" || fail "orvd did not stop within 10 s of SIGTERM under load"
    [[ $rc == 0 ]] || fail "orvd exited $rc after SIGTERM under load, not 0"
    bctl status org.orv.Scheduler &>/dev/null && fail "org.orv.Scheduler is still owned"
}

start_all
check_bad_input
check_time_restart
check_long_simulation
check_stop_under_load
echo "PASS"
