#!/usr/bin/env bash
# Unpacks the armhf libraries that the cross build links into build/armhf-sysroot.
# They are not installed: armhf packages beside the native ones clash on some machines. A private package
# index, made from this machine's own package sources, keeps the machine's package state untouched.
set -euo pipefail
cd "$(dirname "$0")/.."

root=build/armhf-sysroot
packages=(libc6-dev libcli11-dev libevent-dev libstdc++6 libjansson-dev libnanomsg-dev libpcre3-dev libsqlite3-dev)
stamp="$root/.complete"
wanted="${packages[*]}"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$wanted" ]; then exit 0; fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"                      # the unprivileged download user has to reach it
mkdir -p "$work"/state/lists/partial "$work"/cache/archives/partial
: > "$work/status"
apt=(apt-get -qq -o APT::Architecture=armhf -o APT::Architectures::=armhf
     -o Dir::State="$work/state" -o Dir::State::status="$work/status" -o Dir::Cache="$work/cache"
     -o APT::Sandbox::User=root -o Debug::NoLocking=1)

# A source that serves no armhf fails its update; what counts is that the packages are found.
"${apt[@]}" update >"$work/update.log" 2>&1 || true
"${apt[@]}" -y --download-only --no-install-recommends install "${packages[@]}" >"$work/install.log" 2>&1 || {
    cat "$work/update.log" "$work/install.log" >&2
    echo "armhf-sysroot: the armhf packages could not be fetched" >&2
    exit 1
}

rm -rf "$root"
mkdir -p "$root"
for deb in "$work"/cache/archives/*.deb; do dpkg-deb -x "$deb" "$root"; done
# Absolute links would lead out of the sysroot.
find "$root" -type l -lname '/*' | while read -r link; do
    ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$root$(readlink "$link")")" "$link"
done
printf '%s' "$wanted" > "$stamp"
