# about: a keyboard between two disks is refused by its class: no driver sees it, no key arrives
# qemu: -device qemu-xhci,id=xhci
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
says() { grep -q "$1" "$LOG_DIR/host.log"; }
gates() { cat "$vhci"/usb*/authorized_default | sort -u; }

outside make_random_image 8.img 8
outside make_random_image 9.img 9
start_server usb-storage usbhid hid-generic evdev
plug_disk 1 8.img
plug 2 usb-kbd
plug_disk 3 9.img
start_remote_here --wait --usbip "127.0.0.1/$(busid 1)" --usbip "127.0.0.1/$(busid 2)" \
    --usbip "127.0.0.1/$(busid 3)"
gates_before=$(gates)
echo "deny class=03  # what types" >/tmp/rules
start_host --rules /tmp/rules
for size in 8 9; do
    disk=$(wait_for_disk $size)
    expect_same "disk of $size MiB" "$(outside sha256 $size.img)" "$(sha256 "/dev/$disk")"
done
wait_until 60 "the refusal" says '(0627:0001, .*) refused: by the rule "deny class=03"'
say "$(grep refused "$LOG_DIR/host.log" | cut -d' ' -f2-)"
wait_ports_used 2
expect_same "drivers get devices at once" 0 "$(gates)"
for key in x j; do outside monitor sendkey $key; done
expect_same "keyboards" none "$(find_imported input 'event*' | grep . || echo none)"
stop_host
wait_all_ports_free
expect_same "drivers get devices at once, afterwards" "$gates_before" "$(gates)"

# Without the rule it would have come.
start_host --allow 0627:0001 --deny-all
wait_for_imported input 'event*'
wait_until 60 "the others' refusal" says 'refused: no rule allows it'
wait_ports_used 1
stop_host
stop_remote_here
wait_all_ports_free
