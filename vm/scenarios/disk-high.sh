# about: a high-speed disk: read whole, a file system made on it, detached, attached, files intact
# shellcheck source=guest/disk.sh
. "$VM_DIR/guest/disk.sh"
disk_story random high
