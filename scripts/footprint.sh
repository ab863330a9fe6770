#!/usr/bin/env bash
# What a service of the kit costs while it does nothing: its wake-ups, counted as system calls over some seconds, and
# its private memory beside that of a service on the library alone. With a build for the appliance, the kit's text and
# both services' memory there, under qemu-user: what they touch of the four gigabytes at a place that qemu is told.
# Fails when a goal is missed: they are sizes and counts, which other work on the machine does not change.
# usage: scripts/footprint.sh [--built FOLDER] [--armhf FOLDER] [--seconds S]
set -euo pipefail
cd "$(dirname "$0")/.."

built=
armhf=
seconds=10
while [ $# -gt 0 ]; do
    case "$1" in
    --built) built=$(realpath -e "${2:?--built takes a build folder}"); shift ;;
    --armhf) armhf=$(realpath -e "${2:?--armhf takes a build folder}"); shift ;;
    --seconds) seconds=${2:?--seconds takes a number}; shift ;;
    *) sed -n 's/^# usage: /usage: /p' "$0" >&2; exit 2 ;;
    esac
    shift
done

. scripts/road.sh
build_road bench
cd "$run"
mkdir bus

private_kib() { # NAME: what no other process shares
    awk '/^Private_(Clean|Dirty):/ { sum += $2 } END { print sum }' "/proc/${pid_of[$1]}/smaps_rollup"
}

guest=0x200000000
start_emulated() { # NAME PROGRAM ARGUMENT...
    local name=$1
    shift
    start "$name" qemu-arm -B "$guest" -L "$armhf-sysroot" "$@"
}
guest_private_kib() { # NAME: the same, of the emulated program alone
    awk '/^[0-9a-f]+-[0-9a-f]+ / { inside = length($1) == 19 && substr($1, 1, 1) == "2" }
         inside && /^Private_(Clean|Dirty):/ { sum += $2 } END { print sum }' "/proc/${pid_of[$1]}/smaps"
}

# A router each: one that looks for a service that does not register goes on asking on the bus, which wakes all.
start router "$routerd" --socket router.sock --session session.sock --publish "ipc://$run/bus/router"
start old-router "$routerd" --socket old.sock --session old.session --publish "ipc://$run/bus/old-router" \
    --connect "ipc://$run/bus/echo"
start echo "$road/echo_service" "ipc://$run/bus/echo" "ipc://$run/bus/old-router"
start kit "$road/kit_service" kit --session session.sock
until_answered oneshot --unix old.sock
until_answered oneshot --unix router.sock --method kit.Empty
sleep 1 # what a call has begun is over

# With -c strace counts, and says nothing when there was nothing to count.
timeout --signal=INT "$seconds" strace -f -c -o wake-ups -p "${pid_of[kit]}" 2>strace.log || true
grep -q attached strace.log || fail "strace: $(cat strace.log)"
calls=$(awk '$NF == "total" { print $4; found = 1 } END { if (!found) print 0 }' wake-ups)

need_memory() { # KIB...: a process that has gone, or lies elsewhere, would pass for a small one
    local kib
    for kib in "$@"; do
        [ "${kib:-0}" -gt 0 ] || fail "the memory of a service cannot be told"
    done
}

missed=0
figure() { # NAME VALUE [MOST]
    printf '%-52s %8s%s\n' "$1" "$2" "${3:+   <= $3}"
    if [ -n "${3:-}" ] && ! [ "$2" -le "$3" ]; then # also when the value is no number
        echo "Missed: $1" >&2
        missed=1
    fi
}

bare=$(private_kib echo)
kit=$(private_kib kit)
need_memory "$bare" "$kit"
printf '%-52s %8s   %s\n' "figure" "" "goal"
figure "system calls of an idle kit service in $seconds s" "$calls" 0
figure "private memory on the library alone, KiB" "$bare"
figure "more of it with the kit, KiB" "$((kit - bare))" 300
if [ -n "$armhf" ]; then
    finish echo kit
    start_emulated echo "$armhf/bench/road/echo_service" "ipc://$run/bus/echo" "ipc://$run/bus/old-router"
    start_emulated kit "$armhf/bench/road/kit_service" kit --session session.sock
    until_answered oneshot --unix old.sock
    until_answered oneshot --unix router.sock --method kit.Empty
    bare=$(guest_private_kib echo)
    kit=$(guest_private_kib kit)
    need_memory "$bare" "$kit"
    figure "private memory on the appliance, library alone, KiB" "$bare"
    figure "more of it with the kit, KiB" "$((kit - bare))" 300
    text=$(size "$armhf/kit/libtavrix_service.so.1" | awk 'NR == 2 { print $1 }')
    figure "the kit's text on the appliance, bytes" "$text" 65535
fi
exit "$missed"
