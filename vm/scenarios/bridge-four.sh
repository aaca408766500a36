# about: four devices of a USB/IP server at once: disk, keyboard, loudspeaker and serial adapter
# qemu: -device qemu-xhci,id=xhci -audiodev wav,id=sound,path=heard.wav,out.mixing-engine=off
# clock: counted
# limit: 240
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
outside make_random_image disk.img 8
start_server usbhid hid-generic evdev snd-usb-audio ftdi_sio
plug_disk 1 disk.img
plug 2 usb-kbd
plug 3 "$loudspeaker"
plug_serial 4
make_sound
times=0

# use_all: all four devices, while somebody reads the disk all the time.
use_all() {
    start_typing_log "$input"
    # A buffer for all of it: with its own, aplay has met I/O errors on a machine that was very busy.
    (play /tmp/sound "$pcm" --buffer-time=1000000) 8>&- 9<&- &
    player=$!
    type_and_expect
    send_and_receive "$tty"
    wait_for_end "$player" 30 "the sound"
    expect_same "exit status of the player" 0 "$ended_with"
    expect_same "whole disk" "$(outside sha256 disk.img)" "$(sha256 "/dev/$disk")"
}

for way in kernel our; do
    attach $way 1 2 3 4
    disk=$(wait_for_disk 8)
    pcm=$(wait_for_imported sound 'pcmC*p')
    tty=$(wait_for_imported tty 'ttyUSB*')
    input=$(wait_for_imported input 'event*')
    tell_when_usable $way
    wait_ports_used 4
    start_reading "$disk"
    timed "$way way: keys, bytes, sound and 8 MiB, all at once," use_all
    times=$((times + 1))
    hear "$pcm" $times
    detach $way
    expect_read_error 20
done
