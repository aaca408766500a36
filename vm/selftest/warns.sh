# about: all is well but for a line in the kernel's log
# expect: FAIL.*WARNING: CPU
# limit: 20
echo "WARNING: CPU: 0 PID: 1 at selftest" >/dev/kmsg
