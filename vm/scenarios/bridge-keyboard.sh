# about: a keyboard that a USB/IP server offers: what is typed arrives as local input
# qemu: -device qemu-xhci,id=xhci
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
start_server usbhid hid-generic evdev
plug 1 usb-kbd
for way in kernel our; do
    attach $way 1
    input=$(wait_for_imported input 'event*')
    tell_when_usable $way
    start_typing_log "$input"
    timed "$way way: four keys" type_and_expect
    detach $way
    wait_for_end "$typing_logger" 30 "the input with the keyboard"
done
