#!/usr/bin/env bash
# Makes a bare Debian root of what this machine has installed: the named packages, the essential ones and all that these
# need, with the package manager's knowledge of them and of nothing else. It takes seconds, and no network.
# Of a package that is a file, what it says it needs is taken, and not the package itself: what it forgets is missing.
# usage: tests/packaging/root.sh ROOT PACKAGE|FILE...
set -euo pipefail
export LC_ALL=C # a folder is sorted before what is in it
root=$1
shift
known=/var/lib/dpkg

# What the files say they need, but for each other.
needed_by() { # FILE...
    local file
    for file in "$@"; do
        dpkg-deb -f "$file" Pre-Depends Depends | sed 's/^[A-Za-z-]*: //' | tr , '\n' | sed 's/^ *//; s/[ :].*//'
    done | grep -v tavrix | sort -u
}

# All that the named need, among what is installed.
# shellcheck disable=SC2016 # dpkg-query expands it
closure() { # PACKAGE...
    apt-cache depends --recurse --installed --no-recommends --no-suggests --no-conflicts --no-breaks --no-replaces \
        --no-enhances "$@" | grep '^[a-z0-9]' | sort -u |
        { xargs dpkg-query -W -f '${db:Status-Status} ${binary:Package}\n' 2>/dev/null || true; } |
        sed -n 's/^installed //p'
}

# The recursion stops at a name that no package has: awk's provider is named here, and NAME:any gets a second turn.
packages() { # PACKAGE...
    local named found any
    mapfile -t named < <(dpkg-query -W -f '${Essential} ${Package}\n' | sed -n 's/^yes //p')
    named+=("$(dpkg -S "$(readlink -f /usr/bin/awk)" | sed 's/:.*//')" "$@")
    mapfile -t found < <(closure "${named[@]}")
    mapfile -t any < <(dpkg-query -W -f '${Pre-Depends} ${Depends}\n' "${found[@]}" | grep -o '[a-z0-9.+-]*:any' |
        sed 's/:any//' | sort -u)
    closure "${named[@]}" "${any[@]}"
}

# Without what nothing in there reads, and what a machine may have left out. The folders stay: they are their packages'.
files_of() { # PACKAGE...
    dpkg-query -L "$@" | sort -u | while read -r path; do
        case "$path" in
        /usr/share/doc/* | /usr/share/info/* | /usr/share/locale/* | /usr/share/man/*) [ -d "$path" ] || continue ;;
        esac
        if [ -e "$path" ] || [ -L "$path" ]; then echo "${path#/}"; fi
    done
}

# What the package manager knows, of these packages; of triggers, the loader's.
tell() { # PACKAGE...
    local package file
    mkdir -p "$root$known"/{info,updates,triggers,alternatives}
    dpkg-query -s "$@" >"$root$known/status"
    for package in "$@"; do
        for file in "$known/info/$package".*; do
            [[ ${file#"$known/info/$package."} == *.* ]] || cp -p "$file" "$root$known/info/"
        done
    done
    cp -p "$known/info/format" "$root$known/info/"
    cp -p "$known/triggers/ldconfig" "$root$known/triggers/"
}

# What the packages' scripts made when they were installed.
make_up() {
    local name link target
    cp "$root/usr/share/base-passwd/passwd.master" "$root/etc/passwd"
    cp "$root/usr/share/base-passwd/group.master" "$root/etc/group"
    mkdir -p "$root/etc/alternatives"
    for name in awk cc; do
        link=$(sed -n 2p "$known/alternatives/$name")
        target=$(readlink "/etc/alternatives/$name")
        ln -s "$target" "$root/etc/alternatives/$name"
        ln -s "/etc/alternatives/$name" "$root$link"
    done
    mkdir -p "$root"/{dev/shm,proc,run,sys,tmp,var/log,var/cache/apt/archives/partial,var/lib/apt/lists/partial}
    chmod 1777 "$root/tmp" "$root/dev/shm"
    mknod -m 666 "$root/dev/null" c 1 3
    mknod -m 666 "$root/dev/urandom" c 1 9
    chroot "$root" sh -c 'pwconv && grpconv && ldconfig && update-shells &&
        DEBIAN_FRONTEND=noninteractive pam-auth-update --force'
}

names=()
files=()
for name in "$@"; do
    case "$name" in *.deb) files+=("$name") ;; *) names+=("$name") ;; esac
done
mapfile -t needed < <(needed_by "${files[@]}")
mapfile -t all < <(packages "${names[@]}" "${needed[@]}")
mkdir -p "$root"/usr/{bin,lib,lib64,sbin} # where the links of the same names lead
files_of "${all[@]}" | tar -C / --no-recursion -cf - -T - | tar -C "$root" -xf -
tell "${all[@]}"
make_up
