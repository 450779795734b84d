#!/bin/bash
# Makes docs/host-example.png, the picture in the README: the example host at work in a terminal, on
# a real run. Needs xvfb and xterm besides what scripts/setup.sh installs.
set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
demo=$root/build/demo
size=720x430
# shellcheck source=scripts/demo.sh
. "$root/scripts/demo.sh"

for tool in Xvfb xterm; do
    command -v "$tool" >/dev/null || {
        echo "make-picture: $tool is missing: apt-get install xvfb xterm" >&2
        exit 1
    }
done
cmake --build "$root/build" --target clipweir
start_demo

work=$(mktemp -d)
display=
terminal=
trap 'kill $terminal $display 2>/dev/null || true; stop_nginx; rm -rf "$work"' EXIT

# The server picks a free display number and writes it to the file.
Xvfb -displayfd 3 -screen 0 "${size}x24" -nolisten tcp 3>"$work/display" 2>/dev/null &
display=$!
for _ in {1..100}; do
    [ -s "$work/display" ] && break
    sleep 0.1
done
DISPLAY=:$(cat "$work/display")
export DISPLAY

# In a folder of its own the paths in the picture are short.
ln -s "$root/examples" "$root/build/clipweir" "$work"
cat >"$work/session" <<END
cd "$work"
printf '\\033[1m$ examples/host.py ./clipweir $page --thumb\\033[0m\n'
QT_QPA_PLATFORM=offscreen CLIPWEIR_COOKIES=$work/cookies examples/host.py ./clipweir $page --thumb
touch "$work/done"
sleep 60
END
xterm -geometry 200x60+0+0 -fa 'DejaVu Sans Mono' -fs 11 -bg '#10151c' -fg '#d8dee9' -b 12 \
    +sb -e bash "$work/session" 2>/dev/null &
terminal=$!

for _ in {1..600}; do
    [ -e "$work/done" ] && break
    sleep 0.1
done
[ -e "$work/done" ] || { echo 'make-picture: the host did not end' >&2; exit 1; }
sleep 1 # the terminal draws in its own time
ffmpeg -v error -y -f x11grab -draw_mouse 0 -video_size "$size" -i "$DISPLAY" -frames:v 1 \
    -vf 'trim=end_frame=1,split[a][b];[a]palettegen=max_colors=32[p];[b][p]paletteuse=dither=none' \
    "$root/docs/host-example.png"
echo "made $root/docs/host-example.png"
