# about: `xj-usbip-host doctor` sees the real driver and its ports, and says when it is missing
"$HOST_PROGRAM" doctor | tee "$LOG_DIR/doctor.log"
grep -q '120 free, 0 in use' "$LOG_DIR/doctor.log" || fail "doctor counts other ports"
rmmod vhci_hcd
if "$HOST_PROGRAM" doctor; then fail "doctor sees a driver that is not loaded"; fi
modprobe vhci-hcd
"$HOST_PROGRAM" doctor || fail "doctor does not see the driver again"
