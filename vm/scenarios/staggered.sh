# about: disks plugged in while the one before is being enumerated all appear
# limit: 400
for size in 4 6 8; do outside make_random_image $size.img $size; done
outside start_remote --disk 4.img --disk 6.img --disk 8.img
start_host
for size in 4 6 8; do wait_for_disk $size; done

for pause in 0.2 0.4 0.6 0.8 1.0 1.4 1.8; do
    for number in 1 2 3; do outside tell_remote unplug $number; done
    for size in 4 6 8; do wait_disk_gone $size; done
    wait_all_ports_free
    log "plugged in $pause s after one another"
    outside tell_remote plug 1
    sleep $pause
    outside tell_remote plug 2
    sleep $pause
    outside tell_remote plug 3
    for size in 4 6 8; do wait_for_disk $size; done
done
# Nobody waits by the clock of the day: setting it back, as the network does at boot, delays no end.
# Without devices, whose ends would wake who waits.
for number in 1 2 3; do outside tell_remote unplug $number; done
wait_all_ports_free
date -s "@$(($(date +%s) - 3600))"
stop_host
