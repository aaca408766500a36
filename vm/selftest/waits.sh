# about: a guest and a remote side that live on until the run is killed, as vm/check does
# limit: 400
outside make_empty_image disk.img 1
outside start_remote --disk disk.img
log "let it be killed"
sleep 1000
