#!/usr/bin/env bash
# Shows the road of requests: client -> router -> service -> database -> service -> router -> client.
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
next_port() { # a loopback port that nobody listens on
    port=$((port + 1))
    while (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done
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
next_port
export TAVRIX_SOCKET=router.sock TAVRIX_SESSION=session.sock

"$bin/daemons/router/tavrix-routerd" --socket router.sock --session session.sock --publish ipc://bus/router \
    --tcp "$port" --reply-timeout 1500 --client-timeout 10000 >/dev/null 2>routerd.log &
pids+=($!)
wait_for routerd.log "routerd ready"
start_ports() { # the second process: started anew in the middle of it
    "$bin/daemons/ports/tavrix-portsd" --session session.sock >/dev/null 2>portsd.log &
    pids[1]=$!
    wait_for portsd.log "portsd ready"
}
start_ports
printf 'c1-1 down\nc1-1 up\n' >links.txt
"$bin/daemons/events/tavrix-eventsd" --session session.sock --socket events.sock \
    --script links.txt --interval 500 --slot "/$slot" >/dev/null 2>eventsd.log &
pids+=($!)
wait_for eventsd.log "eventsd ready"
"$ctl" monitor --json lines 'ports.*' 'mzu.*' >traffic.log 2>monitor.log &
pids+=($!)
wait_for monitor.log "watching through the router"

# --- Requests ---

number=0

# outcome STATUS REPLY: what a request came to: "result", the code of an error response, or "none" without an answer
outcome() {
    case "$1" in
    0) echo result ;;
    1 | 3) grep -o -m 1 '"code":-[0-9]*' <<<"$2" | grep -o -e '-[0-9]*' || echo unknown ;;
    4) echo none ;;
    *) echo unknown ;;
    esac
}

# show SERVICE OUTCOME TITLE TEXT: sends a request as it stands; SERVICE is who is to have it, or nobody
show() {
    local service=$1 expected=$2 title=$3 text=$4
    local first reply status=0 line="" wanted=0 seen request="(nothing)" answer="(nothing)"
    [ "$service" = nobody ] || wanted=1
    first=$(($(wc -l <traffic.log) + 1))
    reply=$("$ctl" send --socket router.sock "$text" 2>&1) || status=$?
    for _ in $(seq 200); do
        seen=$(tail -n +"$first" traffic.log | wc -l)
        if [ "$seen" -ge "$wanted" ]; then break; fi
        sleep 0.05
    done
    line=$(tail -n +"$first" traffic.log)
    if [ -n "$line" ]; then
        request=${line#*,\"request\":} request=${request%,\"reply\":*}
        case "$line" in # otherwise it is the router that answers
        *'"outcome":"result"'* | *'"outcome":"error"'*) answer=${line##*,\"reply\":} answer=${answer%\}} ;;
        esac
    fi
    number=$((number + 1))
    printf '\n%2d. %s\n' "$number" "$title"
    printf '    client  -> router   %s\n' "$text"
    printf '    router  -> service  %s\n' "$request"
    printf '    service -> router   %s\n' "$answer"
    printf '    router  -> client   %s   [exit status %d]\n' "$reply" "$status"
    [ "$(outcome "$status" "$reply")" = "$expected" ] || fail "the answer should have been $expected"
    [ "$seen" -eq "$wanted" ] || fail "$seen requests went to a service instead of $wanted"
    case "$service $line" in
    nobody*) ;;
    *"\"service\":\"$service\""*) ;;
    *) fail "$service should have had the request" ;;
    esac
}

call() { # SERVICE OUTCOME TITLE METHOD PARAMS
    show "$1" "$2" "$3" \
        "{\"jsonrpc\":\"2.0\",\"method\":\"$4\",\"id\":\"demo\",\"transaction_id\":$((number + 101)),\"params\":$5}"
}

call portsd result "Read one port" ports.Get '{"port_id":"c1-1"}'
call portsd result "Switch a port on" ports.SetEnabled '{"port_id":"c1-3","status":"enable"}'
call portsd result "Read it back from the database" ports.Get '{"port_id":"c1-3"}'
call portsd result "Put a port into an access VLAN" ports.SetVlanAccess '{"port_id":"d2","vlan_id":20}'
call portsd result "A trunk with three VLANs" ports.SetVlanTrunk '{"port_id":"c2-1","vlan_ids":[10,20,30]}'
call portsd result "Register an edge switch" mzu.Register '{"mzu_id":"c4","model":"ZQN-E12","mac":"00-1b-0d-00-00-04","alias":"attic"}'
call portsd -32602 "A parameter is missing" ports.Get '{}'
call portsd -32602 "A parameter of the wrong type" ports.SetVlanAccess '{"port_id":"d2","vlan_id":"20"}'
call portsd -32602 "A parameter out of range" ports.SetVlanAccess '{"port_id":"d2","vlan_id":4093}'
call portsd -32602 "A parameter that is no option" ports.SetEnabled '{"port_id":"d2","status":"on"}'
call portsd -32034 "A port that does not exist" ports.Get '{"port_id":"c1-99"}'
call nobody -32601 "An unknown method" ports.Explode '{}'
call nobody -32601 "A method whose service is not there" interfaces.Get '{}'
show nobody none "A request without id: a notification, which the router refuses" '{"jsonrpc":"2.0","method":"ports.Get"}'
show nobody -32600 "No JSON at all" 'good morning'

# --- Clients and services that do not behave ---

silent=()
for _ in $(seq 20); do
    exec {descriptor}<>"/dev/tcp/127.0.0.1/$port"
    silent+=("$descriptor")
done
call portsd result "Twenty clients have connected and say nothing: they hold nobody up" ports.Get '{"port_id":"d1"}'
for descriptor in "${silent[@]}"; do exec {descriptor}>&-; done

kill -STOP "${pids[1]}"
call portsd -32005 "A service that does not answer in time: the router does" ports.Get '{"port_id":"d1"}'
"$ctl" call --full ports.Get port_id=d1 >killed.log 2>>ctl.log &
caller=$!
for _ in $(seq 200); do
    if "$ctl" call router.Status | grep -q '"in_flight":1'; then break; fi
    sleep 0.01
done
{ kill -KILL "${pids[1]}" && wait "${pids[1]}"; } 2>/dev/null || true
wait "$caller" || true
printf '\nA service is killed while it has a request: its caller is told at once\n    %s\n' "$(cat killed.log)"
grep -q '"code":-32601.*portsd, which serves ports.Get, is not there' killed.log || fail "its caller was not told"
call nobody -32601 "So is who comes later" ports.Get '{"port_id":"d1"}'
mv portsd.log portsd-killed.log
start_ports
call portsd result "It is started again: calls flow" ports.Get '{"port_id":"d1"}'

# --- Daemons that call daemons ---

# show_ctl TITLE TEXT ARGUMENTS: runs the client, whose output is to hold the text
show_ctl() {
    local title=$1 text=$2 output
    shift 2
    output=$("$ctl" "$@" 2>>ctl.log) || fail "$title: tavrixctl $* failed with exit status $?: $output"
    printf '\n%s\n    %s\n' "$title" "$output"
    case "$output" in *"$text"*) ;; *) fail "the answer should have held $text" ;; esac
}

show_ctl "A daemon calls a daemon: events.Describe asks ports.Get through the router, and serves others meanwhile" \
    '"port_id":"c1-1"' call events.Describe port_id=c1-1
show_ctl "A notification, awaited by the client" '"events.LinkChanged"' wait events.LinkChanged
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
  tail -f traffic.log

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
