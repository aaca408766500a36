# shellcheck shell=dash
# A microphone that lies in its replies (see vm/microphone/Lies.cpp), beside a disk that does not, on
# one stream: behind a bridge, or of a remote side of its own that speaks the channel.
#
# The kernel shows what was touched. In the head:
#   # kernel: panic_on_warn=1 oops=panic slub_debug=FZP log_buf_len=4M loglevel=5
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"

lies="offset packet-end packet-length packet-actual wrapping-sum sum more-packets actual-length out-actual"

# begin_lying: once.
begin_lying() {
    expect_watchful_kernel
    modprobe snd-usb-audio
    echo 0 >/sys/module/usb_storage/parameters/delay_use  # seconds; it would wait for one
    head -c 1048576 /dev/urandom >/tmp/disk.img
    sum=$(sha256 /tmp/disk.img)
}

# start_liar NAME ARG...: the microphone with this lie.
start_liar() {
    lie=$1
    shift
    xj-usbip-microphone --lie "$lie" "$@" >"$LOG_DIR/microphone.log" 2>&1 </dev/null 8>&- 9<&- &
    liar_pid=$!
    wait_until 10 "the microphone" grep -q "listening on" "$LOG_DIR/microphone.log"
}

# offer WAY LIE: microphone and disk, until withdraw.
offer() {
    log "--- by the $1: $2"
    if [ "$1" = bridge ]; then
        start_liar "$2" 127.0.0.1:3240
        start_remote_here --usbip 127.0.0.1/1-1 --disk /tmp/disk.img
    else
        start_liar "$2" --channel --disk /tmp/disk.img "$remote"
    fi
    start_host
    pcm=$(wait_for_imported sound 'pcmC*c')
    disk=$(wait_for_disk 1)
    wait_ports_used 2
}

# withdraw WAY
withdraw() {
    grep -qx "the first lie" "$LOG_DIR/microphone.log" || fail "the microphone has not lied"
    stop_host
    [ "$1" = channel ] || stop_remote_here
    kill -TERM "$liar_pid"
    wait_for_end "$liar_pid" 5 "the microphone"
    wait_all_ports_free
    wait_disk_gone 1
}

# refusals WAY: how often who is to see through lies has said that it does.
refusals() {
    if [ "$1" = bridge ]; then
        grep -c 'device has left' "$LOG_DIR/remote.log" || true
    else
        grep -c 'CheckNetRecv invalid' "$LOG_DIR/host.log" || true
    fi
}

# What the kernel says of replies that have reached it.
kernel_complaints() {
    dmesg | grep -E 'total length of iso|recv xbuf|urb->number_of_packets|cannot find a urb|unknown pdu' || echo none
}

# expect_end WAY LIE: the microphone ends, and nothing but the microphone.
expect_end() {
    local refused recorder card
    refused=$(refusals "$1")
    offer "$1" "$2"
    card=${pcm#pcmC}
    start_reading "$disk"
    timeout 60 arecord -q -N -D "hw:${card%%D*},0" -t raw -f S16_LE -c 1 -r 44100 -d 1 /tmp/recorded \
        >>"$LOG_DIR/arecord.log" 2>&1 8>&- 9<&- &
    recorder=$!
    wait_until 30 "the lie" grep -qx "the first lie" "$LOG_DIR/microphone.log"
    wait_until 10 "the end of the microphone" ports_used_by_us_are 1
    wait_for_end "$recorder" 10 "the recording"
    wait_until 10 "data that still flows" has_read_more "$disk" $(($(sectors_read "$disk") + 1024))
    expect_same "the disk" "$sum" "$(sha256 "/dev/$disk")"
    expect_same "refusals" 1 $(($(refusals "$1") - refused))
    expect_same "complaints of the kernel" none "$(kernel_complaints)"
    withdraw "$1"
    expect_read_error 10
}

expect_lies_refused() {
    local lie
    for lie in $lies; do timed "$lie" expect_end "$1" "$lie"; done
}
