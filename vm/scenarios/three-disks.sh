# about: three disks mapped in one burst are all usable, and their ports are free at the end
for size in 4 6 8; do outside make_random_image $size.img $size; done
outside start_remote --disk 4.img --disk 6.img,speed=super --disk 8.img
start_host
for size in 4 6 8; do
    disk=$(wait_for_disk $size)
    expect_same "disk of $size MiB" "$(outside sha256 $size.img)" "$(sha256 "/dev/$disk")"
done
expect_same "ports in use" 3 "$(count_ports_in_use)"
stop_host
wait_all_ports_free
outside stop_remote
