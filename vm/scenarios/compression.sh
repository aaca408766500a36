# about: the same with compression on the link, and fewer bytes on it than the disk has
# shellcheck source=guest/disk.sh
. "$VM_DIR/guest/disk.sh"
disk_story text high --compress
