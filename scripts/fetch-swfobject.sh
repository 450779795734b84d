#!/bin/sh
# Fetches the SWFObject library, which the build puts into the page that asks for the Flash version.
# Does nothing, and needs no network, when it is there.
#
# usage: scripts/fetch-swfobject.sh [FILE]
# Without FILE it goes to the user's cache folder, where the build looks for it; for another place
# tell the build: cmake -DCLIPWEIR_SWFOBJECT=FILE ...
set -eu

package=swfobject@2.2.1
here=$(CDPATH='' cd -- "$(dirname -- "$0")" && pwd)
expected=$(cut -d ' ' -f 1 "$here/../res/swfobject.sha256")

fail() {
    printf 'fetch-swfobject: %s\n' "$@" >&2
    exit 1
}

is_right() {
    [ "$(sha256sum <"$1" | cut -d ' ' -f 1)" = "$expected" ]
}

if [ $# -gt 0 ]; then
    file=$1
else
    case ${XDG_CACHE_HOME-} in
    /*) cache=$XDG_CACHE_HOME ;;
    *) cache=${HOME:?fetch-swfobject: HOME is not set, name the file to write}/.cache ;;
    esac
    file=$cache/clipweir/swfobject-2.2.1.js
fi

if [ -f "$file" ] && is_right "$file"; then
    exit 0
fi

command -v npm >/dev/null 2>&1 || fail 'npm is missing; scripts/setup.sh installs it.'
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

echo "fetch-swfobject: fetching $package"
if ! (cd "$folder" && npm pack --ignore-scripts "$package" >log 2>&1); then
    cat "$folder/log" >&2
    fail "npm could not fetch $package (see above)." \
        "It takes a connection to a package registry. A copy of the package's index.js will do" \
        "as well: $file"
fi
tar -xzf "$folder"/swfobject-*.tgz -C "$folder" package/index.js ||
    fail "$package does not hold its index.js"
library=$folder/package/index.js
is_right "$library" ||
    fail "$package is not the one that is expected: the SHA-256 of its index.js is" \
        "  $(sha256sum <"$library" | cut -d ' ' -f 1)" 'instead of' "  $expected"

mkdir -p "$(dirname -- "$file")"
cp "$library" "$file.$$"
mv -f "$file.$$" "$file"
