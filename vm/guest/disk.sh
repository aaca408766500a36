# shellcheck shell=dash
# The story of one disk, told by several scenarios at different speeds and over different links.

# disk_story KIND SPEED OPTION...: a disk of this speed ("high" or "super"), served by a remote side
# with these options, holds what it should, takes a file system, and keeps it over a re-attach.
# KIND is the kind of image, see act_make_..._image.
disk_story() {
    local kind speed disk
    kind=$1 speed=$2
    shift 2
    outside "make_${kind}_image" disk.img 16
    outside start_remote --disk "disk.img,speed=$speed" "$@"
    start_host
    disk=$(wait_for_disk 16)
    expect_same "speed in Mbit/s" "$([ "$speed" = super ] && echo 5000 || echo 480)" \
        "$(cat "$(usb_of_disk "$disk")/speed")"
    expect_same "whole disk" "$(outside sha256 disk.img)" "$(sha256 "/dev/$disk")"

    mkfs.ext4 -q "/dev/$disk"
    mount -t ext4 "/dev/$disk" /mnt
    head -c 2097152 /dev/urandom >/mnt/random
    seq 20000 >/mnt/numbers
    random=$(sha256 /mnt/random)
    numbers=$(sha256 /mnt/numbers)
    umount /mnt
    expect_same "whole disk after writing" "$(sha256 "/dev/$disk")" "$(outside sha256 disk.img)"

    stop_host
    wait_disk_gone 16
    wait_all_ports_free
    start_host
    disk=$(wait_for_disk 16)
    e2fsck -fn "/dev/$disk"
    mount -t ext4 -o ro "/dev/$disk" /mnt
    expect_same "file of random bytes" "$random" "$(sha256 /mnt/random)"
    expect_same "file of numbers" "$numbers" "$(sha256 /mnt/numbers)"
    umount /mnt
    stop_host
    wait_all_ports_free
    outside stop_remote
}
