# What the scripts that start routers and services share; sourced, not run. A private folder, programs in the background,
# everything stopped and gone at the end.
# shellcheck shell=bash disable=SC2034

run=$(mktemp -d /tmp/tavrix-road.XXXXXX)
chmod 755 "$run" # another user's attempts have to reach the sockets in it
declare -A pid_of=()

fail() {
    printf '%s: %s\n' "$(basename "$0")" "$1" >&2
    exit 1
}

stop_all() {
    local status=$? pids=("${pid_of[@]}")
    if [ ${#pids[@]} -gt 0 ]; then
        kill -CONT "${pids[@]}" 2>/dev/null || true
        kill "${pids[@]}" 2>/dev/null || true
        for _ in $(seq 100); do # five seconds, then by force
            if [ -z "$(jobs -pr)" ]; then break; fi
            sleep 0.05
        done
        kill -9 "${pids[@]}" 2>/dev/null || true
        wait "${pids[@]}" 2>/dev/null || true
    fi
    if [ "$status" -ne 0 ] && [ -n "$built" ]; then
        rm -rf "$built/road-failure"
        mkdir "$built/road-failure"
        cp "$run"/*.log "$built/road-failure" 2>/dev/null || true
        echo "The logs are in $built/road-failure" >&2
    fi
    rm -rf "$run"
}
trap stop_all EXIT
trap 'exit 130' INT TERM

port=$((20000 + RANDOM % 12000)) # below those that the kernel gives to clients
next_port() { # a loopback port that nobody listens on
    port=$((port + 1))
    while (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done
}

start() { # NAME PROGRAM ARGUMENT...: in the background, its words in NAME.log
    local name=$1
    shift
    "$@" >>"$run/$name.log" 2>&1 &
    pid_of[$name]=$!
}

finish() { # NAME...: asks them to stop and waits until they have
    local name
    for name in "$@"; do
        kill -CONT "${pid_of[$name]}" 2>/dev/null || true
        kill "${pid_of[$name]}" 2>/dev/null || true
        wait "${pid_of[$name]}" 2>/dev/null || true
        unset "pid_of[$name]"
    done
}

kill_hard() { # NAME
    kill -9 "${pid_of[$1]}"
    wait "${pid_of[$1]}" 2>/dev/null || true
    unset "pid_of[$1]"
}

value() { # KEY: of a line of KEY=VALUE
    local line
    read -r line
    line=" $line "
    line=${line#* "$1"=}
    printf '%s\n' "${line%% *}"
}

until_answered() { # LOAD-ARGUMENT...: until a call has a result
    "$load" "$@" --until-result --calls 1000000 --timeout 1000 --seconds 20 >"$run/answered" 2>/dev/null || true
    [ "$(value results <"$run/answered")" -gt 0 ] || fail "never answered: $* ($run)"
}

# trouble NAME LOAD-ARGUMENT...: starts clients that are a trouble, and comes back when they stand
trouble() {
    local name=$1
    shift
    rm -f "$run/$name.log"
    start "$name" "$load" "$@"
    for _ in $(seq 1000); do
        if grep -q -e ready -e each_bytes "$run/$name.log" 2>/dev/null; then return 0; fi
        kill -0 "${pid_of[$name]}" 2>/dev/null || fail "$(cat "$run/$name.log")"
        sleep 0.01
    done
    fail "$name does not get ready"
}

# build_road PRESET: builds what the scripts start, unless a build folder is given in $built
build_road() {
    if [ -z "$built" ]; then
        ./scripts/install-packages.sh build bench demo
        cmake --preset "$1" >/dev/null
        cmake --build --preset "$1" -- --quiet
        built=$PWD/build/$1
    fi
    routerd=$built/daemons/router/tavrix-routerd
    portsd=$built/daemons/ports/tavrix-portsd
    road=$built/bench/road
    load=$road/load
    sqlite3 "$run/fleet.db" <daemons/ports/schema.sql
    sqlite3 "$run/fleet.db" <daemons/ports/fleet.sql
    printf '[logging_levels]\nrouterd=info\nportsd=info\necho=info\n' >"$run/tavrix_lsyslog.conf"
}
