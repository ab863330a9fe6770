#!/usr/bin/env bash
# Measures the road of a request, from the client through the router to the service and back: against the same three
# processes by hand, beside clients that are a trouble, and across the end of services.
# Each row has the work's figure, the floor's, their ratio and the goal. Work and floor are measured in turns, several
# short rounds each, and the figures are medians; the ratio is the median of the rounds' ratios.
# Where one call is under way at a time, the rate is that of the median call, for whatever else the machine does makes
# some calls wait for milliseconds; where many are, it is what was done in the time, with all waits.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
usage: scripts/bench-road.sh [--built FOLDER] [--rounds N] [--seconds S] [--realtime] [ROW...]

  --built FOLDER   build nothing, use the programs of this build folder
  --rounds N       rounds of each measurement, 7 unless told otherwise
  --seconds S      how long each round's work and floor take, 0.7 unless told otherwise
  --realtime       before all other processes, where the machine has other things to do and this user may
  ROW              only these: oneshot ports crowd session pipeline kit company gone recovery idle
TEXT
}

built=
rounds=7
seconds=0.7
realtime=false
rows=()
while [ $# -gt 0 ]; do
    case "$1" in
    --built) built=$(realpath -e "${2:?--built takes a build folder}"); shift ;;
    --rounds) rounds=${2:?--rounds takes a number}; shift ;;
    --seconds) seconds=${2:?--seconds takes a number}; shift ;;
    --realtime) realtime=true ;;
    --help | -h) usage; exit 0 ;;
    oneshot | ports | crowd | session | pipeline | kit | company | gone | recovery | idle) rows+=("$1") ;;
    *) usage >&2; exit 2 ;;
    esac
    shift
done
[ ${#rows[@]} -gt 0 ] || rows=(oneshot ports crowd session pipeline kit company gone recovery idle)

. scripts/road.sh
build_road bench
if $realtime; then chrt -r -p 1 $$; fi
cd "$run"
mkdir bus

# --- The table ---

row() { # WORK WORK-FIGURE FLOOR-FIGURE RATIO GOAL
    printf '%-66s %10s %10s %7s   %s\n' "$@"
}

median() { # of the numbers in the lines, FORMAT
    sort -g | awk -v format="$1" '{ n[NR] = $1 } END { m = int((NR + 1) / 2);
        printf format, NR % 2 ? n[m] : (n[m] + n[m + 1]) / 2 }'
}

# compare TITLE GOAL FORMAT FACTOR FLOOR-KEY FLOOR WORK-KEY WORK: both are functions that print a line of figures
compare() {
    local title=$1 goal=$2 format=$3 factor=$4 floor_key=$5 floor=$6 work_key=$7 work=$8 a b
    : >pairs
    for _ in $(seq "$rounds"); do
        "$floor" >figure # not through a pipe: what the function starts and stops has to be known here
        a=$(value "$floor_key" <figure)
        "$work" >figure
        b=$(value "$work_key" <figure)
        awk -v a="$a" -v b="$b" -v f="$factor" 'BEGIN { print a * f, b * f, (a > 0 ? b / a : 0) }' >>pairs
    done
    row "$title" "$(cut -d' ' -f2 pairs | median "$format")" "$(cut -d' ' -f1 pairs | median "$format")" \
        "$(cut -d' ' -f3 pairs | median %.2f)" "$goal"
}

compare_calls() { compare "$1" "$2" '%.0f/s' 1 typical "$3" typical "$4"; }
compare_crowd() { compare "$1" "$2" '%.0f/s' 1 typical "$3" rate "$4"; }
compare_p99() { compare "$1" "$2" '%.2f ms' 0.001 p99_us "$3" p99_us "$4"; }

# absolute TITLE GOAL KEY WORK: a figure in milliseconds that has no floor, its median
absolute() {
    local title=$1 goal=$2 key=$3 work=$4
    : >figures
    for _ in $(seq "$rounds"); do
        "$work" >figure
        value "$key" <figure >>figures
    done
    row "$title" "$(awk '{ print $1 / 1000 }' figures | median '%.2f ms')" - - "$goal"
}

# --- The processes ---

# A measurement says so when calls were lost, and goes on: the figures are those of the others.
measure() { "$load" "$@" || echo "bench-road.sh: calls were lost: $*" >&2; }

port_params='{"port_id":"c1-1"}'
echo_call() { measure oneshot --unix "$1" --method echo.Empty --seconds "$seconds" --calls 1000000; }
ports_call() {
    measure oneshot --unix "$1" --method ports.Get --params "$port_params" --seconds "$seconds" --calls 1000000 \
        --timeout 20000
}
session_call() { # SOCKET IN-FLIGHT
    measure session --unix "$1" --in-flight "$2" --method echo.Empty --seconds "$seconds" --calls 10000000
}

is_running() { [ -n "${pid_of[$1]:-}" ]; }

address_of() { # NAME TRANSPORT: a bus address
    case "$2" in
    tcp) next_port; address=tcp://127.0.0.1:$port ;;
    ipc) address=ipc://$run/bus/$1 ;;
    esac
}

