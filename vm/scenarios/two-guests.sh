# about: two computers: one has a USB disk and serves it, the other uses it over the network
# qemu: -netdev stream,id=link,server=on,addr.type=unix,addr.path=link -device virtio-net-device,netdev=link,mac=52:54:00:00:09:02
# limit: 300
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
remote=10.9.0.1:9000
server_is_ready() { grep -qs 'listening on' "$LOG_DIR/server/remote.log"; }
read_all() { expect_same "whole disk" "$sum" "$(sha256 "/dev/$disk")"; }

outside make_random_image disk.img 8
say "Remote: a second virtual computer boots; the USB disk in it is QEMU's, the file disk.img."
outside boot_server server.sh \
    -netdev stream,id=link,server=off,addr.type=unix,addr.path=link \
    -device virtio-net-device,netdev=link,mac=52:54:00:00:09:01 \
    -device qemu-xhci,id=xhci -drive if=none,id=disk,format=raw,file=disk.img \
    -device usb-storage,drive=disk,bus=xhci.0,port=1
join_link 52:54:00:00:09:02 10.9.0.2
wait_until 120 "the other computer" server_is_ready
say "Remote: usbipd offers the disk, xj-usbip-remote takes it from there and listens on $remote."
sum=$(outside sha256 disk.img)

usbip attach -r 10.9.0.1 -b "$(xj-usbip-remote --list 10.9.0.1 | awk 'NR == 2 { print $1 }')"
disk=$(wait_for_disk 8)
timed "Local:  to compare, reading all of it over Linux's own attach" read_all
detach kernel
wait_disk_gone 8

start_host
disk=$(wait_for_disk 8)
usb=$(usb_of_disk "$disk")
say "Local:  xj-usbip-host has connected to it; the disk is /dev/$disk, '$(cat "$usb/product")' of '$(cat "$usb/manufacturer")'."
timed "Local:  reading all of it" read_all
say "Both sides' SHA-256 of the whole disk is $sum."

text="written on another computer, boot $(cut -c1-8 /proc/sys/kernel/random/boot_id)"
echo "$text" | dd of="/dev/$disk" bs=1k seek=8191 conv=fsync
expect_same "text on the disk" "$text" "$(outside first_line_at disk.img 8191)"
say "Local writes '$text' into the last KiB; disk.img has it."
stop_host
wait_disk_gone 8
wait_all_ports_free
say "Local:  the host has ended; the disk is gone and its port is free."
