#!/usr/bin/env bash
# The Debian package as `cpack -G DEB` builds it from the build directory:
# its binaries carry no debug information, each one's debug information lies
# in the -dbgsym package under its build ID, and the units, the bus policy
# and the postinst are shipped as written.
set -uo pipefail

usage="usage: debian_package.sh CPACK BUILD-DIR READELF PACKAGING-DIR"
cpack=${1:?$usage} build=${2:?$usage} readelf=${3:?$usage} packaging=${4:?$usage}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
export LC_ALL=C

"$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 ||
    fail "cpack failed"
shopt -s nullglob
debs=("$work"/out/orv-scheduler_*.deb)
ddebs=("$work"/out/orv-scheduler-dbgsym_*.ddeb)
((${#debs[@]} == 1)) || fail "expected one orv-scheduler package, found ${#debs[@]}"
((${#ddebs[@]} == 1)) || fail "expected one orv-scheduler-dbgsym package, found ${#ddebs[@]}"
deb=${debs[0]} ddeb=${ddebs[0]}
dpkg-deb -x "$deb" "$work/main" || fail "dpkg-deb cannot unpack $deb"
dpkg-deb -x "$ddeb" "$work/dbgsym" || fail "dpkg-deb cannot unpack $ddeb"

echo "the debug package names the main one"
[[ $(dpkg-deb -f "$ddeb" Package) == orv-scheduler-dbgsym ]] || fail "the debug package's name"
[[ $(dpkg-deb -f "$ddeb" Depends) == "orv-scheduler (= $(dpkg-deb -f "$deb" Version))" ]] ||
    fail "the debug package does not depend on this version of orv-scheduler"

echo "each binary is stripped and its debug information is in the debug package"
elves=0
while IFS= read -r -d '' f; do
    magic=
    IFS= read -r -N 4 magic <"$f" || true
    [[ $magic == $'\x7fELF' ]] || continue
    elves=$((elves + 1))
    name=${f#"$work/main"}
    "$readelf" -S -W "$f" >"$work/sections.txt" || fail "readelf cannot read $name"
    ! grep -Eq ' \.(debug_info|symtab) ' "$work/sections.txt" || fail "$name is not stripped"
    id=$("$readelf" -n "$f" | sed -n 's/.*Build ID: \([0-9a-f]*\).*/\1/p')
    [[ -n $id ]] || fail "$name has no build ID"
    debug=$work/dbgsym/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug
    [[ -f $debug ]] || fail "no debug file for $name (build ID $id)"
    # A debug file keeps the section headers but not the contents of the
    # loaded sections, so readelf's complaint about the interpreter is noise.
    # The output goes to a file first: grep -q may quit before readelf has
    # written all of it, and pipefail would count readelf's broken pipe.
    "$readelf" -S -W "$debug" >"$work/debug-sections.txt" 2>/dev/null
    grep -q ' \.debug_info ' "$work/debug-sections.txt" ||
        fail "the debug file of $name holds no .debug_info"
    "$readelf" --string-dump=.gnu_debuglink "$f" >"$work/debuglink.txt" 2>/dev/null
    grep -q "${id:2}\.debug" "$work/debuglink.txt" || fail "$name does not link to its debug file"
done < <(find "$work/main" -type f -print0)
for shipped in usr/bin/orvd usr/bin/orv-time usr/bin/orv-cli usr/bin/orv-owner; do
    [[ -f $work/main/$shipped ]] || fail "the package lacks $shipped"
done
[[ -n $(find "$work/main" -name scheduler_plugin.so) ]] || fail "the package lacks the plug-in"
[[ -n $(find "$work/main" -name 'liborv.so.*' -type f) ]] || fail "the package lacks liborv"
echo "$elves ELF files checked"
((elves >= 6)) || fail "only $elves ELF files in the package"

echo "the units, the bus policy and the postinst are shipped"
for unit in orvd.service orv-time.service orv-owner@.service; do
    [[ -f $work/main/usr/lib/systemd/system/$unit ]] || fail "the package lacks $unit"
done
cmp -s "$packaging/org.orv.conf" "$work/main/usr/share/dbus-1/system.d/org.orv.conf" ||
    fail "the bus policy differs from packaging/org.orv.conf"
dpkg-deb -e "$deb" "$work/control" || fail "dpkg-deb cannot read the control files"
cmp -s "$packaging/postinst" "$work/control/postinst" || fail "the postinst differs from packaging/postinst"
echo "PASS"
