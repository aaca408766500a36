#!/bin/bash
# native.sh FILE: runs one scenario on this machine, with this machine's vhci_hcd, and says how it
# ended. What start.sh is for the guest. Standard input is a socket: the way to the outside and back.
exec 8>&0 9<&0 </dev/null
mark="xj-usbip scenario $$ begins"
echo "$mark" >/dev/kmsg
status=0
bash "$VM_DIR/guest/scenario.sh" "$1" || status=$?
dmesg | sed -n "/$mark/,\$p" >"$LOG_DIR/dmesg"
echo "done $status" >&8
kill -KILL 0  # what the scenario has left behind: all are of one group, and no other is in it
