#!/usr/bin/env bash
# The packages in a bare Debian root without systemd: installed, started, developed with, upgraded, removed, purged;
# nothing stays.
# usage: tests/packaging/install.sh PACKAGES VERSION ROOT [debian|copied]; the root is made when it is not there, and then
# removed: with debootstrap, or of this machine's own packages, which needs no network (root.sh).
set -euo pipefail

# shellcheck source=trial.sh
source "$(dirname "$0")/trial.sh"

# --- Outside: the root, and what is put into it --------------------------------------------------------------------

# The same packages under a later version: all that an upgrade needs.
make_next_version() { # FOLDER VERSION NEXT
    local file tree=$1/tree
    mkdir "$1/next"
    for file in "$1"/first/*.deb; do
        dpkg-deb -R "$file" "$tree"
        sed -i -e "s/^Version: .*/Version: $3/" -e "s/(= $2)/(= $3)/g" "$tree/DEBIAN/control"
        dpkg-deb -b -Znone --root-owner-group "$tree" "$1/next" >/dev/null
        rm -rf "$tree"
    done
}

# What the developer's part installs besides.
compiler="gcc libc6-dev pkg-config"

outside() { # PACKAGES VERSION ROOT KIND
    local version=$2 kind=$4
    # Another build in there would be found first, by the loader and by the linker.
    [ -z "$(find "$3"/{usr,etc} -name '*tavrix*' -print -quit 2>/dev/null)" ] || fail "$3 is not bare: it has a tavrix"
    # shellcheck disable=SC2086 # a list of names
    prepare_root "$@" "" $compiler
    make_next_version "$root/tried" "$version" "$version+1"
    cp "$(dirname "$0")/../examples/listings.awk" "$root/tried/listings.awk"
    # Namespaces of its own: what is mounted and started in there ends with it.
    # shellcheck disable=SC2016 # expanded in there
    unshare --mount --pid --fork --mount-proc="$root/proc" bash -c '
        mkdir -p "$0/dev/shm"
        mount -t tmpfs none "$0/dev/shm" && exec chroot "$0" bash /tried/install.sh --inside "$1" "$2"' \
        "$root" "$version" "$kind"
}

# --- Inside --------------------------------------------------------------------------------------------------------

apt() {
    DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends -o Dpkg::Options::=--force-unsafe-io "$@" \
        >/tried/apt.log 2>&1 && return
    cat /tried/apt.log >&2
    fail "apt-get $*"
}

# All files but those that the package manager, the loader and adduser keep for themselves.
files() {
    local path own=(-path /tried)
    for path in /proc /dev /tmp /run/adduser /var/cache /var/lib/apt /var/lib/dpkg /var/log/apt '/var/log/*.log' \
        /etc/ld.so.cache /etc/passwd- /etc/shadow- /etc/group- /etc/gshadow- /etc/subuid- /etc/subgid-; do
        own+=(-o -path "$path")
    done
    find / -xdev \( "${own[@]}" \) -prune -o -print | sort
}

pid_of() { cat "/run/tavrix-$1.pid"; }

# Prints the names of the daemons that run, each as the user tavrix or it is not counted.
running() {
    local daemon pid
    for daemon in routerd portsd eventsd; do
        pid=$(pid_of "$daemon" 2>/dev/null) || continue
        [ "$(readlink "/proc/$pid/exe")" = "/usr/sbin/tavrix-$daemon" ] || continue
        [ "$(stat -c %U:%G "/proc/$pid")" = tavrix:tavrix ] && echo "$daemon"
    done | tr '\n' ' '
}

any_process() { # by its program, whoever started it and whatever became of its file
    local exe
    for exe in /proc/[0-9]*/exe; do readlink "$exe" 2>/dev/null || true; done | grep -q tavrix
}

show_logs() { cat /var/log/tavrix/*.log || true; }

# Also what stands in a sample as a suggestion is an option of its daemon.
samples_hold() {
    local daemon option
    for daemon in $all; do
        "tavrix-$daemon" --help >/tried/help
        sed -n 's/^#\{0,1\}\([a-z_]*\)=.*/--\1/p' "/etc/tavrix/$daemon.conf" | tr _ - >/tried/options
        [ -s /tried/options ] || fail "$daemon.conf says nothing"
        while read -r option; do
            grep -q -e "$option " /tried/help || fail "$daemon.conf: $option is no option"
        done </tried/options
    done
    echo "   the samples name options"
}

