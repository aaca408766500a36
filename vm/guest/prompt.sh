# shellcheck shell=dash
# A person's prompt in the guest.
cat >/etc/profile <<END
export PS1='guest# ' PATH=$PATH
. $VM_DIR/guest/lib.sh
fail() { log "\$*"; return 1; }  # a mistake does not end the prompt
ports_in_use_before=0
attach() { start_host "\$@"; echo "The host's messages are in $LOG_DIR/host.log"; }
detach() { stop_host; }
END
cat <<END

  A 64-bit ARM Linux, kernel $(uname -r); programs are ours and busybox's.
    attach                         starts the host; its disk arrives as /dev/sda after two seconds
    ports_in_use                   the kernel's table of USB/IP ports, without the free ones
    outside tell_remote unplug 1   asks the remote side, which runs outside (see vm/harness/)
    detach                         stops the host
    exit                           leaves
  The words of scenarios (vm/guest/lib.sh) work here too.

END
setsid cttyhack sh -l
