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
case "$output" in *"Everything is stopped.") ;; *) fail "it ended with: $output" ;; esac

# Its standard output is closed when it ends, though the daemons run on: else this would wait for them.
folder kept
output=$(demo --keep --built "$work/kept")
stop=$(sed -n 's/^Stop it with: //p' <<<"$output")
slot=${stop##* }
[ -e "$slot" ] || fail "the slot '$slot' is not there"
again=$(demo --built "$work/kept" 2>&1) && fail "a second one started beside it"
case "$again" in *"still running"*) ;; *) fail "a second one said: $again" ;; esac
"$work/kept/tools/tavrixctl" call --socket "$work/kept/run/router.sock" ports.Get '{"port_id":"c1-1"}'
eval "$stop"
[ ! -e "$slot" ] || fail "the slot $slot is still there"

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
case "$output" in *"demo: the answer should have been result"*) ;; *) fail "it said: $output" ;; esac