installed() {
    expect "started by the installation" "$(running)" "$all"
    serves || fail "the client does not find the services"
    expect "the database is the user's" "$(stat -c '%U %a' /var/lib/tavrix/fleet.db)" "tavrix 640"
    expect "the bus is closed to strangers" "$(stat -c '%U:%G %a' /run/tavrix/bus)" "tavrix:tavrix 770"
    samples_hold
    page packages
    leave_page
    [ -s /usr/share/man/man8/tavrix-routerd.8.gz ] || fail "no man page"
}

# A page of the guide, by its own commands, from what was installed: its programs meet the installed router.
page() { # NAME
    local commands text status
    mkdir -p "/tried/$1/listings" "/tried/$1/files"
    cd "/tried/$1/files"
    awk -v listings=../listings -v files=. -f /tried/listings.awk "/usr/share/doc/tavrix-doc/docs/$1.md"
    [ -n "$(find ../listings -name '*.text')" ] || fail "the page $1 shows nothing that it prints"
    for commands in ../listings/*.sh; do
        text=${commands%.sh}.text status=0
        grep -v -e '^export TAVRIX_SESSION' -e '^tavrix-routerd ' "$commands" >here.sh
        set +o pipefail # as in the reader's shell: the client's status tells of an answer that is an error
        eval "$(cat here.sh)" >printed.log 2>said.log || status=$?
        set -o pipefail
        [ "$status" = 0 ] || { cat here.sh said.log ./*d.log >&2; fail "a command of the page fails"; }
        [ ! -e "$text" ] || expect "$1: $(tail -n 1 here.sh)" "$(cat printed.log)" "$(cat "$text")"
    done
}

leave_page() { # stops its programs
    local pid name
    for pid in $(jobs -pr | tac); do
        name=$(cat "/proc/$pid/comm")
        kill "$pid"
        wait "$pid" || [ "$name" = python3 ] || fail "$name does not stop cleanly" # Python has no handler for the signal
    done
    cd /
}

# What somebody who has the packages does next.
developed() { # KIND
    # shellcheck disable=SC2086 # a list of names
    [ "$1" = copied ] || apt install $compiler
    page writing-a-service
    [ -x thermod ] || fail "the page builds no service"
    [ -x thermo_test ] || fail "the page builds no test"
    expect "registered with the installed router" "$(tavrixctl list 'thermo.*' | sed '1d; s/ .*//' | tr '\n' ' ')" \
        "thermo.Discover thermo.Get thermo.SetLimit "
    leave_page
    page calling
    [ -s bell.py ] || fail "the page has no client in Python"
    leave_page
    # shellcheck disable=SC2086 # a list of names
    [ "$1" = copied ] || apt purge $compiler
}

in_python() { # PROGRAM: by the package alone, from a place where nothing else could be imported
    (cd / && /usr/bin/python3 -W error -c "$1")
}

scripted_in_python() { # VERSION
    expect "import tavrix" "$(in_python 'import tavrix; print(tavrix.__file__)')" \
        /usr/lib/python3/dist-packages/tavrix/__init__.py
    expect "its version" "$(in_python 'from importlib import metadata; print(metadata.version("tavrix"))')" "$1"
    expect "a call from Python" "$(in_python 'import tavrix
with tavrix.Session() as session:
    print(*(method for method in ("ports.Get", "events.Get") if method in str(session.call("rpc.discover"))))')" \
        "ports.Get events.Get"
    [ -n "$(find /usr/lib/python3/dist-packages/tavrix/__pycache__ -name '*.pyc')" ] || fail "it is not compiled"
}

