#!/usr/bin/env bash
# The examples of the library alone, built against the installed one, in C through pkg-config and in C++ through the
# CMake package: each set is run from client to router to service and back.
# usage: run.sh BUILD_DIR CC CXX EMULATOR SYSROOT FLAGS
set -euo pipefail
source "$(dirname "$0")/installed.sh"

# --- Build ---

cp -r "$source/examples" "$work/examples"
CC=$cc CFLAGS=$flags make -s -C "$work/examples/c"
configure "$work/examples/cpp" "$work/cpp"
cmake --build "$work/cpp" >/dev/null
for program in service client router; do
    mv "$work/examples/c/$program" "$work/$program-c"
    mv "$work/cpp/$program" "$work/$program-cpp"
    emulate "$work/$program-c"
    emulate "$work/$program-cpp"
done

# --- Run ---

port=$((20000 + RANDOM % 12000)) # below those that the kernel gives to clients
next_port() { # one that can be bound: not a listener's, nor one that a closed connection still holds
    port=$((port + 1))
    until python3 -c "import socket; socket.socket().bind(('', $port))" 2>/dev/null; do port=$((port + 1)); done
}

filler=$(printf '%062d' 0)
fitting="{\"text\":\"${filler}0\"}"
too_long="{\"text\":\"$filler\\u00e9\"}" # a character of two bytes across the end of the service's buffer

# check_answers NAME COMMAND...: what the service says to a good text, to none, to the longest and to a longer one
check_answers() {
    local name=$1 answer=
    shift
    for _ in $(seq 60); do # until both sides of the bus have found each other
        answer=$("$@" hello.Say '{"text":"good morning"}' 2>client.log) && break
        sleep 0.1
    done
    like "$name: a good text" "$answer" \
        '{"jsonrpc":"2.0","id":"hello.Say","result":{"said":"good morning"},"transaction_id":*}'
    echo "$name: $answer"
    # The client's exit status may tell of a refusal.
    like "$name: a missing parameter" "$("$@" hello.Say '{}' 2>client.log || true)" \
        "*Missing expected parameter: 'text'*"
    like "$name: the longest text" "$("$@" hello.Say "$fitting" 2>client.log || true)" "*\"said\":\"${filler}0\"*"
    like "$name: a text that does not fit" "$("$@" hello.Say "$too_long" 2>client.log || true)" '*"code":-32602*'
}

cd "$work"
for language in c cpp; do
    next_port; clients=$port
    next_port; router=tcp://127.0.0.1:$port
    next_port; service=tcp://127.0.0.1:$port
    "./router-$language" "$clients" "$router" "$service" 2>router.log & pids+=($!); router_pid=$!
    "./service-$language" "$service" "$router" 2>service.log & pids+=($!); service_pid=$!
    check_answers "$language" "./client-$language" "$clients"
    status=0
    long="{\"text\":\"$(printf '%01024d' 0)\"}"
    "./client-$language" "$clients" hello.Say "$long" >reply.log 2>client.log || status=$?
    # The C client has no room for the request: nothing is sent, rather than half of it.
    like "$language: a request of more than 1024 bytes" "$language $status $(cat reply.log)" \
        "$([ "$language" = c ] && echo 'c 2 ' || echo 'cpp 0 *"code":-32602*')"
    kill "$router_pid" "$service_pid"
    { wait "$router_pid" && wait "$service_pid"; } || fail "$language: did not stop cleanly"
done
