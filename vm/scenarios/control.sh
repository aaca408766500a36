# about: a running host is asked, watched, told to capture and to detach, while a disk is read
outside make_random_image 32.img 32
outside make_random_image 8.img 8
outside start_remote --disk 32.img --disk 8.img
ask() { "$HOST_PROGRAM" "$@" --control /tmp/control; }
start_host --control /tmp/control --capture "$LOG_DIR/usb.pcapng"
big=$(wait_for_disk 32)
small=$(wait_for_disk 8)
start_reading "$big"
ask watch >"$LOG_DIR/watched" 8>&- 9<&- &
watcher=$!

lists() { ask list | grep -q "$1"; }
wait_until 30 "the big disk in the list" lists " 1  ready .*disk1 32.img (1d6b:0104, high speed): /dev/$big"
wait_until 30 "the small one" lists " 2  ready .*: /dev/$small"
ask capture stop
ask capture start "$LOG_DIR/later.pcapng,1d6b:0104"
mark=$(sectors_read "$big")
wait_until 60 "reading while it is captured" has_read_more "$big" $((mark + 2000))
for command in list stats "list --json" "stats --json"; do
    # shellcheck disable=SC2086  # words
    ask $command >>"$LOG_DIR/asked"
done
ask capture stop | tee -a "$LOG_DIR/asked"
sha256 "/dev/$small" >/dev/null
ask detach 2
wait_disk_gone 8
wait_until 30 "the news" grep -q "disk2 8.img .* left: detached as asked" "$LOG_DIR/watched"
wait_ports_used 1
! ask detach 2 || fail "it is detached twice"
mark=$(sectors_read "$big")
wait_until 60 "the other disk to be read on" has_read_more "$big" $((mark + 2000))
stop_host
expect_read_error 20
wait_for_end "$watcher" 30 "the one that watches"
wait_all_ports_free
commands=$(outside scsi_commands usb.pcapng)
say "Wireshark sees these SCSI commands: $commands"
case $commands in *0x25*0x28*) ;; *) fail "neither READ CAPACITY nor READ: $commands" ;; esac
