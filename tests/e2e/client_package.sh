#!/usr/bin/env bash
# An owner builds against the installed client library as a user would:
# once with pkg-config and once with CMake's find_package, from the README's
# example. The installed programs then run it on a private bus.
set -uo pipefail

usage="usage: client_package.sh BUILD-DIR EXAMPLE-SOURCE DEFINITION"
build=${1:?$usage} example=${2:?$usage} definition=${3:?$usage}
pids=()
# shellcheck source=lib.sh
. "$(dirname "$0")/lib.sh"
export TZ=UTC LC_ALL=C
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 || fail "install failed"
libdir=$(dirname "$(find "$prefix" -name 'libscheduler-client.so' | head -n 1)")
[[ -d $libdir ]] || fail "the library was not installed"

echo "pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
flags=$(pkg-config --cflags --libs scheduler-client) || fail "pkg-config does not know the library"
# shellcheck disable=SC2086 # the flags are words
g++ -Wall -Wextra -Werror "$example" $flags -Wl,-rpath,"$libdir" -o "$work/by_pkg_config" \
    2>"$work/pkg.err" || fail "the example does not build with pkg-config"

echo "find_package"
mkdir -p "$work/consumer"
cp "$example" "$work/consumer/light_client.cpp"
cat >"$work/consumer/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
find_package(scheduler-client 0.1 REQUIRED)
add_executable(light_client light_client.cpp)
target_link_libraries(light_client PRIVATE scheduler::client)
EOF
cmake -S "$work/consumer" -B "$work/consumer/build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_BUILD_RPATH="$libdir" >"$work/cmake.log" 2>&1 || fail "find_package failed"
cmake --build "$work/consumer/build" >>"$work/cmake.log" 2>&1 || fail "the CMake build failed"

echo "the installed programs run the example"
bin=$prefix/bin
plugin=$(find "$prefix" -name scheduler_plugin.so | head -n 1)
start_bus
LD_LIBRARY_PATH=$libdir "$bin/orv-time" --bus "$addr" --status Synchronized 2>"$work/time.log" &
pids+=("$!")
LD_LIBRARY_PATH=$libdir "$bin/orvd" --bus "$addr" --plugin "$plugin" --definition "$definition" \
    2>"$work/orvd.log" &
pids+=("$!")
for client in by_pkg_config consumer/build/light_client; do
    # Outside the system's folders, the library finds liborv as the
    # installed programs do.
    LD_LIBRARY_PATH=$libdir "$work/$client" "$addr" "$work/light.json" >"$work/client.out" \
        2>"$work/client.err" &
    pid=$!
    pids+=("$pid")
    timeout 10 bash -c "until grep -Eq '^evening: (on|off)$' '$work/client.out'; do sleep 0.05; done" ||
        fail "$client received no state"
    kill -TERM "$pid"
    wait_exit "$pid" || fail "$client did not stop on SIGTERM"
    ((rc == 0)) || fail "$client exited $rc on SIGTERM"
done
echo "PASS"
