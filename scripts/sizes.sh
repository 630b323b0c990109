#!/usr/bin/env bash
# Measures what the shipped binaries take on a gateway's flash: builds the
# programs and libraries of four configurations (the default and the gateway
# presets, each for amd64 and, with Debian's cross compiler, for arm64),
# installs each with --strip into a scratch prefix and prints the sizes in
# bytes as a Markdown table. Needs the packages of
# `scripts/install-deps.sh --arm64`.
#
# Usage: scripts/sizes.sh
#   The builds land in build/default, build/gateway, build/arm64 and
#   build/arm64-default; what is already built there is reused.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)
toolchain=cmake/toolchains/aarch64-linux-gnu.cmake
shipped=(orvd orv-time orv-cli orv-owner orv-web orv orv_dbus scheduler_plugin scheduler_client
         man_pages)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# name, then the configure arguments. The arm64 default build is the default
# preset with the cross toolchain, as an SDK build takes its toolchain file.
configs=(
    "amd64-default|--preset default"
    "amd64-gateway|--preset gateway"
    "arm64-default|--preset default -B build/arm64-default --toolchain $toolchain -DORV_BUILD_BENCH=OFF --no-warn-unused-cli"
    "arm64-gateway|--preset arm64"
)

names=()
for config in "${configs[@]}"; do
    name=${config%%|*}
    read -r -a args <<<"${config#*|}"
    names+=("$name")
    echo "=== $name" >&2
    cmake "${args[@]}" >"$work/$name.configure.log" ||
        { cat "$work/$name.configure.log" >&2; exit 1; }
    dir=$(sed -n 's/^-- Build files have been written to: //p' "$work/$name.configure.log")
    cmake --build "$dir" -j "$jobs" --target "${shipped[@]}" >"$work/$name.build.log" ||
        { tail -n 50 "$work/$name.build.log" >&2; exit 1; }
    cmake --install "$dir" --prefix "$work/$name" --strip >"$work/$name.install.log"
done

# The installed files, by the name the table gives them and the name they
# are installed under. A native Debian build puts the libraries in the
# multiarch folder (lib/x86_64-linux-gnu), a cross build in lib.
files=(
    "orvd|orvd"
    "orv-time|orv-time"
    "orv-cli|orv-cli"
    "orv-owner|orv-owner"
    "orv-web|orv-web"
    "liborv.so|liborv.so.*.*.*"
    "liborv-dbus.so|liborv-dbus.so.*.*.*"
    "libscheduler-client.so|libscheduler-client.so.*.*.*"
    "scheduler_plugin.so|scheduler_plugin.so"
)

size_of() {
    local matches
    mapfile -t matches < <(find "$1" -type f -name "$2")
    ((${#matches[@]} == 1)) || { echo "not one file named $2 in $1" >&2; exit 1; }
    stat -c %s "${matches[0]}"
}

printf '| stripped size, bytes |'
printf ' %s |' "${names[@]}"
printf '\n|---|'
printf -- '---:|%.0s' "${names[@]}"
printf '\n'
declare -A total
for entry in "${files[@]}"; do
    label=${entry%%|*} file=${entry#*|}
    printf '| %s |' "$label"
    for name in "${names[@]}"; do
        size=$(size_of "$work/$name" "$file")
        total[$name]=$((${total[$name]:-0} + size))
        printf ' %s |' "$size"
    done
    printf '\n'
done
printf '| all of them |'
for name in "${names[@]}"; do
    printf ' %s |' "${total[$name]}"
done
printf '\n'