start_bare() { # TRANSPORT: bare-TRANSPORT.sock
    local router service
    if is_running "bare-router-$1"; then return; fi
    address_of "bare-router-$1" "$1"; router=$address
    address_of "bare-service-$1" "$1"; service=$address
    start "bare-router-$1" "$road/bare_router" "bare-$1.sock" "$router" "$service"
    start "bare-service-$1" "$road/bare_service" "$service" "$router" fleet.db
    until_answered oneshot --unix "bare-$1.sock"
}

# The router by hand with a router's checks, and the service on the library, as behind our router: checked.sock.
start_checked() {
    local router="ipc://$run/bus/checked-router" service="ipc://$run/bus/checked-service"
    start bare-router-checked "$road/bare_router" checked.sock "$router" "$service" checked
    start echo-checked "$road/echo_service" "$service" "$router"
    until_answered oneshot --unix checked.sock
}

start_router() { # NAME OPTION...: NAME.sock, NAME.session
    local name=$1
    shift
    start "router-$name" "$routerd" --socket "$name.sock" --session "$name.session" --max-clients 4000 \
        --max-in-flight 4096 "$@"
}

# A router and an echo service that meet on the bus and nothing else: NAME is the transport.
start_bus() {
    local router service
    if is_running "router-$1"; then return; fi
    address_of "router-$1" "$1"; router=$address
    address_of "echo-$1" "$1"; service=$address
    start_router "$1" --publish "$router" --connect "$service"
    start "echo-$1" "$road/echo_service" "$service" "$router"
    until_answered oneshot --unix "$1.sock"
}

# A router with services that register and are served directly: direct.sock, direct.session.
start_direct() {
    if is_running router-direct; then return; fi
    start_router direct --publish "ipc://$run/bus/direct"
    start echo-direct "$road/kit_service" echo --session direct.session
    until_answered oneshot --unix direct.sock
}

# A router and the ports service, as they are: ports.sock.
start_ports() {
    if is_running router-ports; then return; fi
    start_router ports --publish "ipc://$run/bus/ports"
    start portsd "$portsd" --session ports.session --database fleet.db
    until_answered oneshot --unix ports.sock --method ports.Get --params "$port_params"
}

# --- The rows ---

bare_tcp() { echo_call bare-tcp.sock; }
bare_ipc() { echo_call bare-ipc.sock; }
checked_ipc() { echo_call checked.sock; }
bare_ports() { ports_call bare-tcp.sock; }
echo_tcp() { echo_call tcp.sock; }
echo_ipc() { echo_call ipc.sock; }
echo_direct() { echo_call direct.sock; }
ports_alone() { ports_call ports.sock; }

