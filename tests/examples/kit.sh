#!/usr/bin/env bash
# The examples of the service kit, built and run against the installed libraries: the smallest service, one with a
# database, a timer, notifications and a call to another service, and clients in C, C++ and Python.
# usage: kit.sh BUILD_DIR CC CXX EMULATOR SYSROOT FLAGS
set -euo pipefail
source "$(dirname "$0")/installed.sh"

cp -r "$source/examples/kit" "$source/examples/python" "$work"
CFLAGS=$flags CXXFLAGS=$flags make -s -C kit CC="$cc" CXX="$cxx" all notes_test
for program in hello notesd notes_test client-c client-cpp; do emulate "$work/kit/$program"; done

kit/notes_test 2>notes_test.log || fail "the test of the notes failed"
expect "its only line" "$(sed 's/.*] //' notes_test.log)" \
    "ERROR Cannot open the notes in /nonexistent/notes.db: unable to open database file"

start_router
start hello kit/hello
expect "hello.Say" "$(python/client.py hello.Say '{"name":"you"}')" '{"hello": "you"}'
status=0
answer=$(python/client.py hello.Say '{}') || status=$?
expect "the exit status of a refusal" "$status" 1
like "the answer to a missing name" "$answer" '*"code": -32602*name*'

# --- The ports service is not there: the note is refused as that is ---

export NOTES=$work/notes.db
old="CREATE TABLE notes (port_id, text, added INTEGER); INSERT INTO notes VALUES ('d1', 'old', 1000)"
sqlite3 "$NOTES" "$old"
start notesd kit/notesd
status=0
answer=$(kit/client-c c1-1 'no light' 2>client.log) || status=$?
expect "the client's exit status without a ports service" "$status" 1
like "without a ports service" "$answer" 'refused: *'

# --- It is there ---

start_ports
for language in c cpp; do
    answer=$("kit/client-$language" c1-1 "from $language" 2>client.log) || fail "client-$language failed: $answer"
    expect "client-$language" "$(LC_ALL=C sort <<<"$answer")" "$(printf 'left\nnotes.Added c1-1: from %s' "$language")"
done
expect "notes.List" "$(python/client.py notes.List '{"port_id":"c1-1"}')" \
    '[{"port_id": "c1-1", "text": "from c"}, {"port_id": "c1-1", "text": "from cpp"}]'
status=0
answer=$(kit/client-cpp c1-1 '' 2>client.log) || status=$?
like "an empty note" "$status $answer" '1 refused: *text*'

# --- The router comes back, and everybody with it ---

kill "$router_pid"
wait "$router_pid" || fail "the router did not stop cleanly"
start_router
tavrixctl wait-service hello notesd portsd --timeout 30 || fail "the services did not come back"
expect "hello.Say after the router's restart" "$(python/client.py hello.Say '{"name":"you"}')" '{"hello": "you"}'

for pid in "${pids[@]:1}"; do
    kill "$pid"
    wait "$pid" || fail "a service did not stop cleanly"
done
