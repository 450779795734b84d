#!/bin/bash
# Builds clipweir and runs it with the options given here. Without options it shows the tool at
# work: it captures a sample clip from a page served on this machine.
set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
program=$root/build/clipweir
demo=$root/build/demo

build() {
    "$root/scripts/setup.sh"
    [ -f "$root/build/build.ninja" ] || (cd "$root" && cmake --preset default)
    cmake --build "$root/build" --target clipweir
}

# The size makes it a video for the tool, which takes 5 MiB and more for one.
make_clip() {
    [ -f "$demo/clip.mp4" ] && [ -f "$demo/poster.png" ] && return
    echo 'Making a sample clip ...'
    ffmpeg -v error -y -f lavfi -i testsrc2=size=640x360:rate=25:duration=30 \
        -f lavfi -i sine=frequency=440:duration=30 \
        -c:v libx264 -profile:v baseline -pix_fmt yuv420p -preset veryfast -threads 1 \
        -b:v 2100k -minrate 2100k -maxrate 2100k -bufsize 2100k -x264-params nal-hrd=cbr \
        -c:a aac -b:a 96k -fflags +bitexact -flags:v +bitexact -flags:a +bitexact \
        -movflags +faststart "$demo/making.mp4"
    ffmpeg -v error -y -i "$demo/making.mp4" -frames:v 1 "$demo/poster.png"
    mv "$demo/making.mp4" "$demo/clip.mp4"
}

write_server_configuration() { # port
    cat >"$demo/nginx.conf" <<END
daemon off;
master_process off;
pid "$demo/nginx.pid";
error_log "$demo/error.log";
events { worker_connections 64; }
http {
    include /etc/nginx/mime.types;
    access_log off;
    client_body_temp_path "$demo/temp";
    proxy_temp_path "$demo/temp";
    fastcgi_temp_path "$demo/temp";
    uwsgi_temp_path "$demo/temp";
    scgi_temp_path "$demo/temp";
    server {
        listen 127.0.0.1:$1;
        root "$root/demo";
        index index.html;
        # The page names its picture by a whole address, as pages do; the port is known only now.
        sub_filter http://localhost http://127.0.0.1:$1;
        location = /clip.mp4 { root "$demo"; }
        location = /poster.png { root "$demo"; }
    }
}
END
}

server=
stop_server() {
    if [ -n "$server" ]; then
        kill "$server" 2>/dev/null || true
        wait "$server" 2>/dev/null || true
        server=
    fi
}

# Starts nginx on a free port and leaves the page's address in $page.
start_server() {
    local port
    for _ in 1 2 3 4 5; do
        port=$((20000 + RANDOM % 12000))
        write_server_configuration "$port"
        /usr/sbin/nginx -p "$demo" -c "$demo/nginx.conf" -e "$demo/error.log" 2>/dev/null &
        server=$!
        page=http://127.0.0.1:$port/
        for _ in {1..50}; do
            kill -0 "$server" 2>/dev/null || break
            # Somebody else's server may hold the port, so it is the clip that is asked for.
            if curl -sf --noproxy '*' -o /dev/null -r 0-0 "${page}clip.mp4"; then return; fi
            sleep 0.1
        done
        stop_server
    done
    echo "run: nginx does not start; see $demo/error.log" >&2
    exit 1
}

show_capture() { # path
    echo
    echo "File:   $1"
    echo "Size:   $(stat -c %s "$1") bytes"
    if cmp "$demo/clip.mp4" "$1"; then
        echo 'Equal:  yes, byte for byte the clip that was served'
    else
        echo 'Equal:  NO, it differs from the clip that was served'
        return 1
    fi
    echo 'ffprobe:'
    ffprobe -hide_banner "$1" 2>&1 | sed 's/^/    /'
}

demonstrate() {
    local capture=$demo/capture status=0
    mkdir -p "$demo"
    rm -rf "$capture"
    mkdir "$capture"
    make_clip
    trap stop_server EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    start_server
    local options=(--url "$page" --thumb --saveto "$capture/clip.mp4")
    echo "Running: clipweir ${options[*]}"
    "$program" "${options[@]}" || status=$?
    if [ "$status" -ne 0 ]; then return "$status"; fi
    if [ ! -f "$capture/clip.mp4" ]; then
        echo 'run: no file arrived' >&2
        return 1
    fi
    show_capture "$capture/clip.mp4"
}

if [ $# -gt 0 ]; then
    build >&2
    exec "$program" "$@"
fi
build
demonstrate
