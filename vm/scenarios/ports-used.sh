# about: one high-speed device more than there are ports: the host says which, why, and what to do
# limit: 300
says() { grep -q "$1" "$LOG_DIR/host.log"; }
ports=$(cat "$vhci"/status* | grep -c '^hs')
remote=$REMOTE_ADDRESS:$(outside start_silent_remote $((ports + 1)))
start_host
wait_until 200 "all ports to be in use" ports_used_by_us_are "$ports"
wait_until 60 "the last one's failure" says "cannot be attached: all $ports ports for high speed and slower are used"
expect_same "failures" 1 "$(grep -c 'cannot be attached' "$LOG_DIR/host.log")"
"$HOST_PROGRAM" doctor | grep 'super speed, but no slower ones'
say "$(grep 'cannot be attached' "$LOG_DIR/host.log" | cut -d' ' -f2-)"
kill -TERM "$host_pid"
wait_for_end "$host_pid" 60 "the host"
# None of those that came could be used: they never answered.
expect_same "exit status of the host" 4 "$ended_with"
host_pid=
wait_all_ports_free
