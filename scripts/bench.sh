#!/usr/bin/env bash
# Builds the benchmarks and runs them; the last lines are ratios. Arguments go to the program, --benchmark_filter=bus
# for one; without any the road through the daemons is measured too, which scripts/bench-road.sh does alone.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-packages.sh build bench demo
cmake --preset bench >/dev/null
cmake --build --preset bench -- --quiet
(cd build/bench && bench/tavrix_bench "$@")
if [ $# -eq 0 ]; then scripts/bench-road.sh --built build/bench; fi
