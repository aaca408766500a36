# shellcheck shell=dash
# about: real traffic of two devices, both ways, and what the kernel tells of them (see fuzz/record)
# qemu: -device qemu-xhci,id=xhci
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
head -c 1048576 /dev/zero >/tmp/disk.img
start_server usbhid hid-generic evdev
plug 1 usb-kbd

# The request for the list of a server's devices, in the Linux USB/IP protocol.
printf '\001\021\200\005\000\000\000\000' | timeout 5 nc 127.0.0.1 3240 >"$LOG_DIR/list" || true
"$HOST_PROGRAM" --module "$MODULE" --exec "tee $LOG_DIR/to-remote |
    xj-usbip-remote --stdio --disk /tmp/disk.img --usbip 127.0.0.1/$(busid 1) --wait |
    tee $LOG_DIR/to-host" >>"$LOG_DIR/host.log" 2>&1 </dev/null 8>&- 9<&- &
host_pid=$!
disk=$(wait_for_disk 1)
start_typing_log "$(wait_for_imported input 'event*')"
type_and_expect
echo written | dd of="/dev/$disk" bs=512 conv=sync oflag=direct

# In the order of target vhci_status.
device=$(usb_of_disk "$disk")
{
    for name in nports status status.1; do printf '%s\000' "$(cat "$vhci/$name")"; done
    for name in speed bDeviceClass bDeviceSubClass bDeviceProtocol idVendor idProduct bcdDevice \
        bConfigurationValue bNumConfigurations bNumInterfaces devnum; do
        printf '%s\000' "$(cat "$device/$name")"
    done
} >"$LOG_DIR/sysfs"
stop_host
wait_all_ports_free
