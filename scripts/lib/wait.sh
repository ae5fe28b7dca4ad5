# shellcheck shell=bash
# Waiting for events and searching ports, for scripts that start programs on this machine.

# wait_until SECONDS COMMAND...: runs the command until it succeeds; fails after that time.
wait_until() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

# is_running PID
is_running() { kill -0 "$1" 2>/dev/null; }

# socket_inodes udp|tcp PORT: the inode of each IPv4 socket that is bound to the port (udp) or
# listens on it (tcp).
socket_inodes() {
    local port
    printf -v port '%04X' "$2"
    awk -v port="$port" -v protocol="$1" '
        split($2, address, ":") == 2 && address[2] == port && (protocol == "udp" || $4 == "0A") {
            print $10
        }' "/proc/net/$1"
}

# is_free udp|tcp PORT
is_free() { [ -z "$(socket_inodes "$1" "$2")" ]; }

# listens udp|tcp PORT PID: whether the port is held by this very process.
listens() {
    local inode
    for inode in $(socket_inodes "$1" "$2"); do
        readlink "/proc/$3/fd/"* 2>/dev/null | grep -qxF "socket:[$inode]" && return
    done
    return 1
}

# free_port_pair udp|tcp: a random free port whose successor is free as well. Somebody else may
# take it before it is used, so whoever starts a server with it looks whether it listens, and tries
# again. The range lies below the ports that the kernel hands out by itself.
free_port_pair() {
    local attempt port
    for attempt in {1..100}; do
        port=$((20000 + RANDOM % 12000))
        if is_free "$1" "$port" && is_free "$1" $((port + 1)); then
            echo "$port"
            return
        fi
    done
    echo "no free pair of $1 ports after $attempt attempts" >&2
    return 1
}
