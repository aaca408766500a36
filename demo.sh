#!/usr/bin/env bash
# Shows a USB disk of a remote computer being used on this side as if it were plugged in here, with
# the real vhci_hcd of a real kernel. Needs Debian 12 and, for installing packages, root.
#   ./demo.sh           this side is 64-bit ARM Linux in a virtual machine
#   ./demo.sh --two     both sides are such machines, linked by a network; the disk is not of our making
#   ./demo.sh --native  this side is this machine, where `xj-usbip-host doctor` says it can be
# Exits 0 only if everything that it tells has happened and been checked.
set -euo pipefail
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }
# Before anything else, since later $0 may lead nowhere.
case ${1-} in
"" | --two | --native) ;;
-h | --help) usage && exit ;;
*) usage >&2 && exit 2 ;;
esac
cd "$(dirname "$0")"

build() { # PRESET TARGET...
    local preset=$1
    shift
    echo "Building for $preset: $* ..."
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" --target "$@" -- --quiet | sed '/^ninja: no work to do/d'
}

case ${1-} in
"")
    cmake/packages.sh
    build release xj-usbip-remote
    build arm64 xj-client-usbip xj-usbip-host
    exec vm/run --native-build build/release --arch-build build/arm64 --story demo
    ;;
--two)
    cmake/packages.sh
    build arm64 xj-client-usbip xj-usbip-host xj-usbip-remote
    exec vm/run --arch-build build/arm64 --story two-guests
    ;;
--native)
    cmake/packages.sh
    build release xj-usbip-remote xj-client-usbip xj-usbip-host
    build/release/host/xj-usbip-host doctor
    exec vm/run --native --native-build build/release --story demo
    ;;
esac
