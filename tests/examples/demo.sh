#!/usr/bin/env bash
# The demonstration, with this build's programs: to its end, left running, and with a service that answers otherwise.
# usage: demo.sh BUILD_DIR
set -euo pipefail

build=$1
source=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
stop=
clean_up() {
    eval "$stop" 2>/dev/null || true
    rm -rf "$work"
}
trap clean_up EXIT

fail() {
    echo "$1" >&2
    exit 1
}

# folder NAME: the build's programs in a folder of their own, where the demonstration keeps its files
folder() {
    mkdir -p "$work/$1/daemons"
    ln -s "$build/tools" "$work/$1/tools"
    ln -s "$build"/daemons/{router,ports,events} "$work/$1/daemons"
}
demo() { "$source/scripts/demo.sh" "$@" </dev/null; }

folder whole
output=$(demo --built "$work/whole") || fail "it failed: $output"
case "$output" in *"every answer as expected"*"Everything is stopped"*) ;; *) fail "it ended with: $output" ;; esac

# Its standard output is closed when it ends, though the daemons run on: else this would wait for them.
folder kept
output=$(demo --keep --built "$work/kept")
stop="demo --stop --built $work/kept"
read -r slot _ <"$work/kept/run/kept"
[ "$(id -u)" -ne 0 ] || [ -e "/dev/shm/$slot" ] || fail "the slot '$slot' is not there"
again=$(demo --built "$work/kept" 2>&1) && fail "a second one started beside it"
case "$again" in *"still running"*) ;; *) fail "a second one said: $again" ;; esac
"$work/kept/tools/tavrixctl" call --socket "$work/kept/run/router.sock" ports.Get '{"port_id":"c1-1"}'
$stop
[ ! -e "/dev/shm/$slot" ] || fail "the slot $slot is still there"
if "$work/kept/tools/tavrixctl" call --socket "$work/kept/run/router.sock" router.Status 2>/dev/null; then
    fail "its router still answers"
fi

# A terminal that is closed takes the daemons with it, unless they are to be kept.
folder closed
setsid "$source/scripts/demo.sh" --built "$work/closed" </dev/null >"$work/closed.out" 2>&1 &
for _ in $(seq 1200); do
    if grep -q 'ports.Get c1-1' "$work/closed.out"; then break; fi
    sleep 0.05
done
kill -HUP "$!"
wait "$!" && fail "it went on without its terminal"
if "$work/closed/tools/tavrixctl" call --socket "$work/closed/run/router.sock" router.Status 2>/dev/null; then
    fail "its router outlived the terminal"
fi

folder broken
rm "$work/broken/daemons/ports"
mkdir "$work/broken/daemons/ports"
cat >"$work/broken/daemons/ports/tavrix-portsd" <<TEXT
#!/bin/sh
# says that it is ready, and knows of no port
rm -f empty.db
sqlite3 empty.db <"$source/daemons/ports/schema.sql"
exec "$build/daemons/ports/tavrix-portsd" --database empty.db "\$@"
TEXT
chmod +x "$work/broken/daemons/ports/tavrix-portsd"
status=0
output=$(demo --built "$work/broken" 2>&1) || status=$?
[ "$status" -eq 1 ] || fail "with an empty fleet it ended with $status: $output"
case "$output" in *"the answer should have been result"*) ;; *) fail "it said: $output" ;; esac
