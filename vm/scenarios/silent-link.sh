# about: an idle disk is usable again soon after a minute without a link, of which nobody was told
# status=off: the guest is not told either, as when the cable is pulled somewhere far away.
# qemu: -netdev stream,id=link,server=on,addr.type=unix,addr.path=link -device virtio-net-device,netdev=link,mac=52:54:00:00:09:02,status=off
# limit: 240
silence=60
remote=10.9.0.1:9000
server_is_ready() { grep -qs 'listening on' "$LOG_DIR/server/remote.log"; }
read_all() { expect_same "whole disk" "$(cat "$LOG_DIR/server/sum")" "$(sha256 "/dev/$(find_disk 4)")"; }

outside boot_server disk-server.sh \
    -netdev stream,id=link,server=off,addr.type=unix,addr.path=link \
    -device virtio-net-device,netdev=link,mac=52:54:00:00:09:01
join_link 52:54:00:00:09:02 10.9.0.2
wait_until 60 "the other computer" server_is_ready
start_host --reconnect
wait_for_disk 4
read_all

outside monitor set_link link off
silent_at=$(hundredths)
wait_until $silence "the host to notice" disk_is_gone 4
say "The host notices after $(passed "$silent_at") s that the link is silent."
sleep $((silence - ($(hundredths) - silent_at) / 100))
outside monitor set_link link on
back_at=$(hundredths)
wait_until 40 "the disk of 4 MiB" disk_is_there 4
read_all
say "The disk is usable $(passed "$back_at") s after the link's return."
stop_host
wait_disk_gone 4
wait_all_ports_free
