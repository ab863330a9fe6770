#!/usr/bin/env bash
# Shows what the system does, a line a step: builds, starts router and services on private paths, sends requests, judges
# every answer, and ends with everything stopped. An answer that is not the expected one ends it with a failure.
set -euo pipefail
cd "$(dirname "$0")/.."
stop_command="$PWD/scripts/demo.sh --stop"

usage() {
    cat <<'TEXT'
usage: scripts/demo.sh [--verbose] [--keep | --stop] [--built FOLDER]

  --verbose        show every request and reply whole
  --keep           leave everything running, also after the terminal is closed, and print commands to try
  --stop           stop what --keep left running
  --built FOLDER   install and build nothing, use the programs of this build folder, for example build/native

Without --keep everything ends with the demonstration, when it is interrupted and when its terminal is closed, too.
TEXT
}

keep=false stop=false verbose=false
bin=
while [ $# -gt 0 ]; do
    case "$1" in
    --verbose) verbose=true ;;
    --keep) keep=true ;;
    --stop) stop=true ;;
    --built) bin=$(realpath -e "${2:?--built takes a build folder}"); stop_command+=" --built $bin"; shift ;;
    --help | -h) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
    esac
    shift
done

# --- How it looks ---

if [ -t 1 ] && [ -z "${NO_COLOR:-}" ] && [ "${TERM:-dumb}" != dumb ]; then
    bold=$'\e[1m' dim=$'\e[2m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m'
else
    bold='' dim='' green='' red='' plain=''
fi

fail() {
    printf '%s✘ %s%s\n' "$red" "$1" "$plain" >&2
    exit 1
}

heading() { printf '\n%s%s%s\n' "$bold" "$1" "$plain"; }

