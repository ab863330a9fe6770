#!/usr/bin/env bash
# A page of docs/ as it stands: its files are written, its commands are run in their order in one folder, and each must
# print what the page shows below it.
# usage: guide.sh BUILD_DIR CC CXX EMULATOR SYSROOT FLAGS PAGE
set -euo pipefail
page=$7
source "$(dirname "$0")/installed.sh"
export PYTHONPATH=$source/bindings/python PYTHONDONTWRITEBYTECODE=1

mkdir guide listings
awk -v listings=listings -v files=guide -f "$source/tests/examples/listings.awk" "$source/docs/$page"
if [ -z "$(find guide -name '*.c')" ] || [ -z "$(find listings -name '*.text')" ]; then fail "the page has no listings"; fi

cd guide
for commands in ../listings/*.sh; do
    status=0
    set +o pipefail # as in the reader's shell: tavrixctl's status tells of an answer that is an error
    eval "$(cat "$commands")" >../printed.log 2>../said.log || status=$?
    set -o pipefail
    mapfile -t -O "${#pids[@]}" pids < <(jobs -pr)
    [ "$status" -eq 0 ] || fail "this failed: $(cat "$commands")"
    text=${commands%.sh}.text
    [ ! -e "$text" ] || expect "$(cat "$commands")" "$(cat ../printed.log)" "$(cat "$text")"
done
# The newest first: the page's clients before the router they hang on. Python's have no handler for the signal.
for pid in $(jobs -pr | tac); do
    name=$(cat "/proc/$pid/comm")
    kill "$pid"
    wait "$pid" || [ "$name" = python3 ] || fail "a program of the page did not stop cleanly: $name"
done
