#!/bin/bash
# Runs the built program again and again over pages of all kinds and looks at what stays behind.
# Some runs are killed; then the look must find what they left, and the next run of the page take
# it away.
# usage: scripts/soak.sh [runs [jobs]]      300 runs, 8 at a time
# Ends with 1 when a run ends otherwise than it should or when anything is left: shared memory,
# semaphores, temporary files, locks or processes. States the peak memory of the runs.
set -euo pipefail

# With a namespace of its own for them, the shared memory and semaphores that stay are these runs'.
if [ -z "${SOAK_INSIDE-}" ]; then
    export SOAK_INSIDE=yes
    for flags in --ipc --map-root-user\ --ipc; do
        # shellcheck disable=SC2086 # one or two flags
        if unshare $flags true 2>/dev/null; then exec unshare $flags "$0" "$@"; fi
    done
    echo 'soak: no namespace to be had; other programs may count as left behind' >&2
fi

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
demo=$root/build/demo
# shellcheck source=scripts/demo.sh
. "$root/scripts/demo.sh"

soak=$(mktemp -d)
pages=$soak/pages

# The pages of the demonstration, and others beside them.
soak_server_text() { # port
    demo_server_text "$1"
    cat <<END
location /pages/ { root "$soak"; types { text/html html; video/f4m f4m; } }
        location = /moved.mp4 { return 302 /moved2.mp4; }
        location = /moved2.mp4 { return 302 /clip.mp4; }
        location = /gone.mp4 { return 404; }
END
}

write_pages() {
    mkdir "$pages" "$pages/s"
    local clip='<video src="/clip.mp4" autoplay></video>'
    echo "<title>A clip</title>$clip" >"$pages/video.html"
    echo '<p>Nothing here</p>' >"$pages/nothing.html"
    echo '<script>for (;;) { }</script>' >"$pages/endless.html"
    echo '<title>Moved</title><video src="/moved.mp4" autoplay></video>' >"$pages/moved.html"
    echo '<video src="/gone.mp4" autoplay></video>' >"$pages/gone.html"
    {
        for _ in {1..40000}; do echo '<p>A paragraph of <b>text</b>, of which there are many.</p>'; done
        echo "$clip"
    } >"$pages/big.html"
    echo '<script>new Image().src = "/pages/s/m.f4m";</script>' >"$pages/stream.html"
    ffmpeg -v error -y -nostdin -i "$demo/clip.mp4" -c:v flv -b:v 600k -an "$pages/s/source.flv"
    ffmpeg -v error -y -nostdin -i "$pages/s/source.flv" -c copy -f hds "$pages/s"
    python3 - "$pages/s" <<'END'
import base64, pathlib, re, sys
folder = pathlib.Path(sys.argv[1])
bootstrap = base64.b64encode((folder / "stream0.abst").read_bytes()).decode()
text = (folder / "index.f4m").read_text()
text = re.sub(r' url="stream0.abst" id="bootstrap0" />',
              f' id="bootstrap0">{bootstrap}</bootstrapInfo>', text)
(folder / "m.f4m").write_text(text)
END
}

mkdir -p "$demo"
make_clip
write_pages
trap 'stop_nginx; rm -rf "$soak"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
start_nginx "$demo" soak_server_text /clip.mp4
python3 "$root/scripts/soak-runs.py" "$root/build/clipweir" "$address" "$soak" "${1:-300}" "${2:-8}"
