#!/bin/sh
# Installs what building and testing need, on Debian 12, as root. Does nothing when all is there.
set -eu
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }
case ${1-} in
"") ;;
-h | --help) usage && exit ;;
*) usage >&2 && exit 2 ;;
esac

native="g++ cmake ninja-build pkg-config git ca-certificates
    clang libclang-rt-14-dev clang-format clang-tidy
    libudev-dev zlib1g-dev libcli11-dev nlohmann-json3-dev libgtest-dev
    dpkg-dev
    gcovr shellcheck valgrind python3 pyflakes3 tshark
    g++-aarch64-linux-gnu qemu-user qemu-system-arm ipxe-qemu cpio kmod"
# The :arm64 libraries must have the same version as the native ones, so both are named.
both="libstdc++6 libudev-dev zlib1g-dev libgtest-dev"

missing() {
    for package in $native; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || return 0
    done
    for package in $both; do
        dpkg-query -W -f='${Status}' "$package:arm64" 2>/dev/null | grep -q 'ok installed' || return 0
    done
    return 1
}

missing || exit 0
echo "Installing build and test packages (once) ..."
dpkg --add-architecture arm64
apt-get update -qq
foreign=
for package in $both; do foreign="$foreign $package $package:arm64"; done
# shellcheck disable=SC2086  # word splitting makes the list
DEBIAN_FRONTEND=noninteractive apt-get install -qq -y --no-install-recommends $native $foreign >/dev/null
