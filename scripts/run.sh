#!/bin/bash
# Builds clipweir and runs it with the options given here. Without options it shows the tool at
# work: it captures a sample clip from a page served on this machine.
set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
program=$root/build/clipweir
demo=$root/build/demo
# shellcheck source=scripts/demo.sh
. "$root/scripts/demo.sh"

build() {
    "$root/scripts/setup.sh"
    [ -f "$root/build/build.ninja" ] || (cd "$root" && cmake --preset default)
    cmake --build "$root/build" --target clipweir
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
    local video=$demo/capture/clip.mp4 status=0
    start_demo
    rm -rf "$demo/capture"
    mkdir "$demo/capture"
    local options=(--url "$page" --thumb --saveto "$video")
    echo "Running: clipweir ${options[*]}"
    "$program" "${options[@]}" || status=$?
    if [ "$status" -ne 0 ]; then return "$status"; fi
    if [ ! -f "$video" ]; then
        echo 'run: no file arrived' >&2
        return 1
    fi
    show_capture "$video"
}

if [ $# -gt 0 ]; then
    build >&2
    exec "$program" "$@"
fi
build
demonstrate
