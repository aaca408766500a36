# shellcheck shell=bash
# What the guest can ask the machine outside for: each function named act_... is an action, run in
# the scenario's folder. An action prints its answer (one line) and succeeds or fails; none waits
# without a bound. The functions run in the caller's shell and share these variables.

remote_pid=''
server_pid=''
remote_port=0  # 0: the remote side chooses a free one; kept when it is started again

# act_say TEXT: shows it to the person who watches, spaces and all.
act_say() { echo "  ${request#say }" >&"$story"; }

# act_make_random_image NAME MIB: a disk image of random bytes.
act_make_random_image() { head -c "${2}M" /dev/urandom >"$1"; }

# act_make_text_image NAME MIB: one that compresses well.
act_make_text_image() { head -c "${2}M" <(yes 'The quick brown fox jumps over the lazy dog.') >"$1"; }

# act_make_empty_image NAME MIB: zeros that take no room.
act_make_empty_image() { truncate -s "${2}M" "$1"; }

act_sha256() { sha256sum "$1" | cut -d' ' -f1; }

# act_first_line_at NAME BLOCK: the text in this block of 1 KiB of an image.
act_first_line_at() { dd if="$1" bs=1k skip="$2" count=1 status=none | tr -d '\0' | head -n1; }

# act_remote_counter NAME: from the line that the remote side leaves when it ends.
act_remote_counter() { sed -n "s/.* $1 \([0-9]*\).*/\1/p" remote.log | tail -n1; }

remote_has_started() { remote_is_listening || has_ended "$remote_pid"; }
remote_is_listening() { grep -q 'listening on' remote.fresh.log; }

# within SECONDS COMMAND...: COMMAND succeeds before that much time is over.
within() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        ((SECONDS <= deadline)) || return 1
        sleep 0.05
    done
}

# act_start_remote ARG...: starts the remote side and waits until it listens.
act_start_remote() {
    [ -p remote.commands ] || mkfifo remote.commands
    exec {remote_commands}<>remote.commands
    : >remote.fresh.log
    "$remote_program" --listen "127.0.0.1:$remote_port" "$@" \
        <remote.commands > >(exec tee -a remote.log >remote.fresh.log) 2>&1 &
    remote_pid=$!
    within 10 remote_has_started
    remote_is_listening || { echo "the remote side does not listen; see remote.log"; return 1; }
    remote_port=$(sed -n 's/.*listening on .*:\([0-9]*\).*/\1/p' remote.fresh.log | head -n1)
}

act_remote_port() { echo "$remote_port"; }

# act_tell_remote COMMAND ARG...: one command on the remote side's standard input.
act_tell_remote() { echo "$*" >&"$remote_commands"; }

act_kill_remote() {
    kill -KILL "$remote_pid"
    wait "$remote_pid" 2>/dev/null  # or the shell would tell of its death
    remote_pid=''
}

# act_boot_server SCRIPT QEMU_ARG...: a second guest, another computer, that runs this script of
# vm/guest. Its logs are in the folder `server`; nobody answers its requests.
act_boot_server() {
    local script=$vm_dir/guest/$1
    shift
    mkdir server
    (boot "$ready" "$PWD/server" "$script" 3600 -display none -monitor none \
        -serial file:server/console.log -chardev null,id=control "$@") \
        </dev/null >server/qemu.log 2>&1 &
    server_pid=$!
}

# The other end of a serial line of QEMU's (a character device `pipe` named line): a file for what
# comes out, and a pipe, held open since QEMU takes its end for a hang-up.
act_make_serial_line() {
    mkfifo line.in
    : >line.out
    exec {line_in}<>line.in
}
act_send_serial_line() { cat "$1" >&"$line_in"; }

# act_monitor COMMAND ARG...: has QEMU do this, a command of its human monitor.
act_monitor() {
    local before
    before=$(monitor_answers | wc -l)
    echo "{\"execute\": \"human-monitor-command\", \"arguments\": {\"command-line\": \"$*\"}}" >&"$monitor"
    within 5 monitor_has_answered "$before" || { echo "no answer"; return 1; }
    # An answer is empty, OK, or a complaint.
    monitor_answers | tail -n1 | grep -E '"return": "(OK)?(\\r\\n)?"' >&2 || { monitor_answers | tail -n1; return 1; }
}
monitor_answers() { grep -E '^\{"(return|error)"' monitor.out || true; }
monitor_has_answered() { (($(monitor_answers | wc -l) > $1)); }

has_ended() { ! kill -0 "$1" 2>/dev/null; }

# act_stop_remote: ends it as a person would; it must succeed.
act_stop_remote() {
    local status=0
    act_tell_remote quit
    within 10 has_ended "$remote_pid" || { echo "the remote side does not end"; return 1; }
    wait "$remote_pid" || status=$?
    remote_pid=''
    echo "$status"
    return "$status"
}

# answer REQUEST: does what the guest asked for and prints the line that goes back.
answer() {
    local request=$1
    local -a words
    read -ra words <<<"$request"
    if ! declare -F "act_${words[0]-}" >/dev/null; then
        echo "failed: there is no such action"
        return
    fi
    # Not in a subshell: an action's variables outlive it.
    if "act_${words[0]}" "${words[@]:1}" >answer 2>>outside.log; then
        echo "ok $(tr '\n' ' ' <answer)"
    else
        echo "failed $(tr '\n' ' ' <answer)"
    fi
}

# serve_guest SECONDS FROM TO: answers requests on these descriptors until the guest says how the
# scenario ended. Leaves that in $guest_status: a number, "gone" or "silent".
serve_guest() {
    local deadline=$((SECONDS + $1)) from=$2 to=$3 line
    guest_status=silent
    while ((SECONDS < deadline)); do
        if ! read -r -t $((deadline - SECONDS + 1)) -u "$from" line; then
            ((SECONDS >= deadline)) || guest_status=gone
            return
        fi
        case $line in
        "done "*) guest_status=${line#done }; return ;;
        *) answer "$line" >&"$to" ;;
        esac
    done
}
