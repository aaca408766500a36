# about: host and remote side die while eight disks are read and written: no hang, and all comes back
# kernel: panic_on_warn=1 slub_debug=FZP log_buf_len=4M loglevel=5
# limit: 600
# shellcheck source=guest/eight.sh
. "$VM_DIR/guest/eight.sh"

expect_all_disks() {
    wait_for_eight
    expect_same "the disks" "$(sums_there)" "$(sums_here)"
}

begin_load() {
    expect_all_disks
    # shellcheck disable=SC2086  # a list
    start_reading $disks
    start_writing
}

# end_load WHO: after this one's death.
end_load() {
    timed "after the death of $1, freeing all ports" wait_all_ports_free
    timed "and the I/O errors" expect_read_error 20
    wait_eight_gone
}

expect_watchful_kernel
make_eight 2
offer_eight
start_host
begin_load
kill -KILL "$host_pid"
end_load "the host"
start_host
begin_load
outside kill_remote
end_load "the remote side"
wait_for_end "$host_pid" 30 "the host"
expect_same "exit status of the host" 1 "$ended_with"

offer_eight
start_host --reconnect
begin_load
outside kill_remote
end_load "the remote side, which is expected back"
offer_eight
expect_all_disks
stop_host
wait_eight_gone
outside stop_remote
