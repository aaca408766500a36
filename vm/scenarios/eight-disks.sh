# about: eight disks mapped in one burst are all usable, and their ports are free at the end
# shellcheck source=guest/eight.sh
. "$VM_DIR/guest/eight.sh"
make_eight 2
offer_eight
start_host
timed "until all eight disks are there" wait_for_eight
expect_same "ports in use" 8 "$(count_ports_in_use)"
expect_same "the disks" "$(sums_there)" "$(sums_here)"
stop_host
wait_eight_gone
outside stop_remote
