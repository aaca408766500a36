# about: a device that stalls in its enumeration keeps its port; later ones attach at once
# kernel: panic_on_warn=1 oops=panic slub_debug=FZP log_buf_len=4M loglevel=5
# limit: 150
# shellcheck source=guest/hostile.sh
. "$VM_DIR/guest/hostile.sh"
begin_lying
mkfifo /tmp/commands
exec 5<>/tmp/commands

kernel_gives_up() { dmesg | grep -q 'unable to enumerate USB device'; }
stalled_port() { ports_in_use | awk '$1 == "hs" && $3 == 6 { print $2 }'; }

# expect_attached NUMBER: the disk in this place, at once, and that it can be used.
expect_attached() {
    local plugged
    plugged=$(hundredths)
    echo "plug $1" >&5
    wait_ports_used $(($1 + 1))
    [ $(($(hundredths) - plugged)) -le 200 ] || fail "disk $1 attaches after $(passed "$plugged") s"
    say "disk $1 attaches after $(passed "$plugged") s"
    disk=$(wait_for_disk $((2 * $1)))
    expect_same "disk $1" "$(sha256 "/tmp/$1.img")" "$(sha256 "/dev/$disk")"
    say "and is read whole $(passed "$plugged") s after it was plugged in"
}

for number in 1 2; do head -c $((number * 2097152)) /dev/urandom >/tmp/$number.img; done
start_liar stall 127.0.0.1:3240
xj-usbip-remote --listen "$remote" --usbip 127.0.0.1/1-1 --disk /tmp/1.img --disk /tmp/2.img \
    >>"$LOG_DIR/remote.log" 2>&1 <&5 5>&- 8>&- 9<&- &
remote_pid=$!
wait_until 10 "the remote side to listen" grep -q "listening on" "$LOG_DIR/remote.log"
for number in 1 2; do echo "unplug $number" >&5; done
wait_until 10 "only the microphone to be plugged in" grep -q "unplugged 2" "$LOG_DIR/remote.log"
start_host
wait_until 60 "the kernel to give up" kernel_gives_up
port=$(stalled_port)
expect_attached 1
expect_attached 2
expect_same "the port of the stalled device" "$port" "$(stalled_port | head -n1)"
stop_host
stop_remote_here
wait_all_ports_free
