# shellcheck shell=dash
# The rest of the guest's start, read by init: network, drivers, then a scenario or a prompt.

ip link set lo up
ip link set eth0 up
ip addr add 10.0.2.15/24 dev eth0
modprobe -a vhci-hcd usb-storage sd_mod
echo root:x:0:0:root:/root:/bin/sh >/etc/passwd
echo 20 >/proc/sys/kernel/hung_task_timeout_secs  # a stuck task is told within a scenario

# QEMU's user network shows the outside's own loopback at this address.
export REMOTE_ADDRESS=10.0.2.2
export VM_DIR ARM64_DIR LOG_DIR
export HOST_PROGRAM="$ARM64_DIR/host/xj-usbip-host" MODULE="$ARM64_DIR/libxj-client-usbip.so"
export PATH="$PATH:/usr/sbin:/usr/bin:$ARM64_DIR/host:$ARM64_DIR/remote:$ARM64_DIR/vm/microphone"

# The first port of the only serial device, whose own number depends on what else there is.
exec 8<>"$(echo /dev/vport*p1)" 9<&8  # requests to the outside and its answers; see lib.sh

# When a scenario did not end by itself: who waits for what?
log_state() {
    ps
    cat /sys/devices/platform/vhci_hcd.0/status* | grep -v ' 004 '
    echo w >/proc/sysrq-trigger
}

# A counted clock leaps while nothing runs. So something always does, when nobody else wants to: a
# group of processes with the lowest priority.
if [ "$CLOCK" = counted ]; then
    echo 1 >/proc/sys/kernel/sched_autogroup_enabled
    setsid sh -c 'echo 19 >/proc/self/autogroup; while :; do :; done' 8>&- 9<&- &
fi

if [ -z "$SCENARIO" ]; then
    . "$VM_DIR/guest/prompt.sh"
else
    status=0
    timeout -k 5 "$LIMIT" sh "$VM_DIR/guest/scenario.sh" "$SCENARIO" || status=$?
    [ "$status" -lt 128 ] || log_state >"$LOG_DIR/state.log" 2>&1
    dmesg >"$LOG_DIR/dmesg"
    echo "done $status" >&8
    sleep 10  # the outside ends us
fi
poweroff -f
