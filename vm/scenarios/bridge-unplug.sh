# about: the plug is pulled, in four places, while a served disk is read: no hang, its port is free
# qemu: -device qemu-xhci,id=xhci
# limit: 400
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
# Not in a watchful kernel: the server's driver, usbip-host, reads a list of URBs that their completion
# may have freed (in stub_rx_loop), which the heap checker's pattern turns into an oops.
outside make_empty_image big.img 2048
start_server usb-storage

begin_reading() {
    log "--- $1"
    attach our 1
    disk=$(wait_for_disk 2048)
    start_reading "$disk"
}

end_reading() {
    timed "$1: until the reader knows" expect_read_error 20
    wait_disk_gone 2048
    wait_all_ports_free
}

plug_disk 1 big.img
begin_reading "the remote side dies"
kill -KILL "$remote_pid"
end_reading "the remote side dies"
wait_for_end "$host_pid" 30 "the host"
expect_same "exit status of the host" 1 "$ended_with"

begin_reading "the host dies"
kill -KILL "$host_pid"
end_reading "the host dies"
stop_remote_here

begin_reading "the server takes it back"
usbip unbind -b "$(busid 1)"
end_reading "the server takes it back"
unplug 1  # since a device cut off in mid-transfer is not reset by being offered again
wait_until 30 "the device to go" is_gone 1
plug_disk 1 big.img  # for which the remote side waits

log "--- the server program dies"
disk=$(wait_for_disk 2048)
start_reading "$disk"
kill -KILL "$usbipd_pid"
wait_for_end "$usbipd_pid" 30 "the server program"
wait_until 30 "data that flows nevertheless" has_read_more "$disk" $(($(sectors_read "$disk") + 8192))

log "--- the device is pulled out of the server"
unplug 1
end_reading "the device is pulled out"
detach our