rows_oneshot() {
    start_bare tcp
    start_bare ipc
    start_bus tcp
    compare_calls "one client, a connection a call, empty handler, bus over tcp : bare" ">= 0.85" bare_tcp echo_tcp
    start_checked
    compare_calls "one client, a connection a call, empty handler, by hand over ipc : bare" "-" bare_tcp bare_ipc
    compare_calls "the same with a router's checks, its service on the library : bare" "-" bare_tcp checked_ipc
    start_bus ipc
    compare_calls "one client, a connection a call, empty handler, bus over ipc : bare" ">= 1.05" bare_tcp echo_ipc
    start_direct
    compare_calls "one client, a connection a call, empty handler, direct : bare" "-" bare_tcp echo_direct
}

rows_ports() {
    start_bare tcp
    start_ports
    compare_calls "one client, a connection a call, ports.Get of one port : bare" ">= 0.75" bare_ports ports_alone
}

crowd_tcp() { measure oneshot --unix tcp.sock --clients 64 --seconds "$seconds" --calls 1000000; }
crowd_direct() { measure oneshot --unix direct.sock --clients 64 --seconds "$seconds" --calls 1000000; }

rows_crowd() {
    start_bus tcp
    compare_crowd "64 clients at once, a connection a call, bus over tcp : one client" ">= 2.5" echo_tcp crowd_tcp
    absolute "64 clients at once, bus over tcp, p99" "<= 15 ms" p99_us crowd_tcp
    start_direct
    compare_crowd "64 clients at once, a connection a call, direct : one client" ">= 2.5" echo_direct crowd_direct
    absolute "64 clients at once, direct, p99" "<= 15 ms" p99_us crowd_direct
}

session_bare() { session_call bare-ipc.sock 1; }
session_bare_direct() { session_call bare-direct.sock 1; }
session_tcp() { session_call tcp.session 1; }
session_ipc() { session_call ipc.session 1; }
session_direct() { session_call direct.session 1; }
pipeline_direct() { session_call direct.session 64; }
pipeline_ipc() { session_call ipc.session 64; }

rows_session() {
    start_bare tcp
    start_bare ipc
    start_bus tcp
    start_bus ipc
    start_direct
    start bare-direct "$road/bare_direct" bare-direct.sock
    compare_calls "one session, one call at a time, by hand over ipc : bare" "-" bare_tcp session_bare
    compare_calls "one session, one call at a time, by hand, direct : bare" "-" bare_tcp session_bare_direct
    compare_calls "one session, one call at a time, bus over tcp : bare" "-" bare_tcp session_tcp
    compare_calls "one session, one call at a time, bus over ipc : bare" ">= 1.3" bare_tcp session_ipc
    compare_calls "one session, one call at a time, direct : bare" ">= 2.0" bare_tcp session_direct
}

rows_pipeline() {
    start_bare tcp
    start_bus ipc
    start_direct
    compare_crowd "one session, 64 calls in flight, bus over ipc : bare" "-" bare_tcp pipeline_ipc
    compare_crowd "one session, 64 calls in flight, direct : bare" ">= 8" bare_tcp pipeline_direct
}

# The same router, client and bus: what is compared is the service's own part.
start_kit_bus() {
    start_bus ipc
    if is_running kit-bus; then return; fi
    start kit-bus "$road/kit_service" kit --session ipc.session --bus
    until_answered oneshot --unix ipc.sock --method kit.Empty
}
kit_bus() { measure session --unix ipc.session --in-flight 1 --method kit.Empty --seconds "$seconds" --calls 10000000; }

rows_kit() {
    start_kit_bus
    compare_calls "one session, one call at a time, bus over ipc, kit : library's loop" ">= 0.95" session_ipc kit_bus
    start_direct
    compare_calls "the same, kit directly over its session : library's loop" ">= 0.95" session_ipc session_direct
}

# --- Beside clients that are a trouble ---

silent() { trouble silent silent --unix ports.sock --clients 50; }
slow() { trouble slow slow --unix ports.sock --clients 50; }
unread() {
    trouble unread unread --unix ports.session --method ports.Get --params '{"port_id":"all"}'
}
dead() { trouble dead pending --unix ports.sock --clients 20 --method interfaces.Empty; }
abandoned() { trouble abandoned abandoned --unix ports.sock --clients 10 --method ports.WaitLinkChanged --params '{}'; }

