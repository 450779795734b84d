#!/bin/sh
# Builds everything with warnings as errors and passes every test.
# usage: scripts/test.sh [--sanitize] [--all] [ctest option ...]
#   --all       runs over the second engine what has little to do with engines, and all that takes minutes
#   --sanitize  tests a build with the address and undefined behaviour sanitizers instead
set -eu

cd "$(dirname "$0")/.."
preset=ci
folder=build
if [ "${1-}" = --sanitize ]; then
    shift
    preset=sanitize
    folder=build-sanitize
fi

if [ "${1-}" = --all ]; then
    shift
else
    set -- --label-exclude '^seldom$' "$@"
fi

scripts/setup.sh
cmake --preset "$preset"
cmake --build "$folder"

# Most tests wait for timers and servers rather than compute.
jobs=$(($(nproc) * 4))
[ "$jobs" -ge 8 ] || jobs=8
ctest --test-dir "$folder" --output-on-failure --parallel "$jobs" "$@"
