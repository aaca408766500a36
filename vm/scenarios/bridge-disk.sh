# about: a disk that a USB/IP server offers: read whole and written, beside the kernel's own way
# qemu: -device qemu-xhci,id=xhci
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
outside make_random_image disk.img 8
start_server usb-storage
plug_disk 1 disk.img

for way in kernel our; do
    attach $way 1
    disk=$(wait_for_disk 8)
    tell_when_usable $way
    expect_same "whole disk" "$(outside sha256 disk.img)" "$(sha256 "/dev/$disk")"
    head -c 4194304 /dev/urandom >/tmp/new
    timed "$way way: reading 8 MiB" dd if="/dev/$disk" of=/dev/null bs=256k iflag=direct
    timed "$way way: writing 4 MiB" dd if=/tmp/new of="/dev/$disk" bs=256k oflag=direct
    expect_same "whole disk after writing" "$(sha256 "/dev/$disk")" "$(outside sha256 disk.img)"
    cmp -n 4194304 /tmp/new "/dev/$disk" || fail "the disk has something else than what was written"
    detach $way
done
