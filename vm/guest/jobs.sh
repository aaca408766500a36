# shellcheck shell=dash
# What devices other than disks do for a living, and how to see that they do it.

# --- a keyboard -------------------------------------------------------------------------------

# start_typing_log INPUT: collects the events of this input, such as event0, until it goes.
start_typing_log() {
    dd if="/dev/input/$1" of="$LOG_DIR/events" bs=24 8>&- 9<&- &
    typing_logger=$!
    wait_until 30 "somebody to listen to the keyboard" has_open "$typing_logger" "/dev/input/$1"
}
has_open() { find "/proc/$1/fd" -exec readlink {} \; | grep -qx "$2"; }

# type_and_expect: types on QEMU's keyboard and finds it in the input's events. They have the codes
# of linux/input-event-codes.h, here x, j, 1 and return, with a 1 for pressed and a 0 for released.
type_and_expect() {
    for key in x j 1 ret; do outside monitor sendkey $key; done
    wait_until 30 "four keys, pressed and released" \
        typed_is "45 1, 45 0, 36 1, 36 0, 2 1, 2 0, 28 1, 28 0"
}
typed_is() { [ "$(typed)" = "$1" ]; }

# An event has 24 bytes: 16 of time, its type, which is 1 for keys, the code and the value. A value of
# 2 repeats a key that is held for long, which on a busy machine it can be.
typed() {
    od -An -t d2 -w24 -v "$LOG_DIR/events" |
        awk '$9 == 1 && $11 != 2 { printf "%s%d %d", sep, $10, $11; sep = ", " }'
}

# --- a loudspeaker ----------------------------------------------------------------------------

# It keeps more than the sound, since QEMU's audio falls behind on a busy machine. What is heard
# goes to a file, untouched (mixing-engine=off).
loudspeaker=usb-audio,audiodev=sound,buffer=400000
heard=$LOG_DIR/heard.wav

# make_sound: one second of noise, without bytes that silence has, and a quarter of silence.
make_sound() {
    tr -d '\000' </dev/urandom | head -c 192000 >/tmp/sound
    head -c 48000 /dev/zero >/tmp/silence
}

# play FILE PCM APLAY_ARG...: these samples on this device, such as pcmC0D0p, without an underrun.
play() {
    local file card
    file=$1 card=${2#pcmC}
    shift 2
    aplay -q -D "hw:${card%%D*},0" -t raw -f S16_LE -c 2 -r 48000 "$@" "$file" >/tmp/aplay.log 2>&1 ||
        fail "aplay: $(cat /tmp/aplay.log)"
    expect_same "complaints of aplay" "none" "$(grep . /tmp/aplay.log || echo none)"
}

# hear PCM TIMES: waits for all samples of the sound in order, so many times, and nothing else but
# silence. On a busy machine QEMU has not played everything when a stream ends, and goes on with the
# next one.
hear() { wait_until 60 "the whole sound to be heard" is_heard "$@"; }
is_heard() { heard_is "$2" || { play /tmp/silence "$1" && heard_is "$2"; }; }
heard_is() {
    local expected
    expected=$(for _ in $(seq "$1"); do cat /tmp/sound; done | sha256sum)
    [ "$(tail -c +45 "$heard" | tr -d '\000' | sha256sum)" = "$expected" ]
}

# --- a microphone -----------------------------------------------------------------------------

# start_microphone ARG...: a USB/IP server whose only device is one, as 1-1. Its samples count upwards.
start_microphone() {
    modprobe snd-usb-audio
    xj-usbip-microphone "$@" 127.0.0.1:3240 >"$LOG_DIR/microphone.log" 2>&1 </dev/null 8>&- 9<&- &
    microphone_pid=$!
    wait_until 30 "the microphone" grep -q "listening on" "$LOG_DIR/microphone.log"
}

# record PCM: two seconds from this device, such as pcmC0D0c, without an overrun. -N: it waits for
# samples as long as that takes, and does not call a busy machine an I/O error.
record() {
    local card
    card=${1#pcmC}
    arecord -q -N -D "hw:${card%%D*},0" -t raw -f S16_LE -c 1 -r 44100 -d 2 /tmp/recorded \
        >/tmp/arecord.log 2>&1 || fail "arecord: $(cat /tmp/arecord.log)"
    expect_same "complaints of arecord" "none" "$(grep . /tmp/arecord.log || echo none)"
}

# expect_whole_record: each sample is the one before plus 1, modulo 65536, and none is missing.
expect_whole_record() {
    expect_same "record" "88200 samples without a gap" "$(od -An -t u2 -w2 -v /tmp/recorded | awk '
        NR > 1 && $1 != (last + 1) % 65536 { gaps = gaps ", " last " then " $1 " at " NR }
        { last = $1 }
        END { print NR " samples " (gaps ? "with gaps" substr(gaps, 1, 500) : "without a gap") }')"
}

# --- a serial adapter -------------------------------------------------------------------------

# plug_serial PORT: with a file at its other end for what it sends, and a pipe for what it receives.
plug_serial() {
    outside make_serial_line
    outside monitor chardev-add "pipe,id=line,path=line"
    plug "$1" "usb-serial,chardev=line"
}

# send_and_receive TTY: new bytes through this device, such as ttyUSB0, out and then in.
send_and_receive() {
    head -c 20000 /dev/urandom >"$LOG_DIR/bytes"
    exec 5<>"/dev/$1"
    stty raw -echo <&5
    cat "$LOG_DIR/bytes" >&5
    wait_until 30 "the bytes sent" line_has_the_bytes
    outside send_serial_line bytes
    timeout 30 head -c 20000 <&5 >/tmp/received || fail "the bytes have not been received"
    exec 5>&-
    expect_same "bytes received" "$(sha256 "$LOG_DIR/bytes")" "$(sha256 /tmp/received)"
}
line_has_the_bytes() { tail -c 20000 "$LOG_DIR/line.out" | cmp -s "$LOG_DIR/bytes"; }
