# about: a disk pulled out in the middle of its enumeration and plugged in again still appears
# The kernel keeps the request that was cut off and takes it back on the new connection, up to 5 s
# later: unless that is answered, the new device is never enumerated. Between the two places where the
# plug is pulled here lies SET_CONFIGURATION. No kernel gets over its loss, whoever serves the device:
# on that port it goes on with a device that it takes for the old one, and does not configure it.
# limit: 300
outside make_random_image disk.img 4
outside start_remote --disk disk.img
start_host

state_is() { [ "$(ports_in_use | awk '{ print $3 }')" = "$1" ]; }
count_addressed() { dmesg | grep -c 'USB device number' || true; }
has_addressed_more() { [ "$(count_addressed)" -gt "$1" ]; }
is_configured() { grep -qs . "$vhci"/usb*/*-*/bConfigurationValue; }

plug_in() {
    outside tell_remote unplug 1
    wait_disk_gone 4
    wait_all_ports_free
    addressed=$(count_addressed)
    outside tell_remote plug 1
}

plug_in_again() {
    outside tell_remote unplug 1
    outside tell_remote plug 1
}

# has_stopped_early: the remote side stops before the device has an address, which in the port table
# is the state 5. On a busy machine that can be too late.
has_stopped_early() {
    wait_for_disk 4
    plug_in
    wait_until 30 "the port" state_is 005
    outside pause_remote
    state_is 005 || { outside resume_remote; return 1; }
}

for round in 1 2 3 4; do
    log "--- pulled out before its first answer, $round"
    wait_until 120 "an early stop" has_stopped_early
    wait_until 30 "a request without an answer" has_addressed_more "$addressed"
    plug_in_again
    outside resume_remote
done

for round in 1 2 3 4; do
    log "--- pulled out as soon as it is configured, $round"
    wait_for_disk 4
    plug_in
    wait_until 30 "the configuration" is_configured
    plug_in_again
done
wait_for_disk 4
expect_same "the disk" "$(outside sha256 disk.img)" "$(sha256 "/dev/$(find_disk 4)")"
stop_host
wait_all_ports_free
outside stop_remote
answered=$(outside remote_counter unlinks)
log "$answered of 4 requests cut off were taken back"
[ "$answered" -gt 0 ] || fail "no request was cut off"
