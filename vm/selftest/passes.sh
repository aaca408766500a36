# about: the way to the outside and back, and the kernel's port table
# expect: PASS
# limit: 20
expect_same "ports in use" 0 "$(count_ports_in_use)"
expect_same "ports in all" 240 "$(cat "$vhci/nports")"
outside make_random_image random.img 2
expect_same "checksum" "$(sha256 "$LOG_DIR/random.img")" "$(outside sha256 random.img)"
