# shellcheck shell=dash
# What the second guest runs: it offers the USB disk in port 1 of its bus to whoever connects to
# 10.9.0.1:9000, until it is switched off.
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
cat /dev/kmsg >"$LOG_DIR/dmesg" &
join_link 52:54:00:00:09:01 10.9.0.1
start_server usb-storage
wait_until 30 "the disk on the bus" is_there 1
usbip bind -b "$(busid 1)"
remote=10.9.0.1:9000
start_remote_here --usbip "127.0.0.1/$(busid 1)" --wait
wait "$remote_pid"
