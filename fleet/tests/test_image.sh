#!/bin/bash
# Builds the image of the fleet, and has a worker in it capture a page. Skipped (77) where there is no
# builder that works, or no base image to be had: podman and docker fetch one, for buildah one is made of
# the distribution's packages.
# usage: test_image.sh cpack build-folder source-folder
set -euo pipefail

source=$3
containerfile=$source/fleet/deploy/Containerfile
base=$(sed -n 's/^FROM //p' "$containerfile")
work=$(mktemp -d)
export TMPDIR=$work
children=()
trap clean_up EXIT
set -m # each child and what it starts is a group that can be told to end

clean_up() {
    local child
    for child in "${children[@]}"; do kill -- "-$child" 2>/dev/null || true; done
    wait
    [ ! -d "$work/redis" ] || "$source/scripts/fleet.sh" kill "$work/redis"
    [ -z "${container-}" ] || build rm "$container" >/dev/null || true
    rm -rf "$work"
}

# All that buildah makes is in the test's own folder, and it needs neither a daemon nor a kernel's file system.
build() {
    buildah --root "$work/images" --runroot "$work/running" --storage-driver vfs "$@"
}

make_base() {
    local distribution=${base#*:}
    mmdebstrap --quiet --variant=minbase "${distribution%-slim}" "$work/base.tar" &&
        printf 'FROM scratch\nADD base.tar /\n' >"$work/Base" &&
        build bud --quiet --isolation chroot -t "$base" -f "$work/Base" "$work" >/dev/null &&
        rm "$work/base.tar"
}

choose_builder() {
    local candidate
    for candidate in podman docker; do
        if "$candidate" info >/dev/null 2>&1 && timeout 120 "$candidate" pull -q "$base" >/dev/null 2>&1; then
            builder=$candidate
            return
        fi
    done
    command -v buildah >/dev/null && command -v mmdebstrap >/dev/null && build info >/dev/null 2>&1 && make_base &&
        builder=buildah
}

make_image() {
    (cd "$work" && "$cpack" --config "$build_folder/CPackConfig.cmake" -B "$work/package") >"$work/log" 2>&1 ||
        { cat "$work/log" && exit 1; }
    cp "$containerfile" "$work/package/"
    if [ "$builder" = buildah ]; then
        build bud --isolation chroot --pull-never -t clipweir-fleet-test -f "$work/package/Containerfile" \
            "$work/package" >"$work/log" 2>&1 || { tail -n 50 "$work/log" && exit 1; }
        container=$(build from --pull-never clipweir-fleet-test)
    else
        "$builder" build -t clipweir-fleet-test -f "$work/package/Containerfile" "$work/package"
    fi
}

# Runs a program of the image, in the network of the test.
in_image() { # program arguments...
    if [ "$builder" = buildah ]; then
        build run --isolation chroot -e "CLIPWEIR_FLEET_REDIS=$redis" "$container" -- "$@"
    else
        "$builder" run --rm --network host -e "CLIPWEIR_FLEET_REDIS=$redis" --entrypoint "$1" \
            clipweir-fleet-test "${@:2}"
    fi
}

cpack=$1
build_folder=$2
redis=
choose_builder || { echo 'no builder of images, or no base image'; exit 77; }
make_image
in_image /usr/bin/clipweir-fleet submit --help | grep -q -- --again

mkdir "$work/redis"
redis=$("$source/scripts/fleet.sh" start "$work/redis")
PYTHONPATH="$source/fleet" PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 "$source/fleet/tests/page_server.py" >"$work/address" &
children+=($!)
until [ -s "$work/address" ]; do sleep 0.1; done
in_image /usr/bin/clipweir-fleet worker >"$work/log" 2>&1 &
children+=($!)
in_image /usr/bin/clipweir-fleet submit --timeout 5 "$(<"$work/address")/page/plain/1"
timeout 120 "$BASH" -c 'until "$@" | grep -q . ; do sleep 0.5; done' - redis-cli -u "$redis" \
    zrange clipweir:state:done 0 -1 || { cat "$work/log" && exit 1; }
in_image /usr/bin/clipweir-fleet results --json | grep '"class": "complete"'
