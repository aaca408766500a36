# shellcheck shell=dash
# The words of which scenarios are made. Every wait is bounded; what does not happen in time, or
# happens wrongly, fails the scenario with a sentence that says what was expected. Bounds are for what
# never happens: ten times what an idle machine takes, and more.
#
# Given by the environment: VM_DIR, LOG_DIR, HOST_PROGRAM, MODULE, REMOTE_ADDRESS (where the remote
# side's port is reached), and two descriptors: 8 takes requests to the outside, 9 gives its answers.

vhci=/sys/devices/platform/vhci_hcd.0
host_pid=
remote=
disks_before=" $(echo /sys/block/sd*) "  # one line, each between spaces

log() { echo "[$(cut -d' ' -f1 /proc/uptime)] $*" >&2; }

fail() {
    log "FAIL: $*"
    exit 1
}

# say TEXT: a line of the story for the person who watches.
say() { outside say "$@"; }

# outside ACTION ARG...: has the machine outside do an action of vm/harness/actions.py, waits until it is
# done and prints its answer. Arguments are single words.
outside() {
    local verdict answer
    log "outside: $*"
    echo "$*" >&8
    read -r verdict answer <&9
    [ "$verdict" = ok ] || fail "outside: $*: $answer"
    [ -z "$answer" ] || echo "$answer"
}

# join_link MAC ADDRESS: gives the network interface with this hardware address an IP address.
join_link() {
    local interface
    interface=$(basename "$(dirname "$(grep -l "$1" /sys/class/net/*/address)")")
    ip addr flush dev "$interface"
    ip addr add "$2/24" dev "$interface"
    ip link set "$interface" up
}

now() { cut -d. -f1 /proc/uptime; }
hundredths() { cut -d' ' -f1 /proc/uptime | tr -d .; }

# passed SINCE: the time since then, in seconds.
passed() { awk -v t="$(($(hundredths) - $1))" 'BEGIN { printf "%.2f\n", t / 100 }'; }

# timed WHAT COMMAND...: tells how long it takes.
timed() {
    local what started
    what=$1 started=$(hundredths)
    shift
    "$@"
    say "$what takes $(passed "$started") s"
}

# wait_until SECONDS WHAT COMMAND...: COMMAND succeeds before that much time is over.
wait_until() {
    local deadline what
    deadline=$(($(now) + $1))
    what=$2
    log "waiting for $what, at most $1 s"
    shift 2
    until "$@"; do
        [ "$(now)" -lt "$deadline" ] || fail "still waiting for $what"
        sleep 0.1
    done
    log "there: $what"
}

# expect_same WHAT EXPECTED FOUND
expect_same() {
    [ "$2" = "$3" ] || fail "$1: expected '$2', found '$3'"
    [ -n "$3" ] || fail "$1: nothing to compare"
    log "as expected, $1: $3"
}

# expect_watchful_kernel: it stops at its first warning, and checks each object of its heap when that
# is taken and given back, with zones around it and a pattern in it. A scenario that asks for this has
# these options in its head; the latter two keep all that hundreds of devices make the kernel say, and
# bring its warnings to the console, from where alone they are known after a panic.
#   # kernel: panic_on_warn=1 slub_debug=FZP log_buf_len=4M loglevel=5
expect_watchful_kernel() {
    local check
    expect_same "panic at a warning" 1 "$(cat /proc/sys/kernel/panic_on_warn)"
    for check in sanity_checks red_zone poison; do
        expect_same "$check of the heap" 1 "$(cat /sys/kernel/slab/kmalloc-128/$check)"
    done
}

# --- the host -------------------------------------------------------------------------------

# start_host ARG...: connects the host to the remote side: the one that runs outside, but for
# scenarios that have set $remote.
start_host() {
    "$HOST_PROGRAM" --verbose --module "$MODULE" \
        --connect "${remote:-$REMOTE_ADDRESS:$(outside remote_port)}" "$@" \
        >>"$LOG_DIR/host.log" 2>&1 </dev/null 8>&- 9<&- &
    host_pid=$!
}

# ended PID: a child that has ended but was not waited for is a zombie.
ended() { ! grep -q '^State:[[:space:]]*[^Z]' "/proc/$1/status" 2>/dev/null; }

# wait_for_end PID SECONDS WHAT: leaves the exit status in $ended_with.
wait_for_end() {
    wait_until "$2" "the end of $3" ended "$1"
    ended_with=0
    wait "$1" || ended_with=$?
}

# stop_host: asks the host to end, as a person with Ctrl-C would; it must succeed.
stop_host() {
    kill -TERM "$host_pid"
    wait_for_end "$host_pid" 30 "the host"
    host_pid=
    expect_same "exit status of the host" 0 "$ended_with"
}

# --- the kernel's ports -----------------------------------------------------------------------

# Lines of the port table that are not free: the kernel gives a free port the state 4.
ports_in_use() { cat "$vhci"/status* | awk '$3 ~ /^[0-9]+$/ && $3 != 4'; }
# Their numbers, without the zeros in front, which busybox takes for octal.
port_numbers_in_use() { ports_in_use | awk '{ sub(/^0*/, "", $2); print $2 == "" ? 0 : $2 }'; }
count_ports_in_use() { ports_in_use | wc -l; }

ports_used_by_us_are() { [ "$(count_ports_in_use)" -eq $((ports_in_use_before + $1)) ]; }

# wait_all_ports_free: all those that were free before the scenario.
wait_all_ports_free() { wait_until 30 "all ports to be free" ports_used_by_us_are 0; }
wait_ports_used() { wait_until 30 "$1 port(s) to be in use" ports_used_by_us_are "$1"; }

# --- disks ------------------------------------------------------------------------------------

# find_disk MIB: names the disks of that size behind vhci, such as sda, but for those that were
# there before the scenario. Scenarios with several disks give them different sizes.
find_disk() {
    local block
    for block in /sys/block/sd*; do
        case $disks_before in *" $block "*) continue ;; esac
        case $(readlink -f "$block") in
        */vhci_hcd.*) [ "$(cat "$block/size")" -ne $(($1 * 2048)) ] || basename "$block" ;;
        esac
    done
}
disk_is_there() { [ -n "$(find_disk "$1")" ]; }
disk_is_gone() { ! disk_is_there "$1"; }

