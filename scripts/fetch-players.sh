#!/bin/sh
# Fetches the players that the pages of the tests use, and a packager whose streams they fetch, in the
# versions that tests/pages/players pins.
# Does nothing, and needs no network, when they are there.
#
# usage: scripts/fetch-players.sh [FOLDER]
# Without FOLDER they go to the user's cache folder, where the tests look for them; for another place
# tell the build: cmake -DCLIPWEIR_PLAYERS=FOLDER ...
set -eu

here=$(CDPATH='' cd -- "$(dirname -- "$0")" && pwd)
pinned=$here/../tests/pages/players
# Of the packages only what a page loads, or a test runs.
files='
    dashjs/dist/modern/umd/dash.all.min.js
    hls.js/dist/hls.min.js
    mediaelement/build/mediaelement-and-player.min.js
    mediaelement/build/mediaelementplayer.min.css
    mediaelement/build/mejs-controls.svg
    plyr/dist/plyr.css
    plyr/dist/plyr.min.js
    shaka-packager/bin/packager-linux-arm64
    shaka-packager/bin/packager-linux-x64
    shaka-player/dist/shaka-player.compiled.js
    video.js/dist/video-js.min.css
    video.js/dist/video.min.js'

fail() {
    printf 'fetch-players: %s\n' "$@" >&2
    exit 1
}

if [ $# -gt 0 ]; then
    folder=$1
else
    case ${XDG_CACHE_HOME-} in
    /*) cache=$XDG_CACHE_HOME ;;
    *) cache=${HOME:?fetch-players: HOME is not set, name the folder to write}/.cache ;;
    esac
    folder=$cache/clipweir/players
fi

# What was fetched, and by which list, tells whether it is what is wanted now.
wanted=$(cat "$here/fetch-players.sh" "$pinned/package-lock.json" | sha256sum | cut -d ' ' -f 1)
if [ -f "$folder/fetched" ] && [ "$(cat "$folder/fetched")" = "$wanted" ]; then
    exit 0
fi

command -v npm >/dev/null 2>&1 || fail 'npm is missing; scripts/setup.sh installs it.'
mkdir -p "$(dirname -- "$folder")"
work=$(mktemp -d "$folder.XXXXXX")
trap 'rm -rf "$work"' EXIT

echo 'fetch-players: fetching the players and the packager for the tests'
cp "$pinned/package.json" "$pinned/package-lock.json" "$work"
# The lock file has a checksum of each package, and npm refuses what differs.
if ! (cd "$work" && npm ci --ignore-scripts --no-audit --no-fund >log 2>&1); then
    cat "$work/log" >&2
    fail 'npm could not fetch the players (see above).' \
        'It takes a connection to a package registry, or an npm cache that has them.' \
        'All tests but tst_page_players and tst_packagers do without them.'
fi
for file in $files; do
    target=$work/kept/$(dirname -- "$file")
    mkdir -p "$target"
    cp "$work/node_modules/$file" "$target" || fail "a package does not hold its $file"
done
printf '%s\n' "$wanted" >"$work/kept/fetched"
rm -rf "$folder"
mv -T "$work/kept" "$folder"
