#!/usr/bin/env bash
# Shows the road of requests: client -> router -> bus -> service -> database -> bus -> router -> client.
# Installs from Debian what is missing, builds, starts everything on private paths and loopback ports, sends requests,
# and ends with everything stopped. An answer that is not the expected one ends it with a failure.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
usage: scripts/demo.sh [--keep] [--built FOLDER]

  --keep           leave everything running and print the commands to try
  --built FOLDER   install and build nothing, use the programs of this build folder, for example build/native
TEXT
}

keep=false
bin=
while [ $# -gt 0 ]; do
    case "$1" in
    --keep) keep=true ;;
    --built) bin=$(realpath -e "${2:?--built takes a build folder}"); shift ;;
    --help | -h) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
    esac
    shift
done

if [ -z "$bin" ]; then
    ./scripts/install-packages.sh build demo
    echo "Building ..."
    cmake --preset demo >/dev/null
    cmake --build --preset demo -- --quiet
    bin=$PWD/build/demo
fi
run=$bin/run
ctl=$bin/tools/tavrixctl
if "$ctl" call --socket "$run/router.sock" router.Status >/dev/null 2>&1; then
    echo "demo: one is still running in $run: stop it first, with the command that it printed" >&2
    exit 1
fi
rm -rf "$run"
mkdir -p "$run"
schema=$PWD/daemons/ports
cd "$run"

# --- Start ---

fail() {
    printf '\ndemo: %s\n' "$1" >&2
    exit 1
}

pids=()
slot=tavrix-demo-$$
stop_all() {
    if [ ${#pids[@]} -gt 0 ]; then
        kill "${pids[@]}" 2>/dev/null || true
        for _ in $(seq 200); do # ten seconds, then by force
            if [ -z "$(jobs -pr)" ]; then break; fi
            sleep 0.05
        done
        kill -9 "${pids[@]}" 2>/dev/null || true
        wait "${pids[@]}" 2>/dev/null || true
    fi
    rm -f "/dev/shm/$slot"
}
trap stop_all EXIT

port=$((20000 + RANDOM % 12000)) # below those that the kernel gives to clients
next_address() { # a loopback port that nobody listens on
    port=$((port + 1))
    while (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done
    address="tcp://127.0.0.1:$port"
}
wait_for() { # FILE TEXT: until the file holds the text
    for _ in $(seq 600); do
        if grep -q -- "$2" "$1" 2>/dev/null; then return 0; fi
        sleep 0.05
    done
    cat "$1" >&2
    fail "'$2' never came in $run/$1"
}

sqlite3 zqn_h7.db <"$schema/schema.sql"
sqlite3 zqn_h7.db <"$schema/fleet.sql"
printf '[logging_levels]\nrouterd=info\nportsd=info\neventsd=info\n' >tavrix_lsyslog.conf
next_address; router=$address
next_address; ports=$address
next_address; events=$address
export TAVRIX_SOCKET=router.sock TAVRIX_SESSION=session.sock

"$bin/daemons/router/tavrix-routerd" --socket router.sock --session session.sock --publish "$router" --connect "$ports,$events" \
    --reply-timeout 1500 >/dev/null 2>routerd.log &
pids+=($!)
wait_for routerd.log "routerd ready"
"$bin/daemons/ports/tavrix-portsd" --publish "$ports" --connect "$router,$events" --events "$events" \
    >/dev/null 2>portsd.log &
pids+=($!)
wait_for portsd.log "portsd ready"
printf 'c1-1 down\nc1-1 up\n' >links.txt
"$bin/daemons/events/tavrix-eventsd" --publish "$events" --connect "$router" --ports "$ports" --socket events.sock \
    --script links.txt --interval 500 --slot "/$slot" >/dev/null 2>eventsd.log &
pids+=($!)
wait_for eventsd.log "eventsd ready"
"$ctl" monitor "$router" "$ports" >bus.log 2>monitor.log &
pids+=($!)
wait_for monitor.log "connected to 2 of 2"

# --- Requests ---

number=0
frames_from() { tail -n +"$1" bus.log | grep -v -e service.Welcome -e service.Probe -e service.Hello -e router.Hello || true; }

# outcome STATUS REPLY: what a request came to: "result", the code of an error response, or "none" without an answer
outcome() {
    case "$1" in
    0) echo result ;;
    1 | 3) grep -o -m 1 '"code":-[0-9]*' <<<"$2" | grep -o -e '-[0-9]*' || echo unknown ;;
    4) echo none ;;
    *) echo unknown ;;
    esac
}

