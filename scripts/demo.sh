# shellcheck shell=bash
# Sourced by the scripts that show the tool at work: a page with a sample clip, served on this
# machine. They set $root (the tree) and $demo (a folder for what is made) beforehand.
#
#   start_demo
#     Makes the clip if it is not there, serves it, and leaves the page's address in $page. The
#     server ends with the script.

: "${root:?}" "${demo:?}"

# shellcheck source=scripts/nginx.sh
. "$root/scripts/nginx.sh"

# Its size makes it a video for the tool, which takes 5 MiB and more for one.
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

demo_server_text() { # port
    cat <<END
root "$root/demo";
        index index.html;
        # The page names its picture by a whole address, as pages do; the port is known only now.
        sub_filter http://localhost http://127.0.0.1:$1;
        location = /clip.mp4 { root "$demo"; }
        location = /poster.png { root "$demo"; }
END
}

start_demo() {
    mkdir -p "$demo"
    make_clip
    trap stop_nginx EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    start_nginx "$demo" demo_server_text /clip.mp4
    # shellcheck disable=SC2034 # for the script that sources this
    page=$address/
}
