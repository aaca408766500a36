# about: the remote side dies under load: the host says so and ends, or comes back with --reconnect
outside make_empty_image big.img 2048
outside start_remote --disk big.img
start_host
start_reading "$(wait_for_disk 2048)"
outside kill_remote
expect_read_error 10
wait_for_end "$host_pid" 10 "the host"
expect_same "exit status of the host" 1 "$ended_with"
wait_all_ports_free

outside start_remote --disk big.img
start_host --reconnect
start_reading "$(wait_for_disk 2048)"
outside kill_remote
expect_read_error 10
wait_all_ports_free
outside start_remote --disk big.img
wait_for_disk 2048
stop_host
wait_all_ports_free
