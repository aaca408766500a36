# shellcheck shell=dash
# A person's prompt in the guest.
cat >/etc/profile <<END
export PS1='guest# ' PATH=$PATH
. $VM_DIR/guest/lib.sh
attach() { start_host "\$@"; }
detach() { stop_host; }
END
cat <<END

  This is a 64-bit ARM Linux, kernel $(uname -r). The programs in PATH are ours and busybox's.
    attach                         starts the host: the remote side's disk arrives as /dev/sda
    cat $vhci/status   the kernel's table of ports
    outside tell_remote unplug 1   asks the remote side, which runs outside; see vm/outside.sh
    detach                         stops the host
  exit leaves.

END
setsid cttyhack sh -l
