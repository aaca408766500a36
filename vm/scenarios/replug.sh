# about: a disk pulled out in the middle of its enumeration and plugged in again still appears
# The kernel keeps the request that was cut off and takes it back on the new connection, up to 5 s
# later: unless that is answered, the new device is never enumerated.
# limit: 240
outside make_random_image disk.img 4
outside start_remote --disk disk.img
start_host
wait_for_disk 4
for pause in 0.1 0.2 0.25 0.3 0.35 0.4 0.5 0.8 1.2; do
    outside tell_remote unplug 1
    wait_disk_gone 4
    wait_all_ports_free
    log "pulled out $pause s after plugging in"
    outside tell_remote plug 1
    sleep $pause
    outside tell_remote unplug 1
    outside tell_remote plug 1
    wait_for_disk 4
done
expect_same "the disk" "$(outside sha256 disk.img)" "$(sha256 "/dev/$(find_disk 4)")"
stop_host
wait_all_ports_free
