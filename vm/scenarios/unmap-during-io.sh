# about: a disk pulled out while it is being read: an I/O error, no hang, and its port is free
outside make_empty_image big.img 2048
outside make_random_image 8.img 8
outside start_remote --disk big.img --disk 8.img
start_host
small=$(wait_for_disk 8)
start_reading "$(wait_for_disk 2048)"
outside tell_remote unplug 1
expect_read_error 20
wait_disk_gone 2048
wait_ports_used 1
expect_same "the other disk" "$(outside sha256 8.img)" "$(sha256 "/dev/$small")"

outside tell_remote plug 1
start_reading "$(wait_for_disk 2048)"  # and it can come back
stop_host
expect_read_error 20
wait_all_ports_free
