#!/usr/bin/env bash
# The README's service as it stands, by the commands below it; the service in the kit's header as it stands, built through
# the CMake package: it takes the first one's place; and the commands that install the system from source.
# usage: readme.sh BUILD_DIR CC CXX EMULATOR SYSROOT FLAGS
set -euo pipefail
source "$(dirname "$0")/installed.sh"

block() { # LANGUAGE: the README's listing in that language
    awk -v begin="\`\`\`$1" '/^```$/ {inside = 0} inside {print} $0 == begin {inside = 1}' "$source/README.md"
}

check_description() { # ANSWER: the service says of its result what comes
    tavrixctl call hello.Discover | python3 -c '
import json, sys
[say] = [method for method in json.load(sys.stdin)["methods"] if method["name"] == "hello.Say"]
schema, answer = say["result"]["schema"], json.loads(sys.argv[1])
assert schema["type"] == "object", schema
assert set(schema["properties"]) == set(schema["required"]) == set(answer), schema
assert all(schema["properties"][name]["type"] == "string" and type(answer[name]) is str for name in answer), schema
' "$1" || fail "hello.Say is described as another than it is"
}

block c >hello.c
diff hello.c <(sed 1d "$source/examples/kit/hello.c") || fail "the README's service is another than examples/kit/hello.c"
block sh >commands.sh
if [ ! -s hello.c ] || [ ! -s commands.sh ]; then fail "the README has no service"; fi
set +o pipefail # as in the reader's shell
eval "$(cat commands.sh)" >printed.log 2>said.log || fail "the README's commands failed"
set -o pipefail
mapfile -t pids < <(jobs -pr)
expect "the README's call" "$(tail -n 1 printed.log)" '{"hello":"you"}'
like "the whole response" "$(tavrixctl call --full hello.Say name=you)" '*"result":{"hello":"you"}*'
check_description "$(tavrixctl call hello.Say name=you)"
kill %?hello
wait %?hello || fail "the README's service did not stop cleanly"

mkdir header
awk '/@endcode/ {exit} inside {sub(/^ \* ?/, ""); print} /@code/ {inside = 1}' \
    "$work/prefix/include/tavrix_service.h" >header/hello.c
cat >header/CMakeLists.txt <<'TEXT'
cmake_minimum_required(VERSION 3.18)
project(hello LANGUAGES C CXX)
find_package(tavrix 1 REQUIRED)
add_executable(hello hello.c)
target_link_libraries(hello PRIVATE tavrix::service)
TEXT
configure header header/build
cmake --build header/build >/dev/null
emulate "$work/header/build/hello"
start hello header/build/hello
expect "the header's service" "$(tavrixctl call hello.Say name=you)" '{"hello":"you"}'
check_description "$(tavrixctl call hello.Say name=you)"
kill "${pids[-1]}"
wait "${pids[-1]}" || fail "the header's service did not stop cleanly"

# From source: all but the compiling, which has been done here. What is installed is this build, in a place of its own.
if [ -z "$sysroot" ]; then # they are for the machine that they are typed on
    mkdir tree
    ln -s "$source"/* tree
    rm -f tree/build
    cat >from_source.sh <<TEXT
cmake() {
    case "\$1" in
    --build) command cmake "\$@" -- -n ;;
    --install) [ -e "\$2/cmake_install.cmake" ] && command cmake --install "$build" --prefix "$work/from_source" ;;
    *) command cmake "\$@" ;;
    esac
}
sudo() { "\$@"; }
ldconfig() { ls "$work"/from_source/bin/tavrixctl "$work"/from_source/sbin/tavrix-routerd; }
TEXT
    sed -n '/^    \.\/scripts\/install-packages\.sh/,/^$/s/^    //p' "$source/README.md" >commands
    [ "$(wc -l <commands)" -ge 3 ] || fail "the README does not say how to install from source"
    (cd tree && cat ../from_source.sh ../commands | bash -e) >from_source.log 2>&1 ||
        fail "the README's commands from source fail"
fi