cut_to() { # WIDTH TEXT
    if [ ${#2} -gt "$1" ]; then printf '%s…' "${2:0:$(($1 - 1))}"; else printf '%s' "$2"; fi
}

padded() { # WIDTH TEXT: printf counts bytes where the locale has none of more than one
    local text
    text=$(cut_to "$1" "$2")
    printf '%s%*s' "$text" $(($1 - ${#text})) ''
}

# --- Build and folder ---

build() {
    ./scripts/install-packages.sh build demo
    cmake --preset demo >/dev/null
    if [ -t 1 ]; then # one line that counts
        NINJA_STATUS='Building [%f of %t] ' cmake --build --preset demo
    else
        echo "Building in build/demo, which takes a minute or two at first ..."
        cmake --build --preset demo -- --quiet
    fi
    bin=$PWD/build/demo
}

if $stop && [ -z "$bin" ]; then
    bin=$PWD/build/demo
elif [ -z "$bin" ]; then
    build
fi
run=$bin/run
ctl=$bin/tools/tavrixctl

still_running() { "$ctl" call --socket "$run/router.sock" router.Status >/dev/null 2>&1; }

stop_processes() { # PID...
    [ $# -gt 0 ] || return 0
    kill -CONT "$@" 2>/dev/null || true
    kill "$@" 2>/dev/null || true
    for _ in $(seq 200); do # ten seconds, then by force
        if ! kill -0 "$@" 2>/dev/null; then return 0; fi
        sleep 0.05
    done
    kill -9 "$@" 2>/dev/null || true
}

if $stop; then
    [ -e "$run/kept" ] || fail "none was left running in $run"
    read -r -a kept <"$run/kept" # a shared-memory slot and the process ids
    stop_processes "${kept[@]:1}"
    rm -f "/dev/shm/${kept[0]}" "$run/kept"
    echo "Everything is stopped."
    exit 0
fi
if still_running; then
    fail "one is still running in $run: stop it first, with scripts/demo.sh --stop"
fi
rm -rf "$run"
mkdir -p "$run"
schema=$PWD/daemons/ports
cd "$run"

# --- Start ---

declare -A pid_of=()
slot=tavrix-demo-$$
stop_all() {
    stop_processes "${pid_of[@]}"
    pid_of=()
    rm -f "/dev/shm/$slot"
}
trap stop_all EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

port=$((20000 + RANDOM % 12000)) # below those that the kernel gives to clients
while (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done

until_there() { # FILE TEXT: until the file holds the text
    for _ in $(seq 600); do
        if grep -q -- "$2" "$1" 2>/dev/null; then return 0; fi
        sleep 0.05
    done
    cat "$1" >&2
    fail "'$2' never came in $run/$1"
}

start() { # NAME READY PROGRAM ARGUMENT...: in the background, its log in NAME.log, until that holds READY
    local name=$1 ready=$2 run_as=()
    shift 2
    if $keep; then run_as=(setsid); fi
    if [ -e "$name.log" ]; then mv "$name.log" "$name-before.log"; fi
    "${run_as[@]}" "$@" </dev/null >"$name.out" 2>"$name.log" &
    pid_of[$name]=$!
    disown # the shell says nothing when one of them is killed
    until_there "$name.log" "$ready"
}

start_ports() { # started anew in the middle of it
    start portsd "portsd ready" "$bin/daemons/ports/tavrix-portsd" --session session.sock
}

sqlite3 zqn_h7.db <"$schema/schema.sql"
sqlite3 zqn_h7.db <"$schema/fleet.sql"
printf '[logging_levels]\nrouterd=info\nportsd=info\neventsd=info\n' >tavrix_lsyslog.conf
printf 'c1-1 down\nc1-1 up\n' >links.txt
export TAVRIX_SOCKET=router.sock TAVRIX_SESSION=session.sock

start routerd "routerd ready" "$bin/daemons/router/tavrix-routerd" --socket router.sock --session session.sock \
    --publish ipc://bus/router --tcp "$port" --reply-timeout 1500 --client-timeout 10000
start_ports
start eventsd "eventsd ready" "$bin/daemons/events/tavrix-eventsd" --session session.sock --socket events.sock \
    --script links.txt --interval 500 --slot "/$slot"
start monitor "watching through the router" "$ctl" monitor --json lines 'ports.*' 'mzu.*'

# --- Steps ---

steps=0
latencies=()

# step TITLE SERVICE OUTCOME WORDS COMMAND...: one line of what a command came to.
# SERVICE is who has to get one request of it, or nobody; OUTCOME what its answer has to be: "result", an error's code,
# or "none"; WORDS makes the line's words of a result, as jq has it.
step() {
    local title=$1 service=$2 expected=$3 words=$4 first reply status=0 seen wanted=0 text milliseconds=''
    shift 4
    [ "$service" = nobody ] || wanted=1
    first=$(($(wc -l <monitor.out) + 1))
    reply=$("$@" 2>>ctl.log) || status=$?
    for _ in $(seq 200); do
        seen=$(tail -n +"$first" monitor.out | wc -l)
        if [ "$seen" -ge "$wanted" ]; then break; fi
        sleep 0.05
    done
    tail -n +"$first" monitor.out >passed
    steps=$((steps + 1))

    case "$status $(jq -r '(.error.code)? // "result"' <<<"$reply" 2>/dev/null)" in
    0\ result) outcome=result text=$(jq -r "$words" <<<"$reply") ;;
    4\ *) outcome=none text="closed without an answer" ;;
    *) outcome=$(jq -r '.error.code' <<<"$reply" 2>/dev/null || echo unknown)
        text=$(jq -r '"\(.error.data?.reason? // .error.data?.message? // .error.message) (\(.error.code))"' \
            <<<"$reply" 2>/dev/null || echo "$reply") ;;
    esac
    [ "$outcome" = "$expected" ] || fail "$title: $text; the answer should have been $expected"
    [ "$seen" -eq "$wanted" ] || fail "$title: $seen requests went to a service instead of $wanted"
    if [ "$wanted" -eq 1 ]; then
        [ "$(jq -r .service passed)" = "$service" ] || fail "$title: $service should have had the request"
        milliseconds=$(LC_ALL=C printf '%.1f' "$(jq -r '.seconds * 1000' passed)")
        latencies+=("$milliseconds")
        milliseconds+=" ms"
    fi
    printf '%s✔%s %s ' "$green" "$plain" "$(padded 34 "$title")"
    if [ "$wanted" -eq 1 ]; then
        printf '%s %s%9s%s\n' "$(padded 53 "$text")" "$dim" "$milliseconds" "$plain"
    else
        printf '%s\n' "$(cut_to 63 "$text")"
    fi
    if $verbose; then show_frames "$reply"; fi
}

show_frames() { # REPLY: and what went to a service and came back meanwhile
    printf '%s' "$dim"
    jq -c '.request, .reply' passed | sed 's/^/    service  /'
    printf '    client   %s\n' "$1"
    printf '%s' "$plain"
}

# A request as any client may write it, over the router's socket for one request.
request() { # METHOD PARAMS
    "$ctl" send "{\"jsonrpc\":\"2.0\",\"method\":\"$1\",\"id\":\"demo\",\"transaction_id\":$((steps + 101)),\"params\":$2}"
}

port_words='.result.ports[0] | [if .status == "enable" then .link_status else "off" end, .link_speed,
    ([.vlan_mode, "VLAN", (.vlan_ids | map(tostring) | join(", "))] | select(.[2] != "") | join(" "))] | join(", ")'

leg() { # ENDS TEXT: without the member that is always the same, unless everything is to be seen
    local text=$2
    if ! $verbose; then text=$(cut_to 70 "${text/\"jsonrpc\":\"2.0\",/}"); fi
    printf ' %s   %s\n' "$1" "$text"
}

# The road of one request, drawn from what was said at each end and what passed in the middle.
draw_road() {
    local asked reply
    asked='{"jsonrpc":"2.0","method":"ports.Get","id":"demo","params":{"port_id":"c1-1"}}'
    reply=$("$ctl" send "$asked") || true # it is the first step that judges it
    until_there monitor.out ports.Get
    heading "The road of one request"
    leg 'client ──▶ router           ' "$asked"
    leg '           router ──▶ portsd' "$(head -n 1 monitor.out | jq -c .request)"
    leg '           router ◀── portsd' "$(head -n 1 monitor.out | jq -c .reply)"
    leg 'client ◀── router           ' "$reply"
}

draw_road

heading "Read and change"
step "ports.Get c1-1" portsd result "$port_words" request ports.Get '{"port_id":"c1-1"}'
step "ports.SetEnabled c1-3 enable" portsd result '"done"' request ports.SetEnabled '{"port_id":"c1-3","status":"enable"}'
step "ports.Get c1-3" portsd result "$port_words" request ports.Get '{"port_id":"c1-3"}'
step "ports.SetVlanTrunk c2-1 10,20,30" portsd result '"done"' \
    request ports.SetVlanTrunk '{"port_id":"c2-1","vlan_ids":[10,20,30]}'
step "mzu.Register c4" portsd result '"registered as \(.result.mzu_id)"' request mzu.Register \
    '{"mzu_id":"c4","model":"ZQN-E12","mac":"00-1b-0d-00-00-04","alias":"attic"}'

heading "Refused, with the reason"
step "ports.Get" portsd -32602 . request ports.Get '{}'
step 'ports.SetVlanAccess d2 "20"' portsd -32602 . request ports.SetVlanAccess '{"port_id":"d2","vlan_id":"20"}'
step "ports.SetVlanAccess d2 4093" portsd -32602 . request ports.SetVlanAccess '{"port_id":"d2","vlan_id":4093}'
step "ports.SetEnabled d2 on" portsd -32602 . request ports.SetEnabled '{"port_id":"d2","status":"on"}'
step "ports.Get c1-99" portsd -32034 . request ports.Get '{"port_id":"c1-99"}'
step "ports.Explode" nobody -32601 . request ports.Explode '{}'
step "interfaces.Get" nobody -32601 . request interfaces.Get '{}'
step "a request without id" nobody none . "$ctl" send '{"jsonrpc":"2.0","method":"ports.Get"}'
step '"good morning"' nobody -32600 . "$ctl" send 'good morning'

heading "Whoever does not behave disturbs nobody"
silent=()
for _ in $(seq 20); do
    exec {descriptor}<>"/dev/tcp/127.0.0.1/$port"
    silent+=("$descriptor")
done
step "20 silent ones: ports.Get d1" portsd result "$port_words" request ports.Get '{"port_id":"d1"}'
for descriptor in "${silent[@]}"; do exec {descriptor}>&-; done

kill -STOP "${pid_of[portsd]}"
step "portsd is stopped: ports.Get d1" portsd -32005 . request ports.Get '{"port_id":"d1"}'

# The service is killed as soon as the router has a call of it under way.
call_and_kill() {
    local caller
    "$ctl" call --full ports.Get port_id=d1 >killed.out 2>>ctl.log &
    caller=$!
    for _ in $(seq 200); do
        if "$ctl" call router.Status | jq -e '.in_flight == 1' >/dev/null; then break; fi
        sleep 0.01
    done
    kill -KILL "${pid_of[portsd]}"
    wait "$caller" || true
    cat killed.out
}
step "portsd is killed in a call" portsd -32601 . call_and_kill
step "portsd is gone: ports.Get d1" nobody -32601 . request ports.Get '{"port_id":"d1"}'
start_ports
step "portsd is back: ports.Get d1" portsd result "$port_words" request ports.Get '{"port_id":"d1"}'

# A program that changes the database is killed when pages of its transaction are in the file already.
# shellcheck disable=SC2016
( # whose words about the killed program nobody hears
    sqlite3 zqn_h7.db "PRAGMA cache_size = 1; BEGIN; UPDATE ports SET status = 0, link_speed = 1;
        CREATE TABLE filler AS WITH RECURSIVE n(i) AS (VALUES(1) UNION ALL SELECT i + 1 FROM n WHERE i < 1000)
        SELECT i, hex(randomblob(64)) FROM n;" '.system kill -KILL $PPID' || true
) >/dev/null 2>&1
[ -s zqn_h7.db-journal ] || fail "the killed change should have left its journal"
step "a change killed half done: undone" portsd result "$port_words" request ports.Get '{"port_id":"c1-1"}'

heading "What an operator does"
step "router.Lock" nobody result '"locked"' request router.Lock '{}'
step "ports.Get c1-1, while locked" nobody -32014 . request ports.Get '{"port_id":"c1-1"}'
step "router.Unlock" nobody result '"unlocked"' request router.Unlock '{}'

log_level() { # LEVEL: the daemon rereads it while it serves
    "$ctl" log-level portsd "$1" --file tavrix_lsyslog.conf | sed -n 's/^portsd *\([a-z]*\) */\1, /p' | jq -R .
}
step "tavrixctl log-level portsd verbose" nobody result . log_level verbose
until_there portsd.log "Logging level set to verbose"
step "tavrixctl log-level portsd info" nobody result . log_level info

heading "Daemons among themselves"
step "eventsd asks portsd: Describe c1-1" portsd result '.result | "its latest event: \(.last_event.number? // "none")"' \
    "$ctl" call --full events.Describe port_id=c1-1
step "a notification, to a client" nobody result '"\(.params.entity) is \(.params.text)"' "$ctl" wait events.LinkChanged
step "a notification, to portsd" portsd result '.result | "\(.entity) is \(.text)"' \
    "$ctl" call --full ports.WaitLinkChanged
step "eventsd's own socket: events.Last" nobody result '.result | "event \(.number): \(.entity) is \(.text)"' \
    "$ctl" call --full --direct events.sock events.Last
if [ "$(id -u)" -eq 0 ]; then # the slot's mode lets nobody else open it
    step "shared memory: the latest event" nobody result '"event \(.)"' "$ctl" shm get "/$slot" --int
fi

# --- End ---

summary() {
    local sorted median slowest
    mapfile -t sorted < <(printf '%s\n' "${latencies[@]}" | sort -g)
    median=${sorted[$((${#sorted[@]} / 2))]} slowest=${sorted[-1]}
    printf '\n%s%d steps, every answer as expected.%s %d calls of services: median %s ms, slowest %s ms.\n' \
        "$bold" "$steps" "$plain" "${#latencies[@]}" "$median" "$slowest"
}
summary

if $keep; then
    trap - EXIT
    echo "$slot ${pid_of[*]}" >kept
    disown -a
    cat <<TEXT

Still running: router, ports service, events service, monitor. Try, in $run:

  export TAVRIX_SOCKET=router.sock TAVRIX_SESSION=session.sock
  $ctl list
  $ctl call ports.Get port_id=all --json pretty
  $ctl status
  $ctl monitor
  $ctl log-level portsd verbose && tail -f portsd.log

Stop it with: $stop_command
TEXT
    exit 0
fi
stop_all
for log in routerd portsd eventsd; do
    grep -q "$log stopped" "$log.log" || fail "$log did not stop cleanly"
done
echo "Everything is stopped; the logs are in ${run#"$OLDPWD"/}."
