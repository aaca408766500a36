#!/bin/sh
# scenario.sh FILE: runs one scenario, in the guest or natively. Its exit status is the result;
# what happened is in guest.log.
set -eu
exec >>"$LOG_DIR/guest.log" 2>&1

# shellcheck source=guest/lib.sh
. "$VM_DIR/guest/lib.sh"

finish() {
    status=$?
    trap - EXIT
    [ -z "$host_pid" ] || kill -KILL "$host_pid" 2>/dev/null || true
    exit "$status"
}
trap finish EXIT
trap 'exit 143' TERM

ports_in_use_before=$(count_ports_in_use)
# shellcheck source=/dev/null
. "$1"
