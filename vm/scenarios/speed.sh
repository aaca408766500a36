# about: what a disk's reads cost in counted time, and its arrival, beside the kernel's own attach
# Each read is a command of its own, past the page cache, to a disk that answers at once: whether places
# are at random makes no difference, and the clock counts instructions, nearly all of them the way's.
# clock: counted
# qemu: -device qemu-xhci,id=xhci -drive if=none,id=null,file=null-co://,file.size=64M,format=raw
# limit: 120
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"

# usage PID...: for each, the processor time in ns, and the waits, of all its threads.
usage() {
    local pid
    for pid; do
        cat "/proc/$pid"/task/*/schedstat "/proc/$pid"/task/*/status |
            awk '/^[0-9]/ { ns += $1 } /^voluntary/ { waits += $2 } END { print ns, waits }'
    done
}

# seconds DISK SIZE COUNT: what so many reads take.
seconds() {
    local started
    started=$(hundredths)
    dd if="/dev/$1" of=/dev/null bs="$2" count="$3" iflag=direct
    passed "$started"
}

# measure WAY DISK PID...: leaves "4-KiB-READS/S MB/S-IN-64-KiB MB/S-IN-1-MiB" in $of_WAY.
measure() {
    local way disk small
    way=$1 disk=$2
    shift 2
    seconds "$disk" 1M 4 >/dev/null
    usage "$@" >/tmp/before
    small=$(seconds "$disk" 4k 1000)
    usage "$@" >/tmp/after
    eval "of_$way=\"$(echo "$small $(seconds "$disk" 64k 512) $(seconds "$disk" 1M 48)" |
        awk '{ printf "%.0f %.1f %.1f", 1000 / $1, 33.554 / $2, 50.332 / $3 }')\""
    eval "say $way: 4 KiB reads/s, MB/s in 64 KiB and in 1 MiB: \$of_$way"
    # A read is three URBs: the command, the data and the status.
    paste /tmp/before /tmp/after |
        awk '{ printf "us and waits per URB: %.0f %.1f\n", ($3 - $1) / 3e6, ($4 - $2) / 3000 }' |
        while read -r line; do say "    $line"; done
}

# arrive COMMAND...: has a disk attached by this; its name is in $disk, and the time until it can be
# used, in seconds, in $arrived.
arrive() {
    echo "$*" >/dev/kmsg
    "$@"
    disk=$(wait_for_disk 64)
    arrived=$(dmesg | tr -d '[]' | awk -v start="$*" '
        index($0, start) { began = $1 } /Attached SCSI/ { there = $1 } END { print there - began }')
}
attach_by_kernel() { usbip attach -r 127.0.0.1 -b "$(busid 1)"; }

# serve WAY ARG...: our way, from a remote side with these arguments to the figures and back.
serve() {
    local way started
    way=$1
    shift
    start_remote_here "$@"
    arrive start_host
    measure "$way" "$disk" "$remote_pid" "$host_pid"
    started=$(hundredths)
    kill -INT "$host_pid"
    wait "$host_pid"
    left=$(passed "$started")
    host_pid=
    stop_remote_here
    wait_all_ports_free
}

# expect WHAT FOUND least|most BOUND
expect() {
    say "    $1: $2, at $3 $4"
    awk -v found="$2" -v bound="$4" -v rule="$3" \
        'BEGIN { exit rule == "least" ? found < bound : found > bound }' || fail "$1: $2"
}

# expect_beside_kernel WAY LEAST LEAST LEAST MOST: for each of the three figures, and for the arrival.
expect_beside_kernel() {
    local way what mine theirs
    way=$1
    eval "mine=\$of_$1"
    shift
    theirs=$of_kernel
    for what in "4 KiB" "64 KiB" "1 MiB"; do
        expect "$way to kernel, $what" \
            "$(echo "${mine%% *} ${theirs%% *}" | awk '{ printf "%.2f", $1 / $2 }')" least "$1"
        mine=${mine#* } theirs=${theirs#* }
        shift
    done
    expect "$way to kernel, arrival" \
        "$(echo "$arrived $arrived_by_kernel" | awk '{ printf "%.2f", $1 / $2 }')" most "$1"
    expect "$way, seconds from Ctrl-C to the host's end" "$left" most 0.3
}

# Bounds are a tenth and more below what was reached: the disk that QEMU plays has some latency after
# all, and more of it on a busy machine, which is to our advantage.
echo 0 >/sys/module/usb_storage/parameters/delay_use  # seconds
head -c 67108864 /dev/zero >/tmp/disk.img
start_server usb-storage
outside monitor device_add usb-storage,id=usb1,bus=xhci.0,port=1,drive=null
native_disk_is_there() { [ -e /sys/block/sda/size ]; }
wait_until 30 "the disk on the bus" native_disk_is_there
measure native sda

usbip bind -b "$(busid 1)"
arrive attach_by_kernel
arrived_by_kernel=$arrived
measure kernel "$disk"
detach kernel
wait_disk_gone 64

serve disk --disk /tmp/disk.img,speed=super
expect_beside_kernel disk 0.60 0.54 0.70 1.1
wait_disk_gone 64
serve bridge --usbip "127.0.0.1/$(busid 1)" --wait
expect_beside_kernel bridge 0.40 0.38 0.45 1.5
