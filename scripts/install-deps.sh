#!/usr/bin/env bash
# Installs the Debian packages that the build and the tests need, when some
# are missing. Runs apt-get update once, and only when there is something to
# install.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config
    libsystemd-dev nlohmann-json3-dev libcli11-dev
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    tzdata dbus-daemon dbus-bin systemd libglib2.0-bin
    clang libclang-rt-dev valgrind jq librsvg2-bin libxml2-utils scdoc groff-base
    libcpp-httplib-dev curl chromium chromium-driver python3-selenium
)

missing=()
for p in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
    [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if (( ${#missing[@]} == 0 )); then
    exit 0
fi

echo "Installing: ${missing[*]}"
sudo=()
if (( EUID != 0 )); then
    sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
