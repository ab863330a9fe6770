#!/usr/bin/env bash
# The listings of the other pages: the exchanges of docs/protocol.md happen as they stand there, where "..." is whatever
# the system has; the policy of docs/router.md is one; scripts and options that a page names are there.
# usage: pages.sh BUILD_DIR CC CXX EMULATOR SYSROOT FLAGS
set -euo pipefail
source "$(dirname "$0")/installed.sh"

start_router
start_ports

python3 - "$source/docs/protocol.md" <<'PYTHON' || fail "an exchange of docs/protocol.md goes otherwise"
import re, socket, sys

page = open(sys.argv[1]).read()
blocks = ["\n".join(line[4:] for line in block.split("\n"))
          for block in re.findall(r"(?m)(?:^    .*(?:\n|$))+", page)]

def connected(path):
    sock = socket.socket(socket.AF_UNIX)
    sock.settimeout(20)
    sock.connect(path)
    return sock

def matches(wanted, got):
    pattern = re.escape(wanted.strip()).replace(r"\.\.\.", ".*")
    return re.fullmatch(pattern, got.strip(), re.S) is not None

def check(asked, wanted, got):
    if not matches(wanted, got):
        sys.exit(f"{asked}\nis answered\n{got[:300]}\ninstead of\n{wanted}")

def joined(block):  # a line without a sign goes on where the one before it ends
    return re.sub(r"\n +", "", block)

sessions = one_shot = 0
for at, block in enumerate(blocks):
    if block.startswith("> "):
        sent = re.findall(r"(?m)^> (.*)", joined(block))
        wanted = re.findall(r"(?m)^< (.*)", joined(block))
        with connected("session.sock") as sock:
            sock.sendall("".join(line + "\n" for line in sent).encode())
            lines = sock.makefile(encoding="utf-8")
            got = [lines.readline() for _ in wanted]
        for line in wanted:  # they may come in any order
            fitting = [one for one in got if matches(line, one)]
            check(sent, line, fitting[0] if fitting else "\n".join(got))
        sessions += 1
    elif block.startswith('{"jsonrpc":"2.0","method"'):
        with connected("router.sock") as sock:
            sock.sendall(block.strip().encode())
            check(block, blocks[at + 1], b"".join(iter(lambda: sock.recv(65536), b"")).decode())
        one_shot += 1
if sessions < 2 or one_shot < 1:
    sys.exit("the page has lost its exchanges")
PYTHON

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

# What docs/debugging.md says that one reads is said; "..." and what the system says itself stand between the parts.
grep '^|' "$source/docs/debugging.md" | cut -d '|' -f 2 | grep -oE '"[^"]+"' | tr -d '"' |
    sed -E 's/ *\.\.\. */\n/g; s/(No such file or directory|Permission denied); //g' | sed '/^$/d' | sort -u >symptoms
[ -s symptoms ] || fail "docs/debugging.md has no symptoms"
while read -r text; do
    grep -rqF -e "$text" "$source"/{common,daemons,kit,tools} || fail "docs/debugging.md: nothing says '$text'"
done <symptoms

grep -ohE '(`|^ *)tavrixctl [a-z-]+' "$source"/{README,bindings/python/README,docs/*}.md | sed 's/.*tavrixctl //' | sort -u >verbs
[ -s verbs ] || fail "the pages name no verb"
while read -r verb; do tavrixctl help "$verb" >/dev/null || fail "a page has tavrixctl $verb"; done <verbs

for page in "$source"/README.md "$source"/CONTRIBUTING.md "$source"/docs/*.md; do
    while read -r script; do [ -x "$source/$script" ] || fail "$page: there is no $script"; done < <(
        grep -oE '\bscripts/[a-z-]+\.(sh|py)' "$page" | sort -u)
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
