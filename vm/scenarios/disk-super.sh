# about: the same with a super-speed disk
# shellcheck source=guest/disk.sh
. "$VM_DIR/guest/disk.sh"
disk_story random super
