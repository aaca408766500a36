# about: a microphone that a USB/IP server offers: every sample is recorded, in order, no overrun
# clock: counted
# One processor: the kernel's audio driver counts a packet before it copies it, and a reader on another
# processor, in between, was seen to get zeros for it.
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
busid() { echo 1-1; }  # of the only device there is, on no bus
start_microphone
for way in kernel our; do
    attach $way 1
    pcm=$(wait_for_imported sound 'pcmC*c')
    tell_when_usable $way
    for time in first second; do
        timed "$way way: two seconds of sound, for the $time time," record "$pcm"
        expect_whole_record
    done
    detach $way
done

# What is unusual in replies, but not unsafe: nobody on the way takes offence.
kill -TERM "$microphone_pid"
wait_for_end "$microphone_pid" 5 "the microphone"
start_microphone --lie packed-offsets --lie short-packets --lie fewer-packets --lie no-packets
attach our 1
record "$(wait_for_imported sound 'pcmC*c')"
expect_whole_record
grep -qx "the first lie" "$LOG_DIR/microphone.log" || fail "the microphone has not been odd"
detach our
