# about: a kernel with options of its own, and what its heap checker says of a damaged object
# expect: FAIL.*Redzone overwritten
# kernel: panic_on_warn=1 slub_debug=FZP log_buf_len=4M loglevel=5
# limit: 20
expect_watchful_kernel
echo "BUG kmalloc-128 (Not tainted): Redzone overwritten" >/dev/kmsg
