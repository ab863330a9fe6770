#!/usr/bin/env bash
# The listings of the other pages: the exchanges of docs/protocol.md happen as they stand there (protocol.py); the policy
# of docs/router.md is one; what pages quote is said, and scripts and options that they name are there.
# usage: pages.sh BUILD_DIR CC CXX EMULATOR SYSROOT FLAGS
set -euo pipefail
source "$(dirname "$0")/installed.sh"

# Two systems: a direct service, whose session with the router is written down, and one on the bus, with its frames.
start_router
protocol=$source/tests/examples/protocol.py
python3 "$protocol" --between between.sock session.sock passed &
pids+=($!)
make_fleet
start portsd tavrix-portsd --database fleet.db --session between.sock
mkdir -m 770 onbus
bus=(--publish "ipc://$work/onbus/router" --connect "ipc://$work/onbus/portsd")
tavrix-routerd --socket onbus/router.sock --session onbus/session.sock "${bus[@]}" 2>onbus_router.log &
pids+=($!)
tavrix-portsd --database fleet.db --session '' --publish "ipc://$work/onbus/portsd" --connect "ipc://$work/onbus/router" \
    2>onbus_portsd.log &
pids+=($!)
read -ra options <<<"$(pkg-config --cflags --libs tavrix)"
cc -o bus_listener "$source/tests/examples/bus_listener.c" "${options[@]}"
./bus_listener "ipc://$work/onbus/router" "ipc://$work/onbus/portsd" >frames &
pids+=($!)
python3 "$protocol" "$source/docs/protocol.md" || fail "docs/protocol.md says otherwise"

# The policy, without the names that this machine does not have.
sed -nE '/^    \[tcp\]/,/^$/p; /^    \[(unix|session)\]/,/^$/p' "$source/docs/router.md" | sed 's/^    //' |
    sed -E "s/^group\.operators/group.$(id -gn)/; s/^user\.backup/user.$(id -un)/" | awk '/^accept|^cert/ {exit} {print}' >policy.conf
grep -q '^all=' policy.conf || fail "docs/router.md has no policy"
tavrix-routerd --socket other.sock --session other_session.sock --publish "ipc://$work/bus/other" --policy policy.conf \
    2>policy.log &
pids+=($!)
for _ in $(seq 600); do
    [ ! -S other.sock ] || break
    sleep 0.05
done
tavrixctl call --socket other.sock router.Status >status.log || fail "the policy of docs/router.md is refused"

# --- Names ---

# What the tables of docs/debugging.md and docs/router.md quote is said by a program; "..." and what the system says itself
# stand between the parts.
find "$source"/{common,daemons,kit,src,tools} \( -name '*.cpp' -o -name '*.h' \) -exec \
    grep -hvE '^ *(//|/?\*([ */]|$))' {} + | grep -oE '"([^"\\]|\\.)*"' >said
for page in debugging router; do
    # shellcheck disable=SC2016
    grep '^|' "$source/docs/$page.md" | sed -E 's/`[^`]*`//g' | grep -oE '"[^"]+"' | tr -d '"' |
        sed -E 's/ *\.\.\. */\n/g; s/(No such file or directory|Permission denied|Too many open files)(; )?//g' |
        sed '/^$/d' | sort -u >quoted
    [ -s quoted ] || fail "docs/$page.md quotes nothing"
    while read -r text; do grep -qF -e "$text" said || fail "docs/$page.md: nothing says '$text'"; done <quoted
done

grep -ohE '(`|^ *)tavrixctl [a-z-]+' "$source"/{README,bindings/python/README,docs/*}.md | sed 's/.*tavrixctl //' | sort -u >verbs
[ -s verbs ] || fail "the pages name no verb"
while read -r verb; do tavrixctl help "$verb" >/dev/null || fail "a page has tavrixctl $verb"; done <verbs

for page in "$source"/README.md "$source"/CONTRIBUTING.md "$source"/docs/*.md; do
    while read -r script; do [ -x "$source/$script" ] || fail "$page: there is no $script"; done < <(
        grep -oE '\bscripts/[a-z-]+\.(sh|py)' "$page" | sort -u)
    while read -r script option; do
        grep -qE -e "$option\b" "$source/$script" || fail "$page: $script has no $option"
    done < <(grep -oE '\bscripts/[a-z-]+\.sh [^`|&#]*' "$page" |
        awk '{for (i = 2; i <= NF; ++i) if ($i ~ /^--[a-z-]+$/) print $1, $i}' | sort -u)
    # shellcheck disable=SC2016
    while read -r path; do [ -e "$source/$path" ] || fail "$page: there is no $path"; done < <(
        grep -oE '`(src|include|docs|tests|daemons|kit|tools|fuzz|bench|examples|packaging)/[A-Za-z0-9_/.-]+`' "$page" |
            tr -d '`' | sort -u)
    while read -r program verb option; do
        [ "$verb" != - ] || verb=
        # shellcheck disable=SC2086
        "$program" $verb --help | grep -F -- "$option" >/dev/null || fail "$page: $program $verb has no $option"
    done < <(grep -oE '\b(tavrix-(routerd|portsd|eventsd)|tavrixctl)( [^`|&#]*)' "$page" | awk '{
        verb = $1 == "tavrixctl" && $2 ~ /^[a-z]/ ? $2 : "-"
        for (i = 2; i <= NF; ++i) if ($i ~ /^--[a-z-]+$/) print $1, verb, $i
    }' | sort -u)
done
