#!/usr/bin/env bash
# Endurance: many calls with every answer matched, services and routers killed while calls are under way, malformed
# input everywhere, floods, and another user's attempts. Prints a figure a line, and ends with a failure when one is
# beyond its bound.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
usage: scripts/reliability.sh [--short] [--built FOLDER] [--seed N] [PART...]

  --short          some seconds of everything, for each change
  --built FOLDER   build nothing, use the programs of this build folder
  --seed N         of the malformed inputs; printed, another one each time unless told otherwise
  PART             only these: calls kills inputs floods stranger
TEXT
}

built=
seed=$RANDOM
parts=()
calls=1000000 service_kills=500 router_kills=100 inputs=1000 flood_seconds=10
while [ $# -gt 0 ]; do
    case "$1" in
    --short) calls=10000 service_kills=8 router_kills=4 inputs=100 flood_seconds=1 ;;
    --built) built=$(realpath -e "${2:?--built takes a build folder}"); shift ;;
    --seed) seed=${2:?--seed takes a number}; shift ;;
    --help | -h) usage; exit 0 ;;
    calls | kills | inputs | floods | stranger) parts+=("$1") ;;
    *) usage >&2; exit 2 ;;
    esac
    shift
done
[ ${#parts[@]} -gt 0 ] || parts=(calls kills inputs floods stranger)

. scripts/road.sh
build_road bench
hostile=$road/hostile
cd "$run"
began=$SECONDS

# --- Figures ---

failures=0
figure() { # TITLE FIGURE BOUND CONDITION: an arithmetic condition; 1 is met
    local verdict=ok
    if ! (($4)); then
        verdict=FAILED
        failures=$((failures + 1))
    fi
    printf '%-78s %10s   %-12s %s\n' "$1" "$2" "$3" "$verdict"
}
exactly() { figure "$1" "$2" "$3" "$(($2 == $3))"; } # TITLE FIGURE WANTED
at_least() { figure "$1" "$2" ">= $3" "$(($2 >= $3))"; }
at_most() { figure "$1" "$2" "<= $3" "$(($2 <= $3))"; }

sum() { # KEY FILE...: of lines of KEY=VALUE
    local key=$1
    shift
    cat "$@" | tr ' ' '\n' | awk -F= -v key="$key" '$1 == key { sum += $2 } END { printf "%d", sum }'
}

# --- The system: a router, two services that register, and one that does not ---

reply_timeout_ms=2000
patience_ms=3000 # a client's: the router's time-out and a second
port_params='{"port_id":"c1-1"}'
next_port; tcp=$port
next_port; router_bus=tcp://127.0.0.1:$port
next_port; plain_bus=tcp://127.0.0.1:$port
next_port; rogue_bus=tcp://127.0.0.1:$port
next_port; rogue_port=$port # a false publisher, which does not even speak the bus's protocol
printf '[tcp]\nall=*\n' >policy.conf

start_routerd() {
    start router "$routerd" --socket router.sock --session router.session --tcp "$tcp" --policy policy.conf \
        --publish "ipc://$run/bus/router,$router_bus" \
        --connect "$plain_bus,$rogue_bus,tcp://127.0.0.1:$rogue_port" --reply-timeout "$reply_timeout_ms" \
        --client-timeout 1000 --max-clients 1000 --max-in-flight 4096
}
start_echo() { start echo "$road/kit_service" echo --session router.session; }
start_ports() { start ports "$portsd" --session router.session --database fleet.db; }
echo_answers() { until_answered oneshot --unix router.sock; }
ports_answer() { until_answered oneshot --unix router.sock --method ports.Get --params "$port_params"; }
start_system() {
    start_routerd
    start_echo
    start_ports
    start plain "$road/echo_service" "$plain_bus" "$router_bus" plain # registers nowhere
    until_answered oneshot --unix router.sock --method plain.Empty
    echo_answers
    ports_answer
}
all_alive() {
    local name
    for name in "${!pid_of[@]}"; do
        kill -0 "${pid_of[$name]}" 2>/dev/null || return 1
    done
}

memory_of() { awk '/^Private_/ { sum += $2 } END { print sum }' "/proc/${pid_of[$1]}/smaps_rollup"; } # KiB
descriptors_of() { find "/proc/${pid_of[$1]}/fd" -mindepth 1 | wc -l; }
settled_descriptors_of() { # NAME AT-MOST: waits a while for the ends of connections to be noticed
    local count=0
    for _ in $(seq 100); do
        count=$(descriptors_of "$1")
        if [ "$count" -le "$2" ]; then break; fi
        sleep 0.05
    done
    echo "$count"
}

# --- Many calls, each answer matched ---

# every_road CALLS FIRST PREFIX: so many calls on every road at once, the tallies in PREFIX.*
every_road() {
    local part=$(($1 / 10)) first=$2 callers=()
    "$load" oneshot --unix router.sock --clients 16 --calls $((part * 2)) --first "$first" "${call[@]}" >"$3.unix" &
    callers+=($!)
    "$load" oneshot --tcp "$tcp" --clients 4 --calls "$part" --first $((first + part * 2)) "${call[@]}" >"$3.tcp" &
    callers+=($!)
    "$load" session --unix router.session --clients 8 --in-flight 16 --calls $((part * 5)) \
        --first $((first + part * 3)) "${call[@]}" >"$3.session" &
    callers+=($!)
    "$load" session --unix router.session --clients 2 --in-flight 8 --calls $((part * 2)) \
        --first $((first + part * 8)) "${call[@]}" --method plain.Say >"$3.plain" &
    callers+=($!)
    wait "${callers[@]}" || true
}

part_calls() {
    local call=(--method echo.Say --check) before_memory before_descriptors
    start_system
    every_road $((calls / 20 + 1000)) 1 warm-up
    before_descriptors=$(settled_descriptors_of router 0)
    before_memory=$(memory_of router)
    every_road "$calls" 10000000 counted
    exactly "calls on every road at once, answered with their own parameters" "$(sum results counted.*)" "$calls"
    if [ "$(sum results counted.*)" -ne "$calls" ]; then tail -n +1 counted.* >&2; fi
    exactly "  lost" "$(sum lost counted.*)" 0
    exactly "  mismatched" "$(sum mismatched counted.*)" 0
    exactly "  errors" "$(sum errors counted.*)" 0
    at_most "  the router's descriptors, gained" \
        $(($(settled_descriptors_of router "$before_descriptors") - before_descriptors)) 0
    # More calls may once be under way at a time than ever before; what leaks is lost in every round.
    local gained=$(($(memory_of router) - before_memory)) round=1
    while [ "$gained" -gt 64 ] && [ "$round" -lt 5 ]; do
        round=$((round + 1))
        before_memory=$(memory_of router)
        every_road "$calls" $((10000000 * round)) again
        gained=$(($(memory_of router) - before_memory))
    done
    at_most "  the router's memory, KiB gained in round $round" "$gained" 64
    finish "${!pid_of[@]}"
}

# --- Killed while calls are under way ---

start_callers() { # the tallies in caller-*.log
    rm -f caller-*.log
    local common=(--check --calls 100000000 --timeout "$patience_ms")
    start caller-echo "$load" oneshot --unix router.sock --clients 8 --method echo.Say "${common[@]}"
    start caller-ports "$load" oneshot --unix router.sock --clients 2 --method ports.Get --params "$port_params" \
        --first 1000000000 "${common[@]}"
    start caller-session "$load" session --unix router.session --clients 4 --in-flight 8 --method echo.Say \
        --first 1500000000 "${common[@]}"
}
finish_callers() {
    local name names=()
    for name in "${!pid_of[@]}"; do
        case "$name" in caller-*) names+=("$name") ;; esac
    done
    finish "${names[@]}"
}
report_callers() { # KILLED WHAT
    at_least "$2 killed while calls were under way" "$1" 1
    figure "  calls, answered with their own result" "$(sum results caller-*.log)" "> 0" \
        "$(($(sum results caller-*.log) > 0))"
    exactly "  callers that ended before their time, without a tally" "$(grep -L '^calls=' caller-*.log | wc -l)" 0
    printf '%-78s %10s\n' "  answered with an error of their own" "$(sum errors caller-*.log)"
    printf '%-78s %10s\n' "  told by a closed connection" "$(sum closed caller-*.log)"
    printf '%-78s %10s\n' "  refused, with no router there" "$(sum refused caller-*.log)"
    exactly "  without any end within the time-out and a second" "$(sum overdue caller-*.log)" 0
    exactly "  mismatched" "$(sum mismatched caller-*.log)" 0
}

# Between two kills the callers are to get going again.
let_calls_flow() { "$load" oneshot --unix router.sock --calls 50 --timeout 5000 >/dev/null || true; }

part_kills() {
    local i
    start_system
    start_callers
    for i in $(seq "$service_kills"); do
        if ((i % 4 == 0)); then
            kill_hard ports
            start_ports
            ports_answer
        else
            kill_hard echo
            start_echo
            echo_answers
        fi
        let_calls_flow
    done
    finish_callers
    report_callers "$service_kills" services
    start_callers
    for i in $(seq "$router_kills"); do
        kill_hard router
        start_routerd
        echo_answers
        ports_answer
        let_calls_flow
    done
    finish_callers
    report_callers "$router_kills" routers
    figure "  all services found their way back by themselves" "$(all_alive && echo yes || echo no)" yes \
        "$(all_alive && echo 1 || echo 0)"
    finish "${!pid_of[@]}"
}

# --- Malformed ---

good_call() { "$load" oneshot --unix router.sock --method echo.Say --check --calls 1 --timeout 10000 >/dev/null; }

# attack TITLE HOSTILE-ARGUMENT...: in ten parts, a good call after each
attack() {
    local title=$1 part good=0
    shift
    : >attack.log
    for part in $(seq 10); do
        "$hostile" "$@" --seed $((seed * 10 + part)) --count $((inputs / 10)) >>attack.log
        if all_alive && good_call; then good=$((good + 1)); fi
    done
    exactly "$title: good calls after each tenth" "$good" 10
    exactly "  taken from the sender" $(($(sum inputs attack.log) + $(sum messages attack.log))) "$inputs"
}

part_inputs() {
    printf 'seed %s\n' "$seed"
    start_system
    local descriptors
    descriptors=$(descriptors_of router)
    attack "$inputs malformed inputs, one-shot over unix" inputs --unix router.sock
    attack "$inputs malformed inputs, one-shot over tcp" inputs --tcp "$tcp"
    attack "$inputs malformed inputs, sessions" inputs --unix router.session
    local discarded
    discarded=$(grep -c Discarded router.log || true)
    attack "$inputs malformed messages on the bus" frames --publish "$rogue_bus"
    at_least "  the router's log lines about what it has discarded of them" \
        $(($(grep -c Discarded router.log || true) - discarded)) $((inputs / 20))
    "$hostile" answers --tcp "$rogue_port" --seed "$seed" --seconds $((flood_seconds + 1)) >answers.log &
    local answers=$!
    local good=0 tried=0
    while kill -0 "$answers" 2>/dev/null; do
        tried=$((tried + 1))
        if all_alive && good_call; then good=$((good + 1)); fi
    done
    wait "$answers"
    exactly "raw bytes from $(value connections <answers.log) connections of a false publisher: good calls meanwhile" \
        "$good" "$tried"
    at_most "  the router's descriptors, gained" \
        $(($(settled_descriptors_of router "$descriptors") - descriptors)) 4 # the two false addresses' own
    finish "${!pid_of[@]}"
}

# --- Floods ---

as_stranger() { setpriv --reuid 65534 --regid 65534 --clear-groups "$@"; }

# meanwhile TITLE PID: checked calls until the process ends
meanwhile() {
    local lines=meanwhile.log
    : >"$lines"
    while kill -0 "$2" 2>/dev/null; do
        "$load" oneshot --unix router.sock --clients 4 --method echo.Say --check --seconds 0.3 --calls 1000000 \
            --timeout 5000 >>"$lines" || true
    done
    figure "$1: results meanwhile" "$(sum results "$lines")" "> 0" "$(($(sum results "$lines") > 0))"
    exactly "  lost, mismatched or answered with an error" \
        $(($(sum lost "$lines") + $(sum mismatched "$lines") + $(sum errors "$lines"))) 0
}

part_floods() {
    start_system
    "$hostile" flood --publish "$rogue_bus" --seed "$seed" --seconds "$flood_seconds" >flood.log &
    local flood=$!
    meanwhile "replies that nobody waits for, as fast as the bus takes them" "$flood"
    wait "$flood"
    printf '%-78s %10s\n' "  replies sent" "$(value messages <flood.log)"
    if [ "$(id -u)" -ne 0 ]; then
        echo "floods: only root can take another user's part" >&2
    else
        install -m 755 "$load" stranger-load
        as_stranger ./stranger-load silent --unix "$run/router.session" --clients 2000 --seconds "$flood_seconds" \
            >/dev/null &
        local sessions=$!
        meanwhile "2000 sessions of another user, more than there are places" "$sessions"
        wait "$sessions" || true
        as_stranger ./stranger-load silent --unix "$run/router.sock" --clients 2000 --seconds "$flood_seconds" \
            >/dev/null &
        sessions=$!
        meanwhile "2000 silent one-shot connections of another user" "$sessions"
        wait "$sessions" || true
    fi
    finish "${!pid_of[@]}"
}

# --- Another user ---

stranger_call() { # METHOD PARAMS [MODE SOCKET]: the code of the answer, 0 for a result
    as_stranger ./stranger-load "${3:-oneshot}" --unix "$run/${4:-router.sock}" --method "$1" --params "$2" --calls 1 \
        --timeout 5000 --check | value code
}

part_stranger() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "stranger: only root can take another user's part" >&2
        return
    fi
    start_system
    install -m 755 "$load" stranger-load
    install -m 755 "$hostile" stranger-hostile
    exactly "uid 65534: echo.Empty is allowed" "$(stranger_call echo.Empty '{}')" 0
    exactly "uid 65534: router.Lock, one-shot" "$(stranger_call router.Lock '{}')" -32601
    exactly "uid 65534: router.Lock, session" "$(stranger_call router.Lock '{}' session router.session)" -32601
    exactly "uid 65534: router.Monitor" \
        "$(stranger_call router.Monitor '{"methods":["*"]}' session router.session)" -32601
    exactly "uid 65534: router.Register" "$(stranger_call router.Register \
        '{"name":"thief","channel":"30e493d7-9e02-41b6-97f5-21f2cc9cbbb3","publish":[],"methods":["thief.Say"],"direct":true}' \
        session router.session)" -32601
    exactly "uid 65534: good calls go on" "$(good_call && echo 1 || echo 0)" 1
    local reached=0 address
    for address in bus/*; do
        as_stranger ./stranger-hostile bytes --unix "$run/$address" --seed "$seed" --count 10 >stranger.log
        reached=$((reached + $(value inputs <stranger.log)))
    done
    exactly "uid 65534: connections to the bus's addresses" "$reached" 0
    exactly "uid 65534: own addresses in the bus's folder" \
        "$(as_stranger touch "$run/bus/thief" 2>/dev/null && echo 1 || echo 0)" 0
    local name stopped=0
    for name in "${!pid_of[@]}"; do
        if as_stranger kill -9 "${pid_of[$name]}" 2>/dev/null; then stopped=$((stopped + 1)); fi
    done
    exactly "uid 65534: daemons stopped" "$stopped" 0
    finish "${!pid_of[@]}"
}

for part in "${parts[@]}"; do "part_$part"; done
printf '%s seconds, failures: %s\n' $((SECONDS - began)) "$failures"
[ "$failures" -eq 0 ]
