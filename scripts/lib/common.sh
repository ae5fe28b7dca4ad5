# shellcheck shell=bash
# For the scripts that run the real daemon: a scratch directory, waits for events, a daemon on free
# ports, and reports sent to it. To be sourced by bash with "set -euo pipefail".
#
# Everything started is a child of the script and ends with it; everything written is below
# $SCRATCH and goes with it. Two scripts may run at once.

PATH=$PATH:/usr/sbin:/sbin # an ordinary user may lack them
VOXSTAT=${VOXSTAT:-$PWD/build/release/voxstat}
SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/voxstat.XXXXXX")
LAUNCH=()    # what the daemon is started with, for example env or valgrind
DAEMON=      # its process id ...
PORT=        # ... and its lower port
STOP_WAIT=30 # seconds that a stop may take
MOUNTS=()    # what to unmount at the end

end_all() {
    local status=$? pid
    trap - EXIT INT TERM
    exec 2>/dev/null # no word about what is killed here
    for pid in $(jobs -p); do
        kill -KILL "$pid" || true
    done
    wait || true
    [ ${#MOUNTS[@]} -eq 0 ] || umount --lazy "${MOUNTS[@]}" || true
    rm -rf "$SCRATCH"
    exit "$status"
}
trap end_all EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

die() {
    local log
    echo "${0##*/}: $*" >&2
    for log in "${DAEMON_DIR:-}"/{out,valgrind}; do
        [ -s "$log" ] || continue
        echo "--- the end of $log:" >&2
        tail -n 40 "$log" | cut -c 1-300 >&2
    done
    exit 1
}

# The optimised daemon and its tools.
build_release() {
    scripts/build >"$SCRATCH/build.log" 2>&1 || {
        cat "$SCRATCH/build.log" >&2
        die "the build failed"
    }
}

# wait_for SECONDS WHAT COMMAND...: until the command succeeds.
wait_for() {
    local limit=$1 what=$2
    shift 2
    local deadline=$((SECONDS + limit))
    until "$@"; do
        [ "$SECONDS" -le "$deadline" ] || die "waited $limit s in vain for $what"
        sleep 0.02
    done
}

# wait_quietly SECONDS COMMAND...: the same, but only says no in the end.
wait_quietly() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.02
    done
}

has() { grep -qaF -- "$2" "$1" 2>/dev/null; } # has FILE TEXT
gone() { ! kill -0 "$1" 2>/dev/null; }
kill_now() { { kill -KILL "$1" && wait "$1"; } 2>/dev/null || true; }
size_of() { stat -c %s -- "$1" 2>/dev/null || echo 0; }
count_of() { grep -caF -- "$2" "$1" 2>/dev/null || true; } # count_of FILE TEXT

# The line of a UDP port in the kernel's table of sockets: inode in column 10, waiting bytes in the
# second half of column 5, dropped datagrams in column 13.
socket_line() {
    local port
    printf -v port '%04X' "$1"
    awk -v port=":$port" 'substr($2, length($2) - 4) == port' /proc/net/udp
}
socket_drops() { socket_line "$1" | awk '{ sum += $13 } END { print sum + 0 }'; }
queue_empty() { [ "$(socket_line "$1" | awk '{ print substr($5, index($5, ":") + 1) }')" = 00000000 ]; }
queues_empty() { queue_empty "$PORT" && queue_empty $((PORT + 1)); }

# True when a process holds the socket of a UDP port.
holds_port() { # holds_port PID PORT
    holds_socket "$1" "$(socket_line "$2" | awk '{ print $10 }')"
}
holds_socket() { # holds_socket PID INODE
    [ -n "$2" ] && find "/proc/$1/fd" -lname "socket:\[$2\]" 2>/dev/null | grep -q .
}
listening() { holds_port "$DAEMON" "$PORT" && holds_port "$DAEMON" $((PORT + 1)); }
up_or_gone() { gone "$DAEMON" || listening; }

# A pair of ports that nobody has now. Below the range that the kernel gives to clients.
pick_ports() {
    local attempt
    for ((attempt = 0; attempt < 1000; attempt++)); do
        PORT=$((10000 + 2 * (SRANDOM % 11000)))
        [ -z "$(socket_line "$PORT")$(socket_line $((PORT + 1)))" ] && return
    done
    die "no free pair of UDP ports"
}

# launch_daemon DIR [KEY=VALUE]...: starts it on a pair of ports, with its files below DIR (its log is
# DIR/out, its statistics go to DIR/stat), and does not wait for anything.
launch_daemon() {
    local setting dir=$1
    shift
    DAEMON_DIR=$dir
    mkdir -p "$dir/stat"
    pick_ports
    printf '%s\n' "qos_port=$PORT" "qos_stat_dir=$dir/stat" "sn_file_path=$dir/sn" \
        >"$dir/voxstat.cfg"
    for setting in "$@"; do
        printf '%s\n' "$setting" >>"$dir/voxstat.cfg"
    done
    "${LAUNCH[@]}" "$VOXSTAT" -f "$dir/voxstat.cfg" >>"$dir/out" 2>&1 &
    DAEMON=$!
}

# start_daemon DIR [KEY=VALUE]...: the same, until it holds its ports; if somebody else has taken
# one meanwhile, with another pair.
start_daemon() {
    local attempt
    for ((attempt = 0; attempt < 20; attempt++)); do
        launch_daemon "$@"
        wait_for 60 "the daemon to open its ports" up_or_gone
        gone "$DAEMON" || return 0
        wait "$DAEMON" || true
        has "$DAEMON_DIR/out" "unable to bind" || break
    done
    die "the daemon does not start"
}

# end_of PID SECONDS: waits for its end and gives its exit status.
end_of() {
    local status=0
    wait_for "$2" "the end of process $1" gone "$1"
    wait "$1" || status=$?
    return "$status"
}

# Ends the daemon as its users do; it must follow, with status 0. A signal that comes before the
# main loop has begun is ignored, and one just before its wait is noticed after a minute; the
# repeated one is not.
stop_daemon() {
    local status=0
    kill -0 "$DAEMON" 2>/dev/null || die "the daemon has ended by itself"
    kill -TERM "$DAEMON"
    wait_quietly 10 gone "$DAEMON" || kill -TERM "$DAEMON" || true
    end_of "$DAEMON" "$STOP_WAIT" || status=$?
    [ "$status" -eq 0 ] || die "the daemon ended with status $status"
    DAEMON=
}

# send_text TEXT: one datagram to the report port. cat, since the shell's own output goes out line
# by line. The port may be closed while the daemon is down.
send_text() { cat <<<"$1" >"/dev/udp/127.0.0.1/$PORT" 2>/dev/null || true; }
send_report() { send_text "QOS_EV_TYPE=${2:-QOS_NEAREND}"$'\n'"QOS_EV_RTCP_CNAME=$1"; }

PROBES=0
printf -v PADDING '%0970d' 0

# Sends a report whose name nobody has used before, and one behind it that is long enough to push
# it out of the daemon's buffer, which writes in blocks.
send_probe() { # send_probe [TYPE]
    PROBES=$((PROBES + 1))
    PROBE="probe-$$-$PROBES-"
    send_report "$PROBE" "${1:-}"
    send_report "$PADDING" "${1:-}"
}

# served FILE [TYPE]: fresh reports reach the file. They are sent again and again: one that comes in
# the middle of a fault may be lost.
served() {
    local attempt
    for ((attempt = 0; attempt < 30; attempt++)); do
        send_probe "${2:-}"
        wait_quietly 1 has "$1" "$PROBE" && return
    done
    die "no fresh report in $1"
}

# A datagram of ten voice records with 160 bytes each.
make_voice_datagram() { # make_voice_datagram FILE
    local record
    for ((record = 0; record < 10; record++)); do
        printf '\0\0\0\xa0\xc0\0\x02\x0a\xc6\x33\x64\x0a\x13\x8c\x13\x8e\x65\x53\xf1\0\0\x01\xe2\x40'
        printf '%0160d' 0
    done >"$1"
}
send_voice() { cat "$SCRATCH/voice" >"/dev/udp/127.0.0.1/$((PORT + 1))" 2>/dev/null || true; }

# The file that the daemon holds open under a name, deleted or renamed as it may be.
open_file() { # open_file NAME
    local fd
    for fd in "/proc/$DAEMON/fd/"*; do
        case $(readlink "$fd") in
        */"$1"*)
            echo "$fd"
            return
            ;;
        esac
    done
    die "the daemon holds no file $1"
}
