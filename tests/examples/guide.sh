#!/usr/bin/env bash
# docs/writing-a-service.md as it stands: its files are written, its commands are run in their order in one folder, and
# each must print what the page shows below it.
# usage: guide.sh BUILD_DIR CC CXX EMULATOR SYSROOT FLAGS
set -euo pipefail
source "$(dirname "$0")/installed.sh"

mkdir guide listings
awk -v listings=listings -v files=guide -f "$source/tests/examples/listings.awk" "$source/docs/writing-a-service.md"
if [ "$(find guide -name '*.c' | wc -l)" -lt 3 ] || [ ! -e listings/02.sh ]; then fail "the page has no listings"; fi

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
grep -q 'thermod ready' thermod.log || fail "the service never said that it is ready"
kill %?thermod
wait %?thermod || fail "the service did not stop cleanly"
