# For the scripts beside it: installs a build into a folder of its own, and runs programs there until the script ends.
# Sourced, with the arguments BUILD_DIR CC CXX EMULATOR SYSROOT FLAGS. Sets source, work, cc, cxx, flags, library_dir.
# shellcheck shell=bash disable=SC2034

build=$1 cc=$2 cxx=$3 emulator=$4 sysroot=$5 flags=$6 given_flags=$6
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
pids=()
clean_up() {
    for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap clean_up EXIT
cd "$work" || exit

fail() {
    echo "$1" >&2
    tail -n 20 "$work"/*.log >&2 || true
    exit 1
}

expect() { # WHAT GOT WANTED
    [ "$2" = "$3" ] || fail "$1: '$2' instead of '$3'"
}

like() { # WHAT GOT PATTERN
    # shellcheck disable=SC2254 # a pattern
    case "$2" in $3) ;; *) fail "$1: '$2'" ;; esac
}

emulate() { # PROGRAM: a cross-built one is replaced by a script that runs it
    if [ -n "$emulator" ] && [ ! -e "$1.cross" ]; then
        mv "$1" "$1.cross"
        printf '#!/bin/sh\nexec %s "%s" "$@"\n' "$emulator" "$1.cross" >"$1"
        chmod +x "$1"
    fi
}

cmake --install "$build" --prefix "$work/prefix" >/dev/null
library_dir=$(dirname "$(find "$work/prefix" -name libtavrix.so)")
export PATH=$work/prefix/bin:$work/prefix/sbin:$PATH
for program in "$work"/prefix/*bin/*; do
    emulate "$program"
    "$program" --version >/dev/null # finds the library beside it, with no help from the loader's configuration
done

# The completion's scripts are where the shells look for them, and what the tool prints.
tavrixctl completion bash | cmp - "$work/prefix/share/bash-completion/completions/tavrixctl" || fail "bash completion"
tavrixctl completion zsh | cmp - "$work/prefix/share/zsh/site-functions/_tavrixctl" || fail "zsh completion"

# What ldconfig and a prefix that pkg-config knows would do.
export LD_LIBRARY_PATH=$library_dir PKG_CONFIG_PATH=$library_dir/pkgconfig
if [ -n "$sysroot" ]; then
    export PKG_CONFIG_LIBDIR=$sysroot/usr/lib/arm-linux-gnueabihf/pkgconfig
    flags="$flags --sysroot=$sysroot" # the sysroot is the compiler's, not pkg-config's
fi
flags="-Werror $flags -Wl,-rpath-link,$library_dir"

configure() { # SOURCE BUILD: with the CMake package
    local toolchain=()
    [ -z "$sysroot" ] || toolchain=(-DCMAKE_TOOLCHAIN_FILE="$source/cmake/armhf.cmake" -DTAVRIX_SYSROOT="$sysroot"
                                    -DCMAKE_FIND_ROOT_PATH="$work/prefix")
    cmake -S "$1" -B "$2" -G Ninja -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
        -DCMAKE_C_FLAGS="-Wall -Wextra -Werror $given_flags" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror $given_flags" \
        -Dtavrix_DIR="$library_dir/cmake/tavrix" "${toolchain[@]}" >/dev/null
}
compile() { # with this build's compiler and warnings
    # shellcheck disable=SC2086
    command "$cc" -std=gnu11 -Wall -Wextra $flags "$@"
}
cc() { # the same, as a reader of a page types it: cc -o PROGRAM ...
    compile "$@"
    emulate "$PWD/$2"
}

export TAVRIX_SESSION=$work/session.sock
start_router() {
    tavrix-routerd --socket router.sock --session session.sock --publish "ipc://$work/bus/router" 2>router.log &
    pids+=($!)
    router_pid=$!
}
make_fleet() { # a database
    sqlite3 fleet.db <"$source/daemons/ports/schema.sql"
    sqlite3 fleet.db <"$source/daemons/ports/fleet.sql"
}
start_ports() {
    make_fleet
    start portsd tavrix-portsd --database fleet.db
}
start() { # NAME COMMAND...: a service, until it is registered
    local name=$1
    shift
    "$@" 2>"$name.log" &
    pids+=($!)
    tavrixctl wait-service "$name" --timeout 30 || fail "$name is not there"
}
