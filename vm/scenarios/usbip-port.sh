# about: the packaged `usbip port` shows our ports, with the record that the module left for it
# qemu: -device qemu-xhci,id=xhci
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
start_server usbhid hid-generic evdev
plug 1 usb-kbd
xj-usbip-remote --list 127.0.0.1 | tee /tmp/list
grep -q "$(busid 1) .*0627:0001 " /tmp/list || fail "the remote side lists something else"

attach our 1
wait_for_imported input 'event*'
usbip port | tee /tmp/ports
number=$(printf '%02d' "$(port_numbers_in_use)")
grep -q "Port $number: <Port in Use> at High Speed" /tmp/ports || fail "usbip lists another port"
grep -q '(0627:0001)' /tmp/ports || fail "usbip lists another device"
read -r host service address <"/var/run/vhci_hcd/port$(port_numbers_in_use)"
grep -q "usbip://$host:$service/$address" /tmp/ports || fail "usbip does not know the record"
detach our
usbip port | tee /tmp/ports
if grep -q 'Port in Use' /tmp/ports; then fail "usbip lists a port that is free"; fi
