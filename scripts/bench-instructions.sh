#!/usr/bin/env bash
# Counts, with valgrind's callgrind, the instructions of a serving step without its transport, beside those of a floor
# written by hand. Prints work, floor, ratio and goal for requests of three lengths; fails when a ratio misses its goal.
set -euo pipefail
cd "$(dirname "$0")/.."

goal=1.05
rounds=200

scripts/install-packages.sh build bench
cmake --preset bench >/dev/null
cmake --build --preset bench --target tavrix_step_floor -- --quiet >&2
cd build/bench

# count step|floor SHAPE: instructions for one round; the text that it made goes to the file step.SHAPE or floor.SHAPE.
count() {
    valgrind --tool=callgrind --callgrind-out-file=/dev/null --collect-atstart=no \
        --toggle-collect=measured_step --toggle-collect=measured_floor --toggle-collect=measured_release \
        --toggle-collect=__wrap_tavrix_mq_socket_recv --toggle-collect=__wrap_tavrix_mq_socket_send \
        bench/tavrix_step_floor "$1" "$2" "$rounds" 2>callgrind.log >"$1.$2" || { cat callgrind.log >&2; exit 1; }
    awk -v rounds="$rounds" '/Collected :/ { printf "%.0f", $4 / rounds }' callgrind.log
}

missed=0
printf '%-42s %12s %12s %7s %7s\n' 'instructions' work floor ratio goal
for shape in short usual long; do
    work=$(count step "$shape")
    floor=$(count floor "$shape")
    cmp "step.$shape" "floor.$shape"
    awk -v row="step without transport, $shape request" -v work="$work" -v floor="$floor" -v goal="$goal" 'BEGIN {
        printf "%-42s %12d %12d %7.2f %7.2f\n", row, work, floor, work / floor, goal
        exit work > goal * floor
    }' || missed=1
done
exit "$missed"
