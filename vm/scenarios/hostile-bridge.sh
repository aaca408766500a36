# about: replies by which a USB/IP server would have the kernel touch memory of others end their device, and only that
# kernel: panic_on_warn=1 oops=panic slub_debug=FZP log_buf_len=4M loglevel=5
# limit: 480
# shellcheck source=guest/hostile.sh
. "$VM_DIR/guest/hostile.sh"
begin_lying
expect_lies_refused bridge
