# about: while a disk is read, another is added at the remote side, used, and removed again
outside make_random_image 32.img 32
outside make_random_image 8.img 8
outside start_remote --disk 32.img --control control
start_host
big=$(wait_for_disk 32)
start_reading "$big"
goes_on() { wait_until 60 "the first disk to be read on" has_read_more "$big" $(($(sectors_read "$big") + 2000)); }
for number in 2 3; do
    outside ask_remote add --disk 8.img
    expect_same "devices of the remote side" "1 mapped disk1 32.img 1d6b:0104;$number mapped disk$number 8.img 1d6b:0104" \
        "$(outside ask_remote list)"
    expect_same "the added disk" "$(outside sha256 8.img)" "$(sha256 "/dev/$(wait_for_disk 8)")"
    goes_on
    outside ask_remote remove $number
    wait_disk_gone 8
    wait_ports_used 1
    goes_on
done
expect_same "devices of the remote side" "1 mapped disk1 32.img 1d6b:0104" "$(outside ask_remote list)"
outside ask_remote unplug 1
expect_read_error 20
stop_host
wait_all_ports_free