# wait_for_disk MIB: waits until it can be used and prints its name. Half a second is enumeration,
# one is the storage driver's own delay; the rest is for a busy machine.
wait_for_disk() {
    wait_until 60 "the disk of $1 MiB" disk_is_there "$1"
    find_disk "$1"
}
wait_disk_gone() { wait_until 30 "the disk of $1 MiB to go" disk_is_gone "$1"; }

# usb_of_disk DISK: directory of the USB device that the disk is.
usb_of_disk() { readlink -f "/sys/block/$1/device/../../../.."; }

# sha256 FILE. Of a disk: read from the device, not from what the kernel remembers of it.
sha256() {
    [ ! -b "$1" ] || blockdev --flushbufs "$1"
    sha256sum "$1" | cut -d' ' -f1
}

sectors_read() { awk '{ print $3 }' "/sys/block/$1/stat"; }
has_read_more() { [ "$(sectors_read "$1")" -gt "$2" ]; }

# start_reading DISK...: reads them over and over, past the page cache, and returns when data flows
# from each.
start_reading() {
    local disk mark marks=
    workers=
    for disk; do
        marks="$marks $disk:$(($(sectors_read "$disk") + 1024))"
        (while dd if="/dev/$disk" of=/dev/null bs=256k iflag=direct; do :; done) 8>&- 9<&- &
        workers="$workers $!"
    done
    for mark in $marks; do
        wait_until 60 "data to flow from ${mark%:*}" has_read_more "${mark%:*}" "${mark#*:}"
    done
}

# expect_read_error SECONDS: who reads, or writes as well, gets an I/O error and ends, it does not hang.
# That is less than the 30 s after which the kernel itself gives a disk's command up.
expect_read_error() {
    local worker
    for worker in $workers; do
        wait_for_end "$worker" "$1" "reading or writing with an I/O error"
    done
}
