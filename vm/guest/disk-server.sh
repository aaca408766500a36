# shellcheck shell=dash
# What the second guest runs: a remote side with a disk of 4 MiB, for whoever connects to
# 10.9.0.1:9000, until it is switched off. The disk's checksum is in the file `sum`.
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
cat /dev/kmsg >"$LOG_DIR/dmesg" &
join_link 52:54:00:00:09:01 10.9.0.1
head -c 4194304 /dev/urandom >/tmp/disk.img
sha256 /tmp/disk.img >"$LOG_DIR/sum"
remote=10.9.0.1:9000
start_remote_here --disk /tmp/disk.img
wait "$remote_pid"
