#!/usr/bin/env bash
# The packages under systemd: a Debian root is booted in a container, and its daemons are met there under their units.
# usage: tests/packaging/boot.sh PACKAGES VERSION ROOT [debian|copied]; the root is made when it is not there, and then
# removed: with debootstrap, or of this machine's own packages, which needs no network (root.sh).
set -euo pipefail

# shellcheck source=trial.sh
source "$(dirname "$0")/trial.sh"

# --- Outside: the root, and what is put into it --------------------------------------------------------------------

outside() { # PACKAGES VERSION ROOT KIND
    prepare_root "$@" dbus,systemd-sysv dbus libc6-dev systemd-sysv # libc6-dev: as some libc-dev
    chroot "$root" sh -c 'apt-get -qq update && DEBIAN_FRONTEND=noninteractive \
        apt-get -qq -y --no-install-recommends --reinstall install /tried/first/*.deb' >"$root/tried/apt.log" 2>&1 ||
        { cat "$root/tried/apt.log" >&2; fail "the packages cannot be installed"; }
    cat >"$root/etc/systemd/system/trial.service" <<'TEXT'
[Unit]
Description=The trial of the packages
After=tavrix.target
SuccessAction=poweroff-force
FailureAction=poweroff-force
[Service]
Type=oneshot
ExecStart=/bin/bash /tried/boot.sh --inside
StandardOutput=file:/tried/result
StandardError=file:/tried/result
TimeoutStartSec=120
TEXT
    systemd-nspawn --quiet --directory="$root" --register=no --keep-unit --boot systemd.wants=trial.service \
        >"$root/tried/boot.log" 2>&1 || true
    cat "$root/tried/result" 2>/dev/null || { cat "$root/tried/boot.log" >&2; fail "the root does not boot"; }
    tail -n 1 "$root/tried/result" | grep -qx "   all tried" || fail "the trial ended before its end"
}

# --- Inside --------------------------------------------------------------------------------------------------------

show_logs() { journalctl --no-pager -u 'tavrix-*' | tail -n 40; }

property() { systemctl show --value -p "$2" "tavrix-$1"; }

running() { # the daemons that are up as the user tavrix
    local daemon
    for daemon in routerd portsd eventsd; do
        [ "$(property "$daemon" ActiveState)" = active ] || continue
        [ "$(stat -c %U:%G "/proc/$(property "$daemon" MainPID)")" = tavrix:tavrix ] && echo "$daemon"
    done | tr '\n' ' '
}

# until COMMAND...: at most ten seconds
until_true() {
    for _ in $(seq 200); do
        if "$@"; then return 0; fi
        sleep 0.05
    done
    fail "never: $*"
}
is_another() { [ "$(property "$1" ActiveState)" = active ] && [ "$(property "$1" MainPID)" != "$2" ]; }
journal_says() { journalctl --no-pager -u "tavrix-$1" | grep -qF "$2"; }

started() {
    expect "started by the boot" "$(running)" "$all"
    expect "the target is reached" "$(systemctl is-active tavrix.target)" active
    expect "nothing has failed" "$(systemctl list-units --failed --plain --no-legend)" ""
    for daemon in portsd eventsd; do
        [ "$(property routerd ActiveEnterTimestampMonotonic)" -le "$(property $daemon ExecMainStartTimestampMonotonic)" ] ||
            fail "$daemon did not wait for the router"
    done
    echo "   the services waited until the router was ready"
    serves || fail "the client does not find the services"
}

killed() {
    local portsd routerd
    portsd=$(property portsd MainPID) routerd=$(property routerd MainPID)
    systemctl kill -s KILL tavrix-portsd
    until_true is_another portsd "$portsd"
    serves || fail "portsd does not serve after it was killed"
    portsd=$(property portsd MainPID)
    systemctl kill -s KILL tavrix-routerd
    until_true is_another routerd "$routerd"
    serves || fail "nothing serves after the router was killed"
    expect "started again after kills; the services outlive the router" "$(property portsd MainPID)" "$portsd"
}

operated() {
    local before
    before=$(property portsd MainPID)
    sed -i 's/^portsd=.*/portsd=debug/' /etc/tavrix_lsyslog.conf
    systemctl reload tavrix-portsd || fail "it cannot be reloaded"
    until_true journal_says portsd "Logging level set to debug"
    expect "reloaded" "$(property portsd MainPID)" "$before"
    systemctl stop tavrix.target
    expect "the target stops all" "$(running)" ""
    cp /etc/tavrix/portsd.conf /tried/right.conf
    printf '[portsd]\nno_such_option=1\n' >/etc/tavrix/portsd.conf
    systemctl start tavrix-portsd >/dev/null 2>&1 && fail "a start with a wrong file succeeds"
    until_true journal_says portsd "no option 'no_such_option'"
    cp /tried/right.conf /etc/tavrix/portsd.conf
    systemctl reset-failed
    systemctl start tavrix.target
    serves || fail "nothing serves after the target was started again"
    expect "and starts them again" "$(running)" "$all"
}

inside() {
    started
    killed
    operated
    echo "   all tried"
}

if [ "$1" = --inside ]; then inside; else outside "$1" "$2" "$3" "${4:-debian}"; fi
