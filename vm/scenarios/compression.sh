# about: the same with compression on the link, which is really used
# shellcheck source=guest/disk.sh
. "$VM_DIR/guest/disk.sh"
disk_story text high --compress
compressed=$(outside remote_counter compressed)
[ "$compressed" -gt 0 ] || fail "no message was compressed"
