#!/usr/bin/env bash
# A page of docs/ as it stands: its files are written, its commands are run in their order in one folder, and each must
# print what the page shows below it.
# usage: guide.sh BUILD_DIR CC CXX EMULATOR SYSROOT FLAGS PAGE
set -euo pipefail
page=$7
source "$(dirname "$0")/installed.sh"
export PYTHONPATH=$source/bindings/python PYTHONDONTWRITEBYTECODE=1

# Splits the page: files by their names, commands as NUMBER.sh, and what they print as NUMBER.text.
mkdir guide listings
awk -v listings=listings -v files=guide '
    /^```$/ { out = ""; next }
    /^```(c|py) / { out = files "/" $2; next }
    /^```sh$/ { out = sprintf("%s/%02d.sh", listings, ++number); next }
    /^```text$/ { out = sprintf("%s/%02d.text", listings, number); next }
    /^```/ { print "what is " $0 >"/dev/stderr"; exit 1 }
    out != "" { print >out }
' "$source/docs/$page"
[ -n "$(find guide -name '*.c')" ] && [ -n "$(find listings -name '*.text')" ] || fail "the page has no listings"

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
for pid in $(jobs -pr); do
    name=$(cat "/proc/$pid/comm")
    kill "$pid"
    wait "$pid" || [ "$name" = python3 ] || fail "a program of the page did not stop cleanly: $name"
done
