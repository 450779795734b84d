#!/bin/sh
# Installs what building, testing and the demonstration need and this machine lacks.
# Does nothing, and asks for no rights, when everything is there.
#
# usage: scripts/setup.sh [--bench | --fuzz | --image]
#   --bench  installs what the benchmarks compare with, too
#   --image  installs what the fleet's image and its unit are tested with, too
#   --fuzz   installs what the fuzz targets are built with, too
set -eu

here=$(CDPATH='' cd -- "$(dirname -- "$0")" && pwd)

compiler='g++ mold cmake ninja-build pkg-config'
toolkit='qtbase5-dev qtbase5-dev-tools libqt5webkit5-dev libqt5xmlpatterns5-dev'
# With the list of public suffixes that the system keeps up to date.
system='libpsl-dev publicsuffix libseccomp-dev libssl-dev zlib1g-dev'
# What media is taken apart and put together with.
media='libavcodec-dev libavformat-dev libavutil-dev'
# Without these plug-ins the engine may not ask for a page's video at all, without a font it lays
# out no text, and without the certificates no https page opens.
engine='gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-libav'
engine="$engine fonts-dejavu-core ca-certificates"
# The other engine, a program of its own.
engine="$engine chromium-headless-shell"
# What the tests and the demonstration serve, make, fetch and compare with.
tools='nginx microsocks libnginx-mod-rtmp libnginx-mod-http-echo libbenchmark-dev ffmpeg rtmpdump curl openssl python3 python3-jsonschema procps'
# Plug-ins that the program has to do well beside, too: they fetch by themselves what playlists name.
tools="$tools gstreamer1.0-plugins-bad"
# What checks the sources' format; another major version has another opinion.
tools="$tools clang-format-14"
packaging='dpkg-dev file'
# What a fleet is made of, and its server; see docs/fleet.md.
fleet='celery python3-redis redis-server redis-tools'
# The compiler with libFuzzer, and what puts names into its reports.
fuzzing='clang-14 libclang-rt-14-dev llvm-14'

packages="$compiler $toolkit $system $media $engine $tools $fleet $packaging"
[ "${1-}" != --bench ] || packages="$packages wget aria2 yt-dlp chromium"
[ "${1-}" != --image ] || packages="$packages buildah mmdebstrap systemd-container"
[ "${1-}" != --fuzz ] || packages="$packages $fuzzing"
# Any npm will do; where one comes from elsewhere, the distribution's own would conflict with it.
command -v npm >/dev/null 2>&1 || packages="$packages npm"

fail() {
    printf 'setup: %s\n' "$@" >&2
    exit 1
}

missing_packages() {
    # shellcheck disable=SC2086 # a list of words
    installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' $packages 2>/dev/null || true)
    for package in $packages; do
        printf '%s\n' "$installed" | grep -qxF "installed $package" || printf '%s ' "$package"
    done
}

# Runs a command with the rights that installing takes.
as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        env DEBIAN_FRONTEND=noninteractive "$@"
    else
        sudo env DEBIAN_FRONTEND=noninteractive "$@"
    fi
}

has_systemd() {
    [ -d /run/systemd/system ]
}

# The tests start servers of their own. Installing one must not start it for the whole machine, now or
# at the next boot; a server that was there before is left as it is.
install_packages() {
    guarded=
    for server in nginx redis-server; do
        case " $1 " in
        *" $server "*) if has_systemd; then guarded="$guarded $server.service"; fi ;;
        esac
    done
    # shellcheck disable=SC2086 # a list of words, in this function
    [ -z "$guarded" ] || as_root systemctl mask --runtime --quiet $guarded
    status=0
    # shellcheck disable=SC2086
    as_root apt-get install -y --no-install-recommends $1 || status=$?
    if [ -n "$guarded" ]; then
        # shellcheck disable=SC2086
        as_root systemctl unmask --runtime --quiet $guarded
        # shellcheck disable=SC2086
        as_root systemctl disable --quiet $guarded || true
        echo "setup: installed for the tests only, off as a system service:$guarded"
    fi
    return "$status"
}

if ! command -v dpkg-query >/dev/null 2>&1 || ! command -v apt-get >/dev/null 2>&1; then
    fail 'this needs a Debian 12 system (dpkg and apt-get).' \
        "Elsewhere install the counterparts of: $packages"
fi

missing=$(missing_packages)
missing=${missing% }
if [ -n "$missing" ]; then
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null 2>&1; then
        fail 'packages are missing, and installing them takes root or sudo. As root, run:' \
            "  apt-get update && apt-get install --no-install-recommends $missing"
    fi
    printf 'setup: installing %s\n' "$missing"
    as_root apt-get update
    install_packages "$missing" || fail "these packages could not be installed: $missing"
fi

if [ -x "$here/fetch-swfobject.sh" ]; then
    "$here/fetch-swfobject.sh"
fi
# Only some of the tests need them.
if [ -x "$here/fetch-players.sh" ]; then
    "$here/fetch-players.sh" || echo 'setup: going on without the players'
fi
