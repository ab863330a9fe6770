#!/usr/bin/env bash
# Builds the benchmarks and runs them; the last lines are ratios. Arguments go to the program, --benchmark_filter=bus
# for one.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-packages.sh build bench
cmake --preset bench >/dev/null
cmake --build --preset bench --target tavrix_bench
cd build/bench
exec bench/tavrix_bench "$@"
