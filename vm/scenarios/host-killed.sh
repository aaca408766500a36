# about: the host dies under load (SIGKILL): ports free, and the next host attaches again
outside make_empty_image big.img 2048
outside start_remote --disk big.img --disk big.img,ro,speed=super
start_host
wait_ports_used 2
start_reading "$(wait_for_disk 2048 | head -n1)"
kill -KILL "$host_pid"
wait_for_end "$host_pid" 5 "the host"
expect_read_error 10
wait_all_ports_free
wait_disk_gone 2048
start_host
wait_for_disk 2048
stop_host
wait_all_ports_free
outside stop_remote
