# about: a serial adapter that a USB/IP server offers: bytes pass both ways
# qemu: -device qemu-xhci,id=xhci
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
start_server ftdi_sio
plug_serial 1
for way in kernel our; do
    attach $way 1
    tty=$(wait_for_imported tty 'ttyUSB*')
    tell_when_usable $way
    timed "$way way: 20000 bytes out and in" send_and_receive "$tty"
    detach $way
done
