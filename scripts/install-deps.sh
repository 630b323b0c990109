#!/usr/bin/env bash
# Installs the Debian packages that the build and the tests need, when some
# are missing. Runs apt-get update once, and only when there is something to
# install.
#
# Usage: scripts/install-deps.sh [--arm64]
#   --arm64: also what the arm64 preset needs: Debian's cross compiler, the
#   arm64 development packages (through multiarch, which this adds when it
#   is missing) and qemu-user, which runs the arm64 tests.
set -euo pipefail

arm64=false
case ${1:-} in
    --arm64) arm64=true ;;
    "") ;;
    *)
        echo "usage: $0 [--arm64]" >&2
        exit 2
        ;;
esac

packages=(
    build-essential cmake ninja-build pkg-config
    libsystemd-dev nlohmann-json3-dev libcli11-dev
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    tzdata dbus-daemon dbus-bin systemd libglib2.0-bin
    clang libclang-rt-dev valgrind jq librsvg2-bin libxml2-utils scdoc groff-base
    libcpp-httplib-dev curl chromium chromium-driver python3-selenium
)
if $arm64; then
    # nlohmann-json and CLI11 are headers only, the same for every
    # architecture; cpp-httplib's library needs its own dependencies' arm64
    # development files to link.
    packages+=(
        crossbuild-essential-arm64 qemu-user
        libsystemd-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64
        libcpp-httplib-dev:arm64 libssl-dev:arm64 zlib1g-dev:arm64 libbrotli-dev:arm64
    )
fi

missing=()
# Once arm64 is a foreign architecture, a name without one matches both
# copies of a package; the native copy is the one asked for, and a package
# for every architecture is found by its plain name.
native=$(dpkg --print-architecture)
installed() {
    local status
    if [[ $1 != *:* ]] && status=$(dpkg-query -W -f='${Status}' "$1:$native" 2>/dev/null); then
        [[ $status == "install ok installed" ]]
        return
    fi
    status=$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null) || return 1
    [[ $status == "install ok installed" ]]
}
for p in "${packages[@]}"; do
    installed "$p" || missing+=("$p")
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
# The update below then fetches the arm64 package lists too.
if $arm64 && ! dpkg --print-foreign-architectures | grep -qx arm64; then
    "${sudo[@]}" dpkg --add-architecture arm64
fi
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
