# about: a keyboard that a USB/IP server offers: what is typed arrives as local input
# qemu: -device qemu-xhci,id=xhci
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
start_server usbhid hid-generic evdev
plug 1 usb-kbd

for way in kernel our; do
    attach $way 1
    keyboard=$(wait_for_input)
    say "$way way: usable after $(passed "$attached_at") s"
    start_typing_log "$keyboard"
    for key in x j 1 ret; do outside monitor sendkey $key; done
    wait_until 10 "four keys, pressed and released" \
        typed_is "45 1, 45 0, 36 1, 36 0, 2 1, 2 0, 28 1, 28 0"
    detach $way
    wait_for_end "$typing_logger" 5 "the input with the keyboard"
done
