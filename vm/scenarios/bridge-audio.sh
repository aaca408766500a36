# about: a loudspeaker that a USB/IP server offers: every sample is heard, in order, no underrun
# qemu: -device qemu-xhci,id=xhci -audiodev wav,id=sound,path=heard.wav,out.mixing-engine=off
# clock: counted
# shellcheck source=guest/bridge.sh
. "$VM_DIR/guest/bridge.sh"
start_server snd-usb-audio
plug 1 "$loudspeaker"
make_sound
times=0
for way in kernel our; do
    attach $way 1
    pcm=$(wait_for_imported sound 'pcmC*p')
    tell_when_usable $way
    timed "$way way: one second of sound" play /tmp/sound "$pcm"
    times=$((times + 1))
    hear "$pcm" $times
    detach $way
done
