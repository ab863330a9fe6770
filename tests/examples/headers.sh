#!/usr/bin/env bash
# Every @code block of the installed headers is compiled, and run where it needs nothing from outside: no file of the
# appliance, no address, nothing of a service around it.
# usage: headers.sh BUILD_DIR CC CXX EMULATOR SYSROOT FLAGS
set -euo pipefail
source "$(dirname "$0")/installed.sh"

# What the blocks take as given: a service's own variables and functions.
cat >given.h <<'TEXT'
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tavrix.h>
#include <tavrix_service.h>

extern sqlite3 *db;
extern tavrix_service *service;
extern const tavrix_jrpc_method methods[];
extern const char *path, *address, *frame, *request, *description;
extern int unit, pub, sub, listener, client, stop;
extern uint64_t number;
int set_speed(const char *port, int speed, json_t **result);
void on_tick(void);
void install(const char *image);
void assign_vlan(const char *port, int vlan);
void refuse(const char *why);
TEXT

# Splits the headers: HEADER.LINE.c. A block without functions of its own is the body of one; of a mixed one, what comes
# after the empty line.
awk '
    FNR == 1 { name = FILENAME; sub(/.*\//, "", name); sub(/\.h$/, "", name) }
    /@endcode/ {
        inside = 0
        if (text ~ /int main\(/) {
            print text >out
        } else {
            above = ""
            if (text ~ /^(static|int handle)/) {
                cut = index(text, "\n\n")
                above = cut > 0 ? substr(text, 1, cut) : text
                text = cut > 0 ? substr(text, cut) : ""
            }
            gsub(/static const tavrix_jrpc_method methods/, "static const tavrix_jrpc_method own_methods", above)
            if (above != "") { gsub(/methods/, "own_methods", text) }
            print "#include \"given.h\"\n" above "\nint main(void) {\n" text "\nreturn 0;\n}" >out
        }
        close(out)
    }
    inside { line = $0; sub(/^ \* ?/, "", line); text = text line "\n" }
    /@code/ { inside = 1; text = ""; out = sprintf("%s.%03d.c", name, FNR) }
' "$work"/prefix/include/*.h
blocks=(tavrix*.c)
[ "${#blocks[@]}" -eq "$(cat "$work"/prefix/include/*.h | grep -c '@code')" ] || fail "a block is lost"

# The test's block is the test of the service's block.
for block in tavrix_service_test.*.c; do
    { sed '/^int main/,$d' tavrix_service.010.c
      echo 'static const tavrix_service_options options = {.name = "hello", .methods = methods};'
      cat "$block"; } >both.c
    mv both.c "$block"
done

packages=(tavrix tavrix_service)
read -ra includes <<<"$(pkg-config --cflags "${packages[@]}" tavrix_service_test)"
read -ra libraries <<<"$(pkg-config --libs "${packages[@]}" tavrix_service_test)"
ran=0
for block in "${blocks[@]}"; do
    program=./${block%.c}
    # A block shows how something is called: it may leave results alone. Nothing is linked yet, the linker's flags wait.
    compile -c -o "$program.o" -I. -Wno-unused -Wno-unused-parameter -Wno-unused-command-line-argument \
        "$block" "${includes[@]}" || fail "$block does not compile"
    # What stands alone is run; a place of the appliance, an address or a name from outside keeps it from that.
    if grep -qE '"(/|tcp:)' "$block" || ! compile -o "$program" "$program.o" "${libraries[@]}" 2>/dev/null; then
        continue
    fi
    case "$block" in tavrix_service.*) continue ;; esac # serves until it is stopped: readme.sh
    emulate "$work/$program"
    printed=$("$program" 2>said.log) || fail "$block ended with $?"
    wanted=$(sed -nE 's|^ *puts\(.*\); // (.*)$|\1|p' "$block")
    expect "$block" "$printed" "$wanted"
    ran=$((ran + 1))
    echo "ran $block"
done
[ "$ran" -ge 5 ] || fail "only $ran blocks stand alone"
echo "${#blocks[@]} blocks compiled, $ran run"
