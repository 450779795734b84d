#!/bin/sh
# Measures the program beside what a user would pick instead and writes docs/benchmarks.md.
# Takes about a quarter of an hour and, where it can, 12 GB of memory for its files. Ends with 1 when
# a bar is missed.
#
# usage: scripts/bench.sh [measurement ...]
#   measurements: transfers files streams manifests parts pages engines startup; with some of them only, the
#   page is left as it is
set -eu

cd "$(dirname "$0")/.."
scripts/setup.sh --bench
cmake --preset bench
cmake --build build-bench

if [ $# -eq 0 ]; then
    set -- --report docs/benchmarks.md
fi
exec python3 bench/suite/run.py --build build-bench "$@"