# A service that has registered, and answers no more.
start_dead() {
    start stalled "$road/kit_service" interfaces --session ports.session
    until_answered oneshot --unix ports.sock --method interfaces.Empty
    kill -STOP "${pid_of[stalled]}"
}

ports_beside() { # what $company names is there meanwhile
    local name
    for name in $company; do "$name"; done
    ports_alone
    # shellcheck disable=SC2086
    finish $company
}

company_row() { # TITLE COMPANY
    company=$2
    compare_p99 "a good client's p99 beside $1 : alone" "<= 1.5" ports_alone ports_beside
}

rows_company() {
    start_ports
    start_dead
    company_row "50 silent ones" silent
    company_row "50 slow writers" slow
    company_row "one that never reads" unread
    company_row "20 requests in flight to a dead service" dead
    company_row "10 abandoned waits" abandoned
    company_row "all of these" "silent slow unread dead abandoned"
    finish stalled
}

# --- Across the end of a service ---

# In the background, so that the call is under way when its service is killed.
killed_meanwhile() {
    start gone "$road/kit_service" interfaces --session direct.session
    until_answered oneshot --unix direct.sock --method interfaces.Empty >/dev/null
    kill -STOP "${pid_of[gone]}"
    "$load" oneshot --unix direct.sock --method interfaces.Empty --calls 1 --timeout 60000 >under-way &
    local caller=$!
    sleep 0.05
    local killed=$EPOCHREALTIME
    kill_hard gone
    wait "$caller" || true
    awk -v a="$killed" -v b="$EPOCHREALTIME" 'BEGIN { printf "us=%d\n", (b - a) * 1e6 }'
}
gone_before() { measure oneshot --unix direct.sock --method interfaces.Empty --calls 1 --timeout 60000; }

rows_gone() {
    start_direct
    absolute "an answer to a call under way when its service is killed" "<= 100 ms" us killed_meanwhile
    absolute "an answer to a call when the service has gone" "<= 100 ms" max_us gone_before
}

# From the kill on: the program is started again at once, and called until it answers.
calls_again() { # SOCKET METHOD PARAMS
    "$load" oneshot --unix "$1" --method "$2" --params "$3" --until-result --calls 1000000 --timeout 60000 \
        --seconds 60 >/dev/null || true
}
service_again() {
    local killed=$EPOCHREALTIME
    kill_hard portsd
    start portsd "${portsd_command[@]}"
    calls_again ports.sock ports.Get "$port_params"
    awk -v a="$killed" -v b="$EPOCHREALTIME" 'BEGIN { printf "us=%d\n", (b - a) * 1e6 }'
}
router_again() {
    local killed=$EPOCHREALTIME
    kill_hard router-ports
    start router-ports "${router_command[@]}"
    calls_again ports.sock ports.Get "$port_params"
    awk -v a="$killed" -v b="$EPOCHREALTIME" 'BEGIN { printf "us=%d\n", (b - a) * 1e6 }'
}

command_of() { # NAME: into the array $command, what the process was started with
    mapfile -d '' -t command <"/proc/${pid_of[$1]}/cmdline"
}

rows_recovery() {
    start_ports
    command_of portsd; portsd_command=("${command[@]}")
    command_of router-ports; router_command=("${command[@]}")
    absolute "calls again after kill -9 and restart of the service" "<= 300 ms" us service_again
    absolute "calls again after kill -9 and restart of the router" "<= 300 ms" us router_again
}

idle() { trouble idle idle --unix direct.session --clients 1000 --pid "${pid_of[router-direct]}"; }
echo_beside_idle() {
    idle
    echo_direct
    finish idle
}

rows_idle() {
    start_direct
    idle
    row "1,000 idle sessions, the router's memory for each" "$(value each_bytes <idle.log) B" - - "<= 16384 B"
    finish idle
    compare_p99 "a good client's p99 beside 1,000 idle sessions : alone" "<= 1.2" echo_direct echo_beside_idle
}

row "the work : its floor" work floor ratio goal
for name in "${rows[@]}"; do "rows_$name"; done
