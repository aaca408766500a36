# about: the guest's kernel crashes
# expect: FAIL.*Kernel panic
# limit: 20
echo c >/proc/sysrq-trigger
