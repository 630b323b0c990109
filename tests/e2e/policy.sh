#!/usr/bin/env bash
# Checks the system-bus policy of the org.orv services on a dbus-daemon of its
# own that applies the defaults of a system bus: anyone may look and read,
# only root and the members of the orv group may change schedules or the time
# status. Switching users needs root; without it the test is skipped.
set -uo pipefail

usage="usage: policy.sh ORVD ORV-TIME ORV-CLI PLUGIN DEFINITION POLICY"
orvd=${1:?$usage} time_bin=${2:?$usage} plugin=${4:?$usage} definition=${5:?$usage}
policy=${6:?$usage}
((EUID == 0)) || { echo "SKIP: switching users needs root"; exit 77; }
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
# Others must reach the bus socket in the scratch directory.
chmod 711 "$work"
addr=unix:path=$work/bus.socket
# The group of nobody stands in for orv, which need not exist here.
group=$(id -gn nobody) || fail "there is no user nobody"

cp "$policy" "$work/org.orv.conf"
cat >"$work/bus.conf" <<EOF
<busconfig>
  <type>system</type> <listen>$addr</listen> <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/> <deny own="*"/> <deny send_type="method_call"/>
    <allow send_type="signal"/> <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/> <allow receive_type="signal"/>
    <allow receive_type="method_call"/> <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <include>$work/org.orv.conf</include>
</busconfig>
EOF

# Runs a busctl command as USER (root, nobody, member or daemon) and prints
# "ok", "denied" or the error.
as() {
    local who=(setpriv --reuid=65534 --regid=65534 --clear-groups) out
    case $1 in
        root) who=() ;;
        member) who=(setpriv --reuid=65534 --regid=65534 --groups="$(getent group "$group" |
            cut -d: -f3)") ;;
        daemon) who=(setpriv --reuid=1 --regid=1 --clear-groups) ;;
    esac
    out=$(timeout 10 "${who[@]}" busctl --address="$addr" "${@:2}" 2>&1) && echo ok && return
    [[ $out == *"Access denied"* || $out == *AccessDenied* ]] && echo denied || echo "$out"
}
sched() { echo call org.orv.Scheduler /Scheduler org.orv.Object "$1" 'a{sv}' "${@:2}"; }
owned() { timeout 20 bash -c "until busctl --address='$addr' status $1 &>/dev/null; do
    sleep 0.05; done"; }

dbus-daemon --config-file="$work/bus.conf" --nofork 2>"$work/bus.log" &
pids+=("$!")
timeout 10 bash -c "until [[ -S '$work/bus.socket' ]]; do sleep 0.05; done" ||
    fail "the bus did not start"
"$time_bin" --bus "$addr" --status Unsynchronized 2>"$work/time.log" &
pids+=("$!")
"$orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" 2>"$work/orvd.log" &
pids+=("$!")
owned org.orv.Time && owned org.orv.Scheduler || fail "the services did not take their names"

light="type s Light path s Device.Light states av 2 s on s off"
info="info a{sv} 6 ID s s1 enable b true base s Daily def s off override s '' schedule av 0"
set_status="call org.orv.Time /Time org.orv.Object setStatus a{sv} 1 Status s Synchronized"
# The expected outcome, the user, then the busctl words.
rows=(
    "ok root $(sched registerScheduleType 3 "$light")"
    "ok root $(sched addSchedule 2 type s Light "$info")"
    "ok nobody get-property org.orv.Time /Time org.orv.Object Status"
    "ok nobody get-property org.orv.Scheduler /Scheduler/Types/Light/Schedules/s1 org.orv.Object ID"
    "ok nobody introspect org.orv.Scheduler /Scheduler"
    "ok nobody introspect org.orv.Time /Time"
    "ok nobody $(sched getScheduleTypes 0)"
    "denied nobody $(sched registerScheduleType 3 "$light")"
    "denied nobody $(sched addSchedule 2 type s Light "$info")"
    "denied nobody $(sched removeSchedules 1 type s Light)"
    "denied nobody $set_status"
    "denied nobody set-property org.orv.Time /Time org.orv.Object Status s Synchronized"
    "denied member $(sched addSchedule 2 type s Light "$info")"
    "ok root $set_status"
    "ok root $(sched removeSchedules 1 type s Light)"
)
check() {
    local line row got
    for line in "$@"; do
        eval "row=($line)"
        got=$(as "${row[@]:1}")
        [[ $got == "${row[0]}" ]] || fail "${row[*]:1}: $got, not ${row[0]}"
    done
}
check "${rows[@]}"

# A copy of the policy that names the group of nobody instead of orv.
sed "s/group=\"orv\"/group=\"$group\"/" "$policy" >"$work/org.orv.conf"
grep -q "group=\"$group\"" "$work/org.orv.conf" || fail "the policy has no group rule"
busctl --address="$addr" call org.freedesktop.DBus / org.freedesktop.DBus ReloadConfig >/dev/null ||
    fail "the bus did not reload its configuration"
check "ok member $(sched addSchedule 2 type s Light "$info")" \
    "ok member $(sched removeSchedules 1 type s Light)" "ok member $set_status" \
    "denied daemon $(sched addSchedule 2 type s Light "$info")" \
    "denied daemon $set_status" "ok daemon $(sched getScheduleTypes 0)"
echo "PASS"
