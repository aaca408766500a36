# shellcheck shell=dash
# Devices that nobody here wrote: QEMU's, on a USB bus of the guest. A USB/IP server in the guest
# offers them, and they come back as second devices: in "our" way, through a remote side in the
# guest, the host and the module; or, to compare, in the "kernel" way, with `usbip attach`.
#
# A scenario with these words has in its head: # qemu: -device qemu-xhci,id=xhci
# Its words for what the devices do are in jobs.sh.

remote=127.0.0.1:9000
remote_pid=
dummy_hcd=/sys/devices/platform/dummy_hcd.0

# start_server: the bus's driver, the drivers of the devices that are named, and the server.
start_server() {
    modprobe -a xhci-pci usbip-host "$@"
    usbipd >>"$LOG_DIR/usbipd.log" 2>&1 </dev/null 8>&- 9<&- &
    usbipd_pid=$!
    wait_until 30 "the USB/IP server" grep -q "listening on" "$LOG_DIR/usbipd.log"
}

# busid PORT: of the device in this port of QEMU's controller, or of the one that the guest itself
# plays; nothing without one. The controller has two buses, one of them for super speed, so that this
# is known when it is there.
busid() {
    local device
    for device in /sys/bus/pci/devices/*/usb*/*-"$1" "$dummy_hcd"/usb*/*-"$1"; do
        [ ! -e "$device/bConfigurationValue" ] || basename "$device"
    done
}

is_there() { [ -n "$(busid "$1")" ]; }
is_gone() { ! is_there "$1"; }

# plug PORT DEVICE: plugs a device of QEMU's, with QEMU's name and options for it, into this port of
# the bus and has the server offer it.
plug() {
    outside monitor device_add "$2,id=usb$1,bus=xhci.0,port=$1"
    wait_until 30 "$2 on the bus" is_there "$1"
    usbip bind -b "$(busid "$1")"
}

# plug_disk PORT FILE
plug_disk() {
    outside add_drive "drive$1" "$2"
    plug "$1" "usb-storage,drive=drive$1"
}

# unplug PORT
unplug() { outside monitor device_del "usb$1"; }

# start_remote_here ARG...: a remote side in the guest.
start_remote_here() {
    local before
    touch "$LOG_DIR/remote.log"
    before=$(times_listening)
    xj-usbip-remote --listen "$remote" "$@" \
        >>"$LOG_DIR/remote.log" 2>&1 </dev/null 8>&- 9<&- &
    remote_pid=$!
    wait_until 30 "the remote side to listen" is_listening_anew "$before"
}

times_listening() { grep -c 'listening on' "$LOG_DIR/remote.log" || true; }
is_listening_anew() { [ "$(times_listening)" != "$1" ]; }

# attach WAY PORT...: the devices in these ports, and starts the clock.
attach() {
    local way port arguments
    way=$1
    shift
    arguments=--wait  # on a busy machine the server may take long to answer
    for port; do arguments="$arguments --usbip 127.0.0.1/$(busid "$port")"; done
    # shellcheck disable=SC2086  # a list
    [ "$way" = kernel ] || start_remote_here $arguments
    attached_at=$(hundredths)
    if [ "$way" = kernel ]; then
        # usbip fails while the device before is being enumerated.
        for port; do
            wait_until 60 "usbip to attach" usbip attach -r 127.0.0.1 -b "$(busid "$port")"
        done
    else
        start_host
    fi
}

stop_remote_here() {
    kill -TERM "$remote_pid"
    wait_for_end "$remote_pid" 30 "the remote side"
    expect_same "exit status of the remote side" 0 "$ended_with"
}

# detach WAY: everything.
detach() {
    local port
    if [ "$1" = kernel ]; then
        for port in $(port_numbers_in_use); do usbip detach -p "$port"; done
    else
        stop_host
        stop_remote_here
    fi
    wait_all_ports_free
}

# find_imported CLASS PATTERN: the first device of this class of the kernel's, with such a name,
# that has come through a port of vhci.
find_imported() {
    local device
    for device in "/sys/class/$1/"$2; do
        case $(readlink -f "$device") in
        */vhci_hcd.*) basename "$device"; return ;;
        esac
    done
}
is_imported() { [ -n "$(find_imported "$@")" ]; }

# wait_for_imported CLASS PATTERN: waits until it is there and prints its name.
wait_for_imported() {
    wait_until 30 "an imported $2" is_imported "$@"
    find_imported "$@"
}

# tell_when_usable WAY
tell_when_usable() { say "$1 way: usable after $(passed "$attached_at") s"; }

# shellcheck source=guest/jobs.sh
. "$VM_DIR/guest/jobs.sh"
