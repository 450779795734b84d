#!/bin/bash
# Builds the image of the fleet and has its command run in it. Skipped (77) where there is no builder that
# works, or no base image to be had.
# usage: test_image.sh cpack build-folder source-folder
set -euo pipefail

base=debian:bookworm-slim
builder=
for candidate in podman docker; do
    if "$candidate" info >/dev/null 2>&1 && timeout 120 "$candidate" pull -q "$base" >/dev/null 2>&1; then
        builder=$candidate
        break
    fi
done
[ -n "$builder" ] || { echo 'no builder of images, or no base image'; exit 77; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
(cd "$work" && "$1" --config "$2/CPackConfig.cmake" -B "$work/package") >"$work/log" 2>&1 || { cat "$work/log" && exit 1; }
cp "$3/fleet/deploy/Containerfile" "$work/package/"
"$builder" build -t clipweir-fleet-test -f "$work/package/Containerfile" "$work/package"
"$builder" run --rm clipweir-fleet-test submit --help | grep -q -- --again
"$builder" run --rm --entrypoint /usr/bin/clipweir clipweir-fleet-test --info 2>&1 | grep -q Flash
