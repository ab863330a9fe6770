# For the two trials beside it: a Debian root with the packages in it, and what both say and ask inside.
# Sourced.
# shellcheck shell=bash disable=SC2034

trial=$(basename "$0" .sh)

fail() {
    echo "$trial: $1" >&2
    exit 1
}

# prepare_root PACKAGES VERSION ROOT debian|copied INCLUDED PACKAGE...: makes the root when it is not there, with
# debootstrap and the included packages, or of this machine's own ones; it is removed at the end. The packages stand in
# /tried/first, with the trial in /tried. Sets root.
prepare_root() {
    local packages=$1 version=$2 kind=$4 included=$5 made=false files
    root=$3
    shift 5
    [ "$(id -u)" = 0 ] || fail "only root can make a root"
    if [ ! -e "$root/etc/debian_version" ]; then
        made=true
        mkdir -p "$root"
    fi
    root=$(realpath "$root")
    # shellcheck disable=SC2064 # the values of now
    trap "rm -rf '$root'/{tried,usr/sbin/policy-rc.d,etc/systemd/system/trial.service}
        if $made; then rm -rf '$root'; fi" EXIT
    files=("$packages"/*_"$version"_amd64.deb "$packages"/*_"$version"_all.deb)
    if $made; then
        case "$kind" in
        debian) debootstrap --variant=minbase ${included:+"--include=$included"} bookworm "$root" >/dev/null ;;
        copied) "$(dirname "$0")/root.sh" "$root" apt "$@" "${files[@]}" ;;
        *) fail "no such kind of root: $kind" ;;
        esac
    fi
    rm -rf "$root/tried"
    mkdir -p "$root/tried/first"
    cp "${files[@]}" "$root/tried/first"
    cp "$0" "$(dirname "$0")/trial.sh" "$root/tried"
}

# --- Inside --------------------------------------------------------------------------------------------------------

all="routerd portsd eventsd "

expect() { # WHAT GOT WANTED
    [ "$2" = "$3" ] || { show_logs >&2; fail "$1: '$2' instead of '$3'"; }
    echo "   $1"
}

serves() { # the client finds what the services have, and the database is whole
    local methods
    tavrixctl wait-service portsd eventsd --timeout 20 >/dev/null || return 1
    methods=$(tavrixctl list) || return 1
    grep -q '^ports\.Get ' <<<"$methods" && grep -q '^events\.Get ' <<<"$methods" &&
        tavrixctl call mzu.List >/dev/null && tavrixctl db check /var/lib/tavrix/fleet.db >/dev/null
}
