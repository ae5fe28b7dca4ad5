# shellcheck shell=bash
# An HTTP server for the daemon to report to. To be sourced behind common.sh.

have_server() { command -v nginx >/dev/null; }

# Writes the configuration of a server that takes whatever it is sent. A script that wants another
# one defines this function anew; SERVER_PORT is the port.
write_server_config() { # write_server_config FILE
    cat >"$1" <<END
daemon off;
master_process off;
pid $SCRATCH/server/pid;
error_log $SCRATCH/server/error.log;
events {}
http {
    access_log $SCRATCH/server/access.log;
    client_body_temp_path $SCRATCH/server/body;
    proxy_temp_path $SCRATCH/server/proxy;
    fastcgi_temp_path $SCRATCH/server/fastcgi;
    uwsgi_temp_path $SCRATCH/server/uwsgi;
    scgi_temp_path $SCRATCH/server/scgi;
    server {
        listen 127.0.0.1:$SERVER_PORT;
        return 200;
    }
}
END
}

# start_server [PORT]: one process, SERVER, on the port given or on a free one, SERVER_PORT.
start_server() {
    local attempt
    mkdir -p "$SCRATCH/server"
    for ((attempt = 0; attempt < 20; attempt++)); do
        SERVER_PORT=${1:-$((10000 + SRANDOM % 22000))}
        write_server_config "$SCRATCH/server/nginx.conf"
        nginx -p "$SCRATCH/server" -c "$SCRATCH/server/nginx.conf" 2>/dev/null &
        SERVER=$!
        wait_quietly 10 server_up_or_gone && ! gone "$SERVER" && return
        wait "$SERVER" || true
    done
    die "no HTTP server"
}
server_up_or_gone() { gone "$SERVER" || holds_socket "$SERVER" "$(listening_inode "$SERVER_PORT")"; }

# The inode of the socket that listens on a TCP port. The port alone says nothing: somebody else's
# server may answer there while nginx still tries to bind.
listening_inode() { # listening_inode PORT
    local port
    printf -v port '%04X' "$1"
    awk -v port=":$port" '$4 == "0A" && substr($2, length($2) - 4) == port { print $10 }' /proc/net/tcp
}
