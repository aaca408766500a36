# about: 200 attach/detach cycles with traffic, eight disks at a time, in a watchful kernel
# kernel: panic_on_warn=1 slub_debug=FZP log_buf_len=4M loglevel=5
# limit: 900
# shellcheck source=guest/eight.sh
. "$VM_DIR/guest/eight.sh"
expect_watchful_kernel
make_eight 1
sums=$(sums_there)
offer_eight
start_host
round=1
while :; do
    began=$(hundredths)
    wait_for_eight
    if [ $((round % 2)) = 0 ]; then
        workers=
        expect_same "the disks" "$sums" "$(sums_here)"
    else
        # shellcheck disable=SC2086  # a list
        start_reading $disks
    fi
    case $((round % 3)) in
    0) stop_host ;;
    1) tell_eight unplug ;;
    2) outside stop_remote; wait_for_end "$host_pid" 30 "the host" ;;
    esac
    expect_read_error 20
    wait_eight_gone
    say "round $round takes $(passed "$began") s"
    [ $round -lt 25 ] || break
    case $((round % 3)) in
    0) start_host ;;
    1) tell_eight plug ;;
    2) offer_eight; start_host ;;
    esac
    round=$((round + 1))
done
stop_host
outside stop_remote
expect_same "attachments by the module" 200 "$(grep -c 'Attach success' "$LOG_DIR/host.log")"
expect_same "disks in the kernel's log" 200 "$(dmesg | grep -c 'USB Mass Storage device detected')"
expect_same "disconnects in the kernel's log" 200 "$(dmesg | grep -c 'USB disconnect')"
