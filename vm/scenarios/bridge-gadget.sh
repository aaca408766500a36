# about: a disk and a modem in one device that the guest itself plays, beside the kernel's own way
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
start_server dummy_hcd usb_f_mass_storage usb_f_acm usb-storage cdc-acm
head -c 4194304 /dev/urandom >/tmp/disk.img

mount -t configfs configfs /sys/kernel/config
mkdir /sys/kernel/config/usb_gadget/both
cd /sys/kernel/config/usb_gadget/both || exit
echo 0x1d6b >idVendor
echo 0x0104 >idProduct
mkdir functions/mass_storage.0 functions/acm.0 configs/c.1
echo /tmp/disk.img >functions/mass_storage.0/lun.0/file
ln -s functions/mass_storage.0 functions/acm.0 configs/c.1
echo dummy_udc.0 >UDC
cd /
wait_until 30 "the gadget on its bus" is_there 1
usbip bind -b "$(busid 1)"

# pass FROM TO: a line from one end of the modem's line to the other.
pass() {
    echo "from $1 to $2" >"/dev/$1"
    expect_same "line" "from $1 to $2" "$(timeout 30 head -n1 "/dev/$2")"
}

for way in kernel our; do
    attach $way 1
    disk=$(wait_for_disk 4)
    tty=$(wait_for_imported tty 'ttyACM*')
    tell_when_usable $way
    timed "$way way: reading 4 MiB" dd if="/dev/$disk" of=/tmp/read bs=256k iflag=direct
    cmp /tmp/read /tmp/disk.img || fail "the disk has something else than the file behind it"
    exec 5<>"/dev/$tty" 6<>/dev/ttyGS0  # both stay open, or what is under way is lost
    stty raw -echo <&5
    stty raw -echo <&6
    pass "$tty" ttyGS0
    pass ttyGS0 "$tty"
    exec 5>&- 6>&-
    detach $way
done