scripted() {
    local before
    before=$(pid_of portsd)
    /etc/init.d/tavrix start >/dev/null
    expect "a second start changes nothing" "$(running)$(pid_of portsd)" "$all$before"
    /etc/init.d/tavrix reload >/dev/null
    expect "reloaded" "$(running)" "$all"
    kill -9 "$before"
    while [ -d "/proc/$before" ]; do sleep 0.05; done
    /etc/init.d/tavrix status >/dev/null && fail "status does not tell of a daemon that is gone"
    /etc/init.d/tavrix start >/dev/null
    serves || fail "portsd does not serve after it was killed"
    expect "started again after a kill" "$(running)" "$all"
    /etc/init.d/tavrix restart >/dev/null
    serves || fail "nothing serves after a restart"
    /etc/init.d/tavrix stop >/dev/null
    expect "stopped" "$(running)" ""
    any_process && fail "a process is left"
    printf '[portsd]\nno_such_option=1\n' >/tried/wrong.conf
    cp /etc/tavrix/portsd.conf /tried/right.conf
    cp /tried/wrong.conf /etc/tavrix/portsd.conf
    echo READY_TIMEOUT=5 >/etc/default/tavrix
    /etc/init.d/tavrix start >/dev/null 2>/tried/start.log && fail "a start with a wrong file succeeds"
    grep -q "/var/log/tavrix/portsd.log" /tried/start.log || fail "nothing says where to look"
    grep -q "no option 'no_such_option'" /var/log/tavrix/portsd.log || fail "the log does not say what is wrong"
    expect "a wrong configuration stops the start there" "$(running)" "routerd "
    rm /etc/default/tavrix
    cp /tried/right.conf /etc/tavrix/portsd.conf
    /etc/init.d/tavrix start >/dev/null
    expect "and a right one goes on" "$(running)" "$all"
}

upgraded() { # FROM
    local before
    before=$(pid_of routerd)
    echo '#client_timeout=500' >>/etc/tavrix/routerd.conf
    tavrixctl log-level portsd debug >/dev/null
    stat -c %i /var/lib/tavrix/fleet.db >/tried/database
    apt install /tried/next/*.deb
    expect "the next version" "$(dpkg-query -W -f '${Version}' tavrix-daemons)" "$1+1"
    [ "$(pid_of routerd)" != "$before" ] || fail "the former router still runs"
    expect "runs after the upgrade" "$(running)" "$all"
    serves || fail "nothing serves after the upgrade"
    expect "the database stays" "$(stat -c %i /var/lib/tavrix/fleet.db)" "$(cat /tried/database)"
    expect "what was written into a file stays" "$(tail -n 1 /etc/tavrix/routerd.conf)" "#client_timeout=500"
    expect "and what the client has written" "$(grep portsd= /etc/tavrix_lsyslog.conf)" "portsd=debug"
}

removed() {
    apt remove tavrix-daemons
    any_process && fail "a process outlives the removal"
    expect "the removal leaves the configuration" "$(tail -n 1 /etc/tavrix/routerd.conf)" "#client_timeout=500"
    expect "and the database" "$(stat -c %i /var/lib/tavrix/fleet.db)" "$(cat /tried/database)"
    [ ! -e /run/tavrix ] || fail "/run/tavrix is left"
    apt install /tried/next/tavrix-daemons_*.deb
    serves || fail "nothing serves after the removal is undone"
    expect "installed again over it" "$(running)" "$all"
}

purged() {
    apt purge tavrix-daemons tavrix-tools tavrix-doc python3-tavrix libtavrix-dev libtavrix1
    any_process && fail "a process outlives the purge"
    apt autoremove --purge
    files >/tried/after
    expect "nothing is left" "$(diff /tried/before /tried/after | grep '^[<>]' || true)" ""
    expect "no user, no group" "$(grep -h tavrix /etc/passwd /etc/group || true)" ""
}

inside() { # VERSION KIND
    export PYTHONDONTWRITEBYTECODE=1 # what Python leaves is not the package's
    # Without an init nothing would be started, unless a policy says that it may be.
    printf '#!/bin/sh\nexit 0\n' >/usr/sbin/policy-rc.d
    chmod 755 /usr/sbin/policy-rc.d
    [ "$2" = copied ] || apt update
    files >/tried/before
    apt install /tried/first/*.deb
    installed
    scripted_in_python "$1"
    developed "$2"
    scripted
    upgraded "$1"
    removed
    purged
}

if [ "$1" = --inside ]; then inside "$2" "$3"; else outside "$1" "$2" "$3" "${4:-debian}"; fi
