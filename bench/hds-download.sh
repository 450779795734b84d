#!/bin/sh
# Measures downloads of HTTP Dynamic Streaming: time and peak memory for streams of up to 2,000
# fragments and 1,000 MiB, and what several workers gain when every answer is delayed. Prints the
# figures and ends with 1 when a limit is missed. Works in memory where it can (3 GB), since what a
# disk makes of 2,000 MiB at once is no property of the program.
#
# usage: bench/hds-download.sh
set -eu

cd "$(dirname "$0")/.."
cmake --preset bench >/dev/null
cmake --build --preset bench --target hdsdownload >/dev/null

work=$(mktemp -d /dev/shm/hds.XXXXXX 2>/dev/null || mktemp -d build-bench/hds.XXXXXX)
trap 'rm -rf "$work"' EXIT
python3 bench/hds/measure.py "$work" build-bench
