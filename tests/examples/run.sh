#!/usr/bin/env bash
# Installs the library into a folder of its own, builds the examples against it, in C through pkg-config and in C++
# through the CMake package, and runs each set: client -> router -> service and back.
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

cmake --install "$build" --prefix "$work/prefix" >/dev/null
library_dir=$(dirname "$(find "$work/prefix" -name libtavrix.so)")
export LD_LIBRARY_PATH=$library_dir PKG_CONFIG_PATH=$library_dir/pkgconfig
if [ -n "$sysroot" ]; then
    export PKG_CONFIG_LIBDIR=$sysroot/usr/lib/arm-linux-gnueabihf/pkgconfig
    flags="$flags --sysroot=$sysroot"
fi

# --- Build ---

cp -r "$source/examples" "$work/examples"
for program in service client router; do
    # The sysroot is the compiler's; pkg-config's own would be put before the installed headers too.
    # shellcheck disable=SC2046,SC2086
    "$cc" -std=c11 -D_GNU_SOURCE -Wall -Wextra -Werror $flags -o "$work/$program-c" "$work/examples/c/$program.c" \
        $(pkg-config --cflags --libs tavrix) -Wl,-rpath-link,"$library_dir"
done
toolchain=()
[ -n "$sysroot" ] && toolchain=(-DCMAKE_TOOLCHAIN_FILE="$source/cmake/armhf.cmake" -DTAVRIX_SYSROOT="$sysroot"
                                 -DCMAKE_FIND_ROOT_PATH="$work/prefix")
cmake -S "$work/examples/cpp" -B "$work/cpp" -G Ninja -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror $6" -Dtavrix_DIR="$library_dir/cmake/tavrix" "${toolchain[@]}" >/dev/null
cmake --build "$work/cpp" >/dev/null
for program in service client router; do mv "$work/cpp/$program" "$work/$program-cpp"; done

# --- Run ---

port=$((40000 + RANDOM % 15000))
next_port() {
    port=$((port + 1))
    while (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done
}
cd "$work"
for language in c cpp; do
    next_port; clients=$port
    next_port; router=tcp://127.0.0.1:$port
    next_port; service=tcp://127.0.0.1:$port
    # shellcheck disable=SC2086
    { $emulator "./router-$language" "$clients" "$router" "$service" 2>router.log & pids+=($!); router_pid=$!
      $emulator "./service-$language" "$service" "$router" 2>service.log & pids+=($!); service_pid=$!; }
    expected='{"jsonrpc":"2.0","id":"hello.Say","result":{"said":"good morning"},"transaction_id":1}'
    answer=
    for _ in $(seq 60); do # until both sides of the bus have found each other
        # shellcheck disable=SC2086
        answer=$($emulator "./client-$language" "$clients" hello.Say '{"text":"good morning"}' 2>client.log) && break
        sleep 0.1
    done
    if [ "$answer" != "$expected" ]; then
        echo "$language: wanted $expected, got '$answer'" >&2
        tail -n 20 router.log service.log client.log >&2
        exit 1
    fi
    # shellcheck disable=SC2086
    refused=$($emulator "./client-$language" "$clients" hello.Say '{}' 2>client.log)
    case "$refused" in
    *"Missing expected parameter: 'text'"*) ;;
    *) echo "$language: a missing parameter was answered with '$refused'" >&2; exit 1 ;;
    esac
    kill "$router_pid" "$service_pid"
    wait "$router_pid" && wait "$service_pid" || { echo "$language: did not stop cleanly" >&2; exit 1; }
    echo "$language: $answer"
done
