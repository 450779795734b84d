#!/bin/sh
# Runs the fuzz targets from their kept corpora, one line of result for each.
# usage: scripts/fuzz.sh [--seconds N] [--jobs J] [--merge] [target ...]
#   --seconds N  how long each target runs; 60 without it
#   --jobs J     how many run at a time; 1 without it
#   --merge      takes those found inputs into the kept corpus that reach new code, runs nothing
# Without names all targets. What they find stays in build-fuzz/found/<target>: interesting inputs in
# the folder corpus, which the next run goes on from, and what breaks a target as crash-..., leak-...,
# timeout-... or oom-... beside it.
set -eu

cd "$(dirname "$0")/.."
top=$(pwd)
seconds=60
jobs=1
merge=no
while [ $# -gt 0 ]; do
    case $1 in
    --seconds) seconds=$2; shift ;;
    --jobs) jobs=$2; shift ;;
    --merge) merge=yes ;;
    -*) sed -n '2,/^set /s/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
    *) break ;;
    esac
    shift
done
if [ $# -eq 0 ]; then
    for source in fuzz/fuzz_*.cpp; do
        name=${source#fuzz/fuzz_}
        set -- "$@" "${name%.cpp}"
    done
fi
for name in "$@"; do
    [ -f "fuzz/fuzz_$name.cpp" ] || { echo "fuzz: there is no target $name" >&2; exit 2; }
done

scripts/setup.sh --fuzz
cmake --preset fuzz >/dev/null
# shellcheck disable=SC2046 # a list of words
cmake --build build-fuzz --target $(printf 'fuzz_%s ' "$@")

# The files that targets write are many and live for a moment: memory is the place for them.
[ ! -w /dev/shm ] || export TMPDIR=/dev/shm
stop() {
    # Programs in the background do not hear of an interrupt by themselves.
    cat "$scratch"/*.pid 2>/dev/null | xargs -r kill 2>/dev/null || true
    rm -rf "$scratch"
}
scratch=$(mktemp -d -t clipweir-fuzz.XXXXXX)
trap stop EXIT
trap 'exit 130' INT TERM
export TMPDIR="$scratch"
export LSAN_OPTIONS="suppressions=$top/tests/sanitizers/leaks.supp:print_suppressions=0"
export ASAN_OPTIONS="quarantine_size_mb=64:${ASAN_OPTIONS-}"
export UBSAN_OPTIONS="print_stacktrace=1:${UBSAN_OPTIONS-}"

# run_target NAME: leaves NAME.failed in the scratch folder unless the target ran clean.
run_target() {
    found=build-fuzz/found/$1
    log=$found/log
    mkdir -p "$found/corpus"
    dictionary=
    [ ! -f "fuzz/$1.dict" ] || dictionary=-dict=fuzz/$1.dict
    result=clean
    # shellcheck disable=SC2086 # no word at all without a dictionary
    "build-fuzz/fuzz/fuzz_$1" $dictionary -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=1024 -print_final_stats=1 -artifact_prefix="$found/" \
        "$found/corpus" "fuzz/corpus/$1" >"$log" 2>&1 &
    echo $! >"$scratch/$1.pid"
    status=0
    wait $! || status=$?
    [ -d "$scratch" ] || return 0 # interrupted
    rm -f "$scratch/$1.pid"
    if [ "$status" -ne 0 ]; then
        : >"$scratch/$1.failed"
        kept=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
        result="FAILED: ${kept:-no input was kept}, $log"
    fi
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    reached=$(sed -n 's/.*cov: \([0-9]*\) ft: \([0-9]*\) .*/coverage \1, features \2/p' "$log" | tail -n 1)
    printf '%-12s %10s executions, %s: %s\n' "$1" "${executions:-0}" "${reached:-no coverage}" "$result"
}

# merge_target NAME: edges alone count, so that few inputs are enough.
merge_target() {
    "build-fuzz/fuzz/fuzz_$1" -merge=1 -set_cover_merge=1 -use_counters=0 \
        "fuzz/corpus/$1" "build-fuzz/found/$1/corpus" >"build-fuzz/found/$1/merge.log" 2>&1
    printf '%-12s %s files, %s bytes\n' "$1" "$(find "fuzz/corpus/$1" -type f | wc -l)" \
        "$(cat "fuzz/corpus/$1"/* | wc -c)"
}

if [ "$merge" = yes ]; then
    for name in "$@"; do
        mkdir -p "build-fuzz/found/$name/corpus"
        merge_target "$name"
    done
    exit
fi

# All targets run for the same time, so that taking them in groups loses none.
running=0
for name in "$@"; do
    run_target "$name" &
    running=$((running + 1))
    if [ "$running" -ge "$jobs" ]; then
        wait
        running=0
    fi
done
wait
[ -z "$(find "$scratch" -name '*.failed')" ]