# show LEGS OUTCOME TITLE TEXT: sends a request as it stands; LEGS is how many frames it is to make on the bus
show() {
    local legs=$1 expected=$2 title=$3 text=$4
    local first reply status=0 frames to_service="(nothing)" from_service="(nothing)"
    first=$(($(wc -l <bus.log) + 1))
    reply=$("$ctl" send "$text" 2>&1) || status=$?
    for _ in $(seq 200); do
        frames=$(frames_from "$first" | wc -l)
        if [ "$frames" -ge "$legs" ]; then break; fi
        sleep 0.05
    done
    while read -r _ channel json; do
        case "$channel" in
        2524546b-*) from_service="$json" ;;
        *) to_service="${channel:0:8}...| $json" ;;
        esac
    done < <(frames_from "$first")
    number=$((number + 1))
    printf '\n%2d. %s\n' "$number" "$title"
    printf '    client  -> router   %s\n' "$text"
    printf '    router  -> service  %s\n' "$to_service"
    printf '    service -> router   %s\n' "$from_service"
    printf '    router  -> client   %s   [exit status %d]\n' "$reply" "$status"
    [ "$(outcome "$status" "$reply")" = "$expected" ] || fail "the answer should have been $expected"
    [ "$frames" -eq "$legs" ] || fail "$frames frames were seen on the bus instead of $legs"
}

call() { # LEGS OUTCOME TITLE METHOD PARAMS
    show "$1" "$2" "$3" \
        "{\"jsonrpc\":\"2.0\",\"method\":\"$4\",\"id\":\"demo\",\"transaction_id\":$((number + 101)),\"params\":$5}"
}

call 2 result "Read one port" ports.Get '{"port_id":"c1-1"}'
call 2 result "Switch a port on" ports.SetEnabled '{"port_id":"c1-3","status":"enable"}'
call 2 result "Read it back from the database" ports.Get '{"port_id":"c1-3"}'
call 2 result "Put a port into an access VLAN" ports.SetVlanAccess '{"port_id":"d2","vlan_id":20}'
call 2 result "A trunk with three VLANs" ports.SetVlanTrunk '{"port_id":"c2-1","vlan_ids":[10,20,30]}'
call 2 result "Register an edge switch" mzu.Register '{"mzu_id":"c4","model":"ZQN-E12","mac":"00-1b-0d-00-00-04","alias":"attic"}'
call 2 -32602 "A parameter is missing" ports.Get '{}'
call 2 -32602 "A parameter of the wrong type" ports.SetVlanAccess '{"port_id":"d2","vlan_id":"20"}'
call 2 -32602 "A parameter out of range" ports.SetVlanAccess '{"port_id":"d2","vlan_id":4093}'
call 2 -32602 "A parameter that is no option" ports.SetEnabled '{"port_id":"d2","status":"on"}'
call 2 -32034 "A port that does not exist" ports.Get '{"port_id":"c1-99"}'
call 2 -32601 "An unknown method" ports.Explode '{}'
call 1 -32005 "A service that does not answer: the router does" interfaces.Get '{}'
show 0 none "A request without id: a notification, which the router refuses" '{"jsonrpc":"2.0","method":"ports.Get"}'
show 0 -32600 "No JSON at all" 'good morning'

# --- Daemons that call daemons ---

# show_ctl TITLE TEXT ARGUMENTS: runs the client, whose output is to hold the text
show_ctl() {
    local title=$1 text=$2 output
    shift 2
    output=$("$ctl" "$@" 2>>ctl.log) || fail "$title: tavrixctl $* failed with exit status $?: $output"
    printf '\n%s\n    %s\n' "$title" "$output"
    case "$output" in *"$text"*) ;; *) fail "the answer should have held $text" ;; esac
}

show_ctl "A daemon calls a daemon: events.Describe asks ports.Get over the bus and waits for the reply" \
    '"port_id":"c1-1"' call events.Describe port_id=c1-1
show_ctl "A notification, awaited by the client" '"events.LinkChanged"' wait events.LinkChanged "$events"
show_ctl "A notification, awaited by the ports service" '"entity":"c1-1"' call ports.WaitLinkChanged
show_ctl "A direct call, on the events service's own socket" '"entity":"c1-1"' call --direct events.sock events.Last
if [ "$(id -u)" -eq 0 ]; then # the slot's mode lets nobody else open it
    show_ctl "The number of the last event, read from shared memory" "" shm get "/$slot" --int
fi

printf '\nWhat the daemons logged: %s\n' "$run/*.log"

if $keep; then
    trap - EXIT
    disown -a
    cat <<TEXT

Still running: router, ports service, events service, monitor (process ids ${pids[*]}). Try, in $run:

  export TAVRIX_SOCKET=router.sock TAVRIX_SESSION=session.sock
  $ctl call ports.Get port_id=all --json pretty
  $ctl call mzu.List
  $ctl status
  $ctl monitor
  $ctl log-level portsd verbose --file tavrix_lsyslog.conf && tail -f portsd.log
  tail -f bus.log

Stop it with: kill ${pids[*]}; rm -f /dev/shm/$slot
TEXT
    exit 0
fi
stop_all
pids=()
for log in routerd portsd eventsd; do
    grep -q "$log stopped" "$log.log" || fail "$log did not stop cleanly"
done
echo "Everything is stopped."
