# about: `xj-usbip-host doctor` sees the real driver and its ports, and says when it is missing; so does the host, also when it is not root
"$HOST_PROGRAM" doctor | tee "$LOG_DIR/doctor.log"
grep -q '120 free, 0 in use' "$LOG_DIR/doctor.log" || fail "doctor counts other ports"
rmmod vhci_hcd
if "$HOST_PROGRAM" doctor; then fail "doctor sees a driver that is not loaded"; fi
ended_with=0
"$HOST_PROGRAM" --module "$MODULE" --connect 127.0.0.1:1 2>"$LOG_DIR/unfit.log" || ended_with=$?
expect_same "exit status of a host without the driver" 4 "$ended_with"
grep -q 'sudo modprobe vhci-hcd' "$LOG_DIR/unfit.log" || fail "the host does not say what to do"
modprobe vhci-hcd
"$HOST_PROGRAM" doctor || fail "doctor does not see the driver again"

echo nobody:x:65534:65534:nobody:/:/bin/sh >>/etc/passwd
ended_with=0
su nobody -s /bin/sh -c "$HOST_PROGRAM --module $MODULE --connect 127.0.0.1:1" 2>"$LOG_DIR/unfit.log" || ended_with=$?
expect_same "exit status of a host without permission" 4 "$ended_with"
grep -q 'nobody may not write .*/attach: Permission denied' "$LOG_DIR/unfit.log" || fail "it does not say what it may not"
grep -q 'Run the host as root' "$LOG_DIR/unfit.log" || fail "it does not say what to do"
