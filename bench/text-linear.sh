#!/bin/sh
# Builds and runs the page text benchmark and prints, for every scan, how much longer it takes on
# 10 MB than on 1 MB of the same text: the kinds of text with the highest ratio and the longest
# time. A linear scan shows a ratio near 10.
#
# usage: bench/text-linear.sh [REGULAR EXPRESSION of scan/kind names]
set -eu

cd "$(dirname "$0")/.."
cmake --preset bench >/dev/null
cmake --build --preset bench --target bench_text

results=$(mktemp)
trap 'rm -f "$results"' EXIT
build-bench/bench/bench_text --benchmark_filter="${1:-.}" --benchmark_min_time=0.01 --benchmark_repetitions=3 \
    --benchmark_out="$results" --benchmark_out_format=csv >/dev/null

awk -F, '
    # name,iterations,real_time,cpu_time,time_unit,...; name is "scan/kind/size", or has the name of
    # a statistic at its end. The best of the repetitions counts: the others were disturbed.
    /^"/ {
        gsub(/"/, "", $1)
        if (split($1, part, "/") != 3 || part[3] !~ /^[0-9]+$/) next
        if (!(part[1] in knownScan)) { knownScan[part[1]]; scan[++scans] = part[1] }
        if (!(part[2] in knownKind)) { knownKind[part[2]]; kind[++kinds] = part[2] }
        if (!($1 in best) || $4 < best[$1]) best[$1] = $4
    }
    END {
        printf "%-16s %7s %10s %10s  %-24s %10s  %s\n", "scan", "ratio", "1MB ms", "10MB ms",
            "(highest ratio)", "10MB ms", "(longest time)"
        for (i = 1; i <= scans; ++i) {
            highest = 0; longest = 0; from = 0; to = 0; steep = "-"; slow = "-"
            for (j = 1; j <= kinds; ++j) {
                name = scan[i] "/" kind[j]
                small = best[name "/1000000"]; big = best[name "/10000000"]
                if (big > longest) { longest = big; slow = kind[j] }
                # Below a tenth of a millisecond the ratio is that of the clock.
                if (big > 0.1 && big / small > highest) {
                    highest = big / small; from = small; to = big; steep = kind[j]
                }
            }
            printf "%-16s %7.1f %10.2f %10.2f  %-24s %10.2f  %s\n", scan[i], highest, from, to,
                steep, longest, slow
        }
    }' "$results"
