#!/usr/bin/env bash
# Installs from Debian what is missing for one or more purposes: build, test and those below.
# usage: scripts/install-packages.sh PURPOSE...
set -euo pipefail

declare -A packages=(
    [build]="ca-certificates cmake g++ libcli11-dev libevent-dev libjansson-dev libnanomsg-dev libpcre3-dev libsqlite3-dev ninja-build pkg-config"
    [bench]="libbenchmark-dev strace valgrind"
    [check]="clang-format-14 clang-tidy-14 googletest mypy shellcheck"
    [coverage]="gcovr"
    [demo]="jq sqlite3"
    [docs]="doxygen python3-markdown"
    [mutate]="googletest python3"
    [npm]="nodejs npm"
    [openrpc]="python3-jsonschema"
    [package]="dpkg-dev file g++-arm-linux-gnueabihf lintian python3 qemu-user systemd"
    [package-boot]="dbus systemd-container systemd-sysv"
    [package-try]="debootstrap"
    [test]="binutils clang g++-arm-linux-gnueabihf googletest jq libclang-rt-14-dev make mandoc python3 python3-pip python3-setuptools python3-wheel qemu-user sqlite3 zsh"
)

missing=()
for purpose in "$@"; do
    for package in ${packages[$purpose]:?unknown purpose}; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
    done
done
[ ${#missing[@]} -eq 0 ] && exit 0

# Through env, because sudo drops the variables of its caller.
apt_get=(env DEBIAN_FRONTEND=noninteractive apt-get)
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "missing packages: ${missing[*]} (run as root, or install sudo)" >&2; exit 1; }
    apt_get=(sudo "${apt_get[@]}")
fi
echo "Installing from Debian: ${missing[*]}"
# A package source that cannot be reached does not matter as long as the packages are found.
"${apt_get[@]}" -qq update >/dev/null 2>&1 || true
"${apt_get[@]}" -qq -y --no-install-recommends install "${missing[@]}" >/dev/null
