# about: what ./demo.sh shows: a remote disk arrives, is read, is written, and leaves again
size=16
mark="the demo begins, $$ at $(now)"
echo "$mark" >/dev/kmsg

# The telling ones of the kernel's lines since it was told the mark.
telling='new .*-speed USB|New USB device found|Product:|Manufacturer:|Mass Storage device|Direct-Access|logical blocks|Attached SCSI|USB disconnect'
kernel_says() {
    dmesg | sed "1,/$mark/d" | grep -E "$telling" | while read -r line; do say "    $line"; done
    mark="$mark."
    echo "$mark" >/dev/kmsg
}

host_says_so() { grep -q "$1" "$LOG_DIR/host.log"; }
# host_says PATTERN: waits for its line, and shows it.
host_says() {
    wait_until 30 "the host to say '$1'" host_says_so "$1"
    say "Local:  the host says:"
    say "    $(grep "$1" "$LOG_DIR/host.log" | cut -d' ' -f3-)"
}

outside make_random_image disk.img $size
outside start_remote --disk disk.img
say "Remote: a computer with a USB disk of $size MiB, the file disk.img. xj-usbip-remote serves it."
say "Local:  $(uname -m) Linux $(uname -r); its vhci_hcd has $(cat "$vhci/nports") virtual USB ports, $(count_ports_in_use) in use."
say "Local:  xj-usbip-host loads libxj-client-usbip.so and connects. The kernel says:"
start_host
disk=$(wait_for_disk $size)
kernel_says
host_says "is usb .* on port"

say "Both sides' SHA-256 of the whole disk, local /dev/$disk and remote disk.img:"
local_sum=$(sha256 "/dev/$disk")
remote_sum=$(outside sha256 disk.img)
say "    local   $local_sum"
say "    remote  $remote_sum"
expect_same "checksum" "$remote_sum" "$local_sum"

text="written on $(uname -m), boot $(cut -c1-8 /proc/sys/kernel/random/boot_id)"
last_block=$((size * 1024 - 1))  # in KiB
echo "$text" | dd of="/dev/$disk" bs=1k seek=$last_block conv=fsync
found=$(outside first_line_at disk.img $last_block)
say "Local writes '$text' into the last KiB of /dev/$disk;"
say "disk.img on the remote side has there: '$found'"
expect_same "text" "$text" "$found"

say "Remote: pulls the plug. The kernel says:"
outside tell_remote unplug 1
wait_disk_gone $size
wait_all_ports_free
kernel_says
host_says " left: "
stop_host
outside stop_remote
say "The port is free again: $(count_ports_in_use) of $(cat "$vhci/nports") in use. Host and remote side have ended."
