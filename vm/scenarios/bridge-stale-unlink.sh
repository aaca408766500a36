# about: a served device that ends in the middle of its enumeration, then another on its port
# The kernel keeps the request that was cut off and takes it back on the new connection, up to 5 s
# later. Servers on Linux leave an unlink of what they do not know unanswered, and the new device
# would never be enumerated: the remote side has to answer. (The other device is of another kind,
# since the kernel may take one of the same kind for the old one that is still unconfigured.)
# qemu: -device qemu-xhci,id=xhci
# limit: 400
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
start_server usbhid hid-generic evdev ftdi_sio
plug_serial 1
plug 2 usb-kbd

cut_off=0
for pause in 0.1 0.2 0.3 0.4; do
    log "--- ended $pause s after the attach"
    attach our 1
    wait_ports_used 1
    sleep $pause
    is_imported tty 'ttyUSB*' || cut_off=$((cut_off + 1))
    kill -KILL "$remote_pid"
    wait_for_end "$host_pid" 30 "the host"
    wait_all_ports_free
    attach our 2
    wait_for_imported input 'event*'
    detach our
done
say "$cut_off of 4 serial adapters ended before they were usable"
[ "$cut_off" -gt 0 ] || fail "none was cut off"
answered=$(grep -c 'unlinks [1-9]' "$LOG_DIR/remote.log" || true)
say "$answered of the 4 keyboards after them had an unlink to answer"
[ "$answered" -gt 0 ] || fail "no unlink was met"
