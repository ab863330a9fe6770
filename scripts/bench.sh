#!/usr/bin/env bash
# Builds the benchmarks, runs them and prints a table: what each piece of work costs beside the same by hand, and the
# goal. docs/performance.md explains the rows. Arguments go to the benchmark program: --benchmark_filter=log for one.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-packages.sh build bench
cmake --preset bench >/dev/null
cmake --build --preset bench --target tavrix_bench -- --quiet

# Every source of rows prints lines of five parts between tabs: name, work, floor, unit, goal.
rows() {
    (cd build/bench && bench/tavrix_bench --benchmark_repetitions=9 --benchmark_min_time=0.05 \
        --benchmark_enable_random_interleaving=true "$@")
}

rows "$@" | awk -F'\t' '
    BEGIN { printf "%-44s %12s %12s %-6s %6s %6s\n", "row", "work", "floor", "unit", "ratio", "goal" }
    NF != 5 { print; next }
    {
        ratio = $2 / $3
        printf "%-44s %12.1f %12.1f %-6s %6.2f %6.2f%s\n", $1, $2, $3, $4, ratio, $5, (ratio > $5 ? "  missed" : "")
    }'
