# shellcheck shell=bash
# Sourced by the scripts that serve files: a web server of their own on a free loopback port.
#
#   start_nginx folder port-to-server-text path
#     Starts nginx with its files in a folder that exists. The second argument is a function that
#     gets a port and prints the content of the server block; the third is a path that answers once
#     it is up. Leaves the address in $address, and $nginx as the process id. Returns 1, with a
#     message, when it does not start.
#   stop_nginx
#     Stops it, if it runs.

nginx=

nginx_configuration() { # folder port server-text
    cat <<END
daemon off;
master_process off;
pid "$1/nginx.pid";
error_log "$1/error.log";
events { worker_connections 64; }
http {
    include /etc/nginx/mime.types;
    access_log off;
    sendfile on;
    client_body_temp_path "$1/temp";
    proxy_temp_path "$1/temp";
    fastcgi_temp_path "$1/temp";
    uwsgi_temp_path "$1/temp";
    scgi_temp_path "$1/temp";
    server {
        listen 127.0.0.1:$2;
        $3
    }
}
END
}

start_nginx() { # folder server-text-function path
    local port
    for _ in 1 2 3 4 5; do
        port=$((20000 + RANDOM % 12000))
        nginx_configuration "$1" "$port" "$("$2" "$port")" >"$1/nginx.conf"
        /usr/sbin/nginx -p "$1" -c "$1/nginx.conf" -e "$1/error.log" 2>/dev/null &
        nginx=$!
        address=http://127.0.0.1:$port
        for _ in {1..50}; do
            kill -0 "$nginx" 2>/dev/null || break
            # Somebody else's server may hold the port, so it is a file of ours that is asked for.
            if curl -sf --noproxy '*' -o /dev/null -r 0-0 "$address$3"; then return; fi
            sleep 0.1
        done
        stop_nginx
    done
    echo "nginx does not start; see $1/error.log" >&2
    return 1
}

stop_nginx() {
    if [ -n "$nginx" ]; then
        kill "$nginx" 2>/dev/null || true
        wait "$nginx" 2>/dev/null || true
        nginx=
    fi
}
