#!/usr/bin/env bash
# Installs the library into a folder of its own, builds the examples against it, in C through pkg-config and in C++
# through the CMake package, and runs each set: client -> router -> service and back. Then the README's service as it
# stands, by the commands below it, of which only the two ports are replaced by free ones; and the service in the kit's
# header as it stands, built both ways, which registers with the same router.
# usage: run.sh BUILD_DIR CC CXX EMULATOR SYSROOT FLAGS
set -euo pipefail

build=$1 cc=$2 cxx=$3 emulator=$4 sysroot=$5 flags=$6
source=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
pids=()
clean_up() {
    for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap clean_up EXIT

fail() {
    echo "$1" >&2
    tail -n 20 ./*.log >&2
    exit 1
}

emulate() { # PROGRAM: a cross-built one is replaced by a script that runs it
    if [ -n "$emulator" ]; then
        mv "$1" "$1.cross"
        printf '#!/bin/sh\nexec %s "%s" "$@"\n' "$emulator" "$1.cross" >"$1"
        chmod +x "$1"
    fi
}

# --- Install ---

cmake --install "$build" --prefix "$work/prefix" >/dev/null
library_dir=$(dirname "$(find "$work/prefix" -name libtavrix.so)")
export PATH=$work/prefix/bin:$work/prefix/sbin:$PATH
for program in "$work"/prefix/*bin/*; do
    emulate "$program"
    "$program" --version # finds the library beside it, with no help from the loader's configuration
done

# What ldconfig and a prefix that pkg-config knows would do.
export LD_LIBRARY_PATH=$library_dir PKG_CONFIG_PATH=$library_dir/pkgconfig
if [ -n "$sysroot" ]; then
    export PKG_CONFIG_LIBDIR=$sysroot/usr/lib/arm-linux-gnueabihf/pkgconfig
    # The sysroot is the compiler's; pkg-config's own would be put before the installed headers too.
    flags="$flags --sysroot=$sysroot"
fi

# --- Build ---

cp -r "$source/examples" "$work/examples"
CC=$cc CFLAGS="-Werror $flags" LDFLAGS=-Wl,-rpath-link,$library_dir make -s -C "$work/examples/c"
toolchain=()
[ -n "$sysroot" ] && toolchain=(-DCMAKE_TOOLCHAIN_FILE="$source/cmake/armhf.cmake" -DTAVRIX_SYSROOT="$sysroot"
                                 -DCMAKE_FIND_ROOT_PATH="$work/prefix")
cmake -S "$work/examples/cpp" -B "$work/cpp" -G Ninja -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror $6" -Dtavrix_DIR="$library_dir/cmake/tavrix" "${toolchain[@]}" >/dev/null
cmake --build "$work/cpp" >/dev/null
for program in service client router; do
    mv "$work/examples/c/$program" "$work/$program-c"
    mv "$work/cpp/$program" "$work/$program-cpp"
    emulate "$work/$program-c"
    emulate "$work/$program-cpp"
done

# --- Run ---

port=$((20000 + RANDOM % 12000)) # below those that the kernel gives to clients
next_port() {
    port=$((port + 1))
    while (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done
}

filler=$(printf '%062d' 0)
fitting="{\"text\":\"${filler}0\"}"
too_long="{\"text\":\"$filler\\u00e9\"}" # a character of two bytes across the end of the service's buffer

# check_answers NAME COMMAND...: what the service says to a good text, to none, to the longest and to a longer one
check_answers() {
    local name=$1 answer=
    shift
    for _ in $(seq 60); do # until both sides of the bus have found each other
        answer=$("$@" hello.Say '{"text":"good morning"}' 2>client.log) && break
        sleep 0.1
    done
    case "$answer" in
    '{"jsonrpc":"2.0","id":"hello.Say","result":{"said":"good morning"},"transaction_id":'*'}') ;;
    *) fail "$name: a good text was answered with '$answer'" ;;
    esac
    echo "$name: $answer"
    answer=$("$@" hello.Say '{}' 2>client.log) || true # the client's exit status may tell of the refusal
    case "$answer" in
    *"Missing expected parameter: 'text'"*) ;;
    *) fail "$name: a missing parameter was answered with '$answer'" ;;
    esac
    answer=$("$@" hello.Say "$fitting" 2>client.log) || true
    case "$answer" in
    *"\"said\":\"${filler}0\""*) ;;
    *) fail "$name: the longest text was answered with '$answer'" ;;
    esac
    answer=$("$@" hello.Say "$too_long" 2>client.log) || true
    case "$answer" in
    *'"code":-32602'*) ;;
    *) fail "$name: a text that does not fit was answered with '$answer'" ;;
    esac
}

cd "$work"
for language in c cpp; do
    next_port; clients=$port
    next_port; router=tcp://127.0.0.1:$port
    next_port; service=tcp://127.0.0.1:$port
    "./router-$language" "$clients" "$router" "$service" 2>router.log & pids+=($!); router_pid=$!
    "./service-$language" "$service" "$router" 2>service.log & pids+=($!); service_pid=$!
    check_answers "$language" "./client-$language" "$clients"
    status=0
    long="{\"text\":\"$(printf '%01024d' 0)\"}"
    "./client-$language" "$clients" hello.Say "$long" >reply.log 2>client.log || status=$?
    case "$language $status $(cat reply.log)" in
    'c 2 ') ;; # no room for the request: nothing is sent, rather than half of it
    'cpp 0 '*'"code":-32602'*) ;;
    *) fail "$language: a request of more than 1024 bytes ended with $status" ;;
    esac
    kill "$router_pid" "$service_pid"
    { wait "$router_pid" && wait "$service_pid"; } || fail "$language: did not stop cleanly"
done

# --- README ---

mkdir readme
cd readme
block() { # LANGUAGE: the README's listing in that language
    awk -v begin="\`\`\`$1" '/^```$/ {inside = 0} inside {print} $0 == begin {inside = 1}' "$source/README.md"
}
cc() { # shellcheck disable=SC2086
    "$cc" -Wall -Wextra -Werror $flags -Wl,-rpath-link,"$library_dir" "$@"
}
block c >hello.c
next_port; router=$port
next_port; service=$port
number=0
while read -r command; do
    case "$command" in
    "cc "*) eval "$command"; emulate "$PWD/hello" ;;
    *" &") number=$((number + 1)); eval "$command" 2>"readme-$number.log"; pids+=($!) ;;
    "tavrixctl call --socket router.sock hello.Say text='good morning'") call=$command ;;
    *) fail "README: what is '$command'?" ;;
    esac
done < <(block sh | sed "s/:7001/:$router/g; s/:7009/:$service/g")
check_answers README tavrixctl call --full --socket router.sock
echo "README: $(eval "$call")"

# --- Service kit ---

cd "$work"
mkdir kit
cd kit
awk '/@endcode/ {exit} inside {sub(/^ \* ?/, ""); print} /@code/ {inside = 1}' "$work/prefix/include/tavrix_service.h" >hello.c
cat >CMakeLists.txt <<'TEXT'
cmake_minimum_required(VERSION 3.25)
project(hello LANGUAGES C)
find_package(tavrix 1 REQUIRED)
add_executable(hello-cmake hello.c)
target_link_libraries(hello-cmake PRIVATE tavrix::service)
TEXT
# shellcheck disable=SC2046
cc -o hello-pkg-config hello.c $(pkg-config --cflags --libs tavrix_service)
cmake -S . -B build -G Ninja -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="-Wall -Wextra -Werror $6" \
    -Dtavrix_DIR="$library_dir/cmake/tavrix" "${toolchain[@]}" >/dev/null
cmake --build build >/dev/null
mv build/hello-cmake .
for program in hello-pkg-config hello-cmake; do
    emulate "$PWD/$program"
    "./$program" --session ../readme/session.sock 2>"$program.log" & pids+=($!); service_pid=$!
    for _ in $(seq 100); do
        grep -q 'hello ready' "$program.log" && break
        sleep 0.1
    done
    answer=$(tavrixctl call --session ../readme/session.sock hello.Say '{"name":"the kit"}') ||
        fail "$program: it was answered with '$answer'"
    case "$answer" in *'"hello":"the kit"'*) ;; *) fail "$program: it was answered with '$answer'" ;; esac
    echo "$program: $answer"
    kill "$service_pid"
    wait "$service_pid" || fail "$program: did not stop cleanly"
done
