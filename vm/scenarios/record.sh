# about: the record that tools such as `usbip port` read: which remote device sits on which port
outside make_random_image 8.img 8
outside start_remote --disk 8.img
start_host
wait_for_disk 8
# Fields of a line of the port table: hub, port, state, speed, device, socket, local bus id.
port=$(port_numbers_in_use)
device=$(ports_in_use | awk '{ print $5 }')
record=/var/run/vhci_hcd/port$port
log "$record: $(cat "$record")"
grep -qxE 'xj-remote 0 [0-9]+-[0-9]+' "$record" || fail "the record has another form"
read -r _ _ address <"$record"
expect_same "bus and device number" "$device" \
    "$(printf '%08x' $((${address%-*} << 16 | ${address#*-})))"
stop_host
wait_all_ports_free
