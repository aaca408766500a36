# shellcheck shell=dash
# Eight disks at once, half of them at super speed.

numbers="1 2 3 4 5 6 7 8"

# make_eight MIB: their images.
make_eight() {
    local number
    for number in $numbers; do outside make_random_image "$number.img" "$1"; done
    echo 0 >/sys/module/usb_storage/parameters/delay_use  # seconds; it would wait for one
}

# offer_eight: by a new remote side.
offer_eight() {
    outside start_remote --disk 1.img --disk 2.img --disk 3.img --disk 4.img \
        --disk 5.img,speed=super --disk 6.img,speed=super --disk 7.img,speed=super --disk 8.img,speed=super
}

# tell_eight COMMAND: plug or unplug, all of them.
tell_eight() {
    local number
    for number in $numbers; do outside tell_remote "$1" "$number"; done
}

imported_disks() { realpath /sys/block/sd* 2>/dev/null | sed -n 's|.*/vhci_hcd\..*/||p'; }
imported_disks_are() { [ "$(imported_disks | wc -l)" -eq "$1" ]; }

# wait_for_eight: until all can be used; their names are in $disks.
wait_for_eight() {
    wait_until 120 "eight disks" imported_disks_are 8
    disks=$(imported_disks)
}

wait_eight_gone() {
    wait_all_ports_free
    wait_until 30 "the disks to go" imported_disks_are 0
}

# sums_here, sums_there: the checksums of all disks, as they have just arrived, and of all images,
# in an order of their own.
sums_here() {
    # shellcheck disable=SC2086  # a list
    (cd /dev && sha256sum $disks) | cut -d' ' -f1 | sort
}
sums_there() {
    local number
    for number in $numbers; do outside sha256 "$number.img"; done | sort
}

sectors_written() { awk '{ print $7 }' "/sys/block/$1/stat"; }
has_written() { [ "$(sectors_written "$1")" -gt 0 ]; }

# start_writing: beside the reading, random bytes over the second MiB of each, again and again, past
# the page cache; and returns when all have begun.
start_writing() {
    local disk
    for disk in $disks; do
        (while dd if=/dev/urandom of="/dev/$disk" bs=64k count=16 seek=16 oflag=direct; do :; done) \
            8>&- 9<&- &
        workers="$workers $!"
    done
    for disk in $disks; do wait_until 60 "data to flow to $disk" has_written "$disk"; done
}
