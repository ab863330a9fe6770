#!/usr/bin/env bash
# Makes the Debian packages and checks them: dependencies, units, what lintian says.
# Installs from Debian what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
usage: scripts/package.sh [--only amd64|armhf] [--try ROOT | --try-here] [--boot ROOT | --boot-here]

  --only NAME   one of the two architectures instead of both
  --try ROOT    install, upgrade, remove and purge the amd64 packages in a bare Debian root, and write a service with
                them; the root is made in this folder when it is not there, and then removed; as root
  --try-here    the same in a root that is made of this machine's own packages, which takes seconds and no network: what
                CI does; as root
  --boot ROOT   boot a Debian root with systemd in a container and try the units there; the root is made in this
                folder when it is not there, and then removed; as root
  --boot-here   the same in a root that is made of this machine's own packages

The packages are in build/packages.
TEXT
}

runs=(amd64 armhf)
try=
try_kind=debian
boot=
boot_kind=debian
while [ $# -gt 0 ]; do
    case "$1" in
    --only) runs=("${2:?--only takes a name}"); shift ;;
    --try) try=${2:?--try takes a folder}; shift ;;
    --try-here) try=$PWD/build/package-root try_kind=copied ;;
    --boot) boot=${2:?--boot takes a folder}; shift ;;
    --boot-here) boot=$PWD/build/boot-root boot_kind=copied ;;
    --help | -h) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
    esac
    shift
done
for run in "${runs[@]}"; do
    case "$run" in amd64 | armhf) ;; *) usage >&2; exit 2 ;; esac
done

fail() {
    printf 'package: %s\n' "$1" >&2
    exit 1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
packages=$PWD/build/packages
version=$(sed -n 's/^project(tavrix VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)

build() { # ARCHITECTURE PRESET
    echo "== $1: build"
    cmake --preset "$2" >/dev/null
    cmake --build --preset "$2" -- --quiet
    (cd "build/$2" && cpack) >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log" >&2; fail "cpack failed"; }
    rm -rf "$packages/_CPack_Packages"
}

check_lintian() { # FILE...
    local found
    found=$(lintian --allow-root --tag-display-limit 0 --fail-on none "$@" | grep -v '^N:' || true)
    if [ -n "$found" ]; then
        printf '%s\n' "$found" >&2
        fail "lintian objects"
    fi
}

# The package of a shared library; it is named alike on every architecture.
owner_of() { # SONAME
    case "$1" in
    libtavrix*) echo libtavrix1 ;;
    ld-linux*) echo libc6 ;;
    *) dpkg -S "*/$(gcc -print-multiarch)/$1" | sed -n '1s/:.*//p' ;;
    esac
}

# The cross build's dependencies are written by hand: they name what its programs need, and the C library's version.
check_written_depends() { # FILE
    local own depends names elf needed owner newest stated
    own=$(dpkg-deb -f "$1" Package)
    depends=$(dpkg-deb -f "$1" Depends)
    names=$(tr ',' '\n' <<<"$depends" | sed 's/^ *//; s/ .*//')
    stated=$(sed -n 's/.*libc6 (>= \([0-9.]*\)).*/\1/p' <<<"$depends")
    dpkg-deb -x "$1" "$work/unpacked"
    while read -r elf; do
        for needed in $(readelf -d "$elf" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
            owner=$(owner_of "$needed")
            [ "$owner" = "$own" ] || grep -qxF "$owner" <<<"$names" ||
                fail "$own: $(basename "$elf") needs $needed, and $owner is no dependency"
        done
        newest=$(readelf -V "$elf" | grep -o 'GLIBC_2\.[0-9]*' | sort -Vu | tail -n 1)
        dpkg --compare-versions "${newest#GLIBC_}" le "$stated" || fail "$own: $(basename "$elf") needs $newest"
    done < <(find "$work/unpacked" -type f \( -name '*.so.*' -o -path '*/usr/*bin/*' \))
    rm -rf "$work/unpacked"
}

# What runs of the foreign architecture: the unpacked programs, with the unpacked libraries.
check_under_qemu() {
    local program
    for file in "$packages"/*_armhf.deb; do dpkg-deb -x "$file" "$work/armhf"; done
    for program in "$work"/armhf/usr/*bin/*; do
        [ "$(qemu-arm -L build/armhf-sysroot -E LD_LIBRARY_PATH="$work/armhf/usr/lib/arm-linux-gnueabihf" \
            "$program" --version)" = "$(basename "$program") $version" ] || fail "$(basename "$program") does not run"
    done
}

# In a root of its own: the programs need not be installed on this machine, but what the units name has to be there.
make_unit_root() { # FOLDER
    local daemon
    mkdir -p "$1"/{bin,usr/sbin,lib/systemd}
    cp -r /lib/systemd/system "$1/lib/systemd/"
    cp packaging/systemd/* "$1/lib/systemd/system/"
    cp /bin/sh "$1/bin/"
    for daemon in routerd portsd eventsd; do install -m 755 /bin/true "$1/usr/sbin/tavrix-$daemon"; done
}

check_units() {
    local unit found
    echo "== units"
    for unit in packaging/systemd/*.service; do
        found=$(systemd-analyze security --offline=true --threshold=20 --no-pager "$PWD/$unit") ||
            fail "$unit leaves more open than 2.0"
        sed -n 's/.*exposure level for \(.*: [0-9.]*\).*/   \1/p' <<<"$found"
    done
    make_unit_root "$work/root"
    found=$(systemd-analyze verify --root="$work/root" --man=no tavrix.target \
        tavrix-{routerd,portsd,eventsd}.service 2>&1) || fail "systemd-analyze verify: $found"
    if grep tavrix <<<"$found" >&2; then fail "systemd-analyze verify objects"; fi
}

./scripts/install-packages.sh build package
mkdir -p "$packages"
for run in "${runs[@]}"; do
    rm -f "$packages"/*_"$run".deb
    if [ "$run" = armhf ]; then
        ./scripts/armhf-sysroot.sh
        build armhf package-armhf
        for file in "$packages"/*_armhf.deb; do check_written_depends "$file"; done
        check_under_qemu
    else
        build amd64 package
    fi
    echo "== $run: lintian"
    check_lintian "$packages"/*_"$run".deb "$packages"/*_all.deb
done
check_units
if [ -n "$try" ]; then
    [ "$try_kind" = copied ] || ./scripts/install-packages.sh package-try
    echo "== try in $try"
    bash tests/packaging/install.sh "$packages" "$version" "$try" "$try_kind"
fi
if [ -n "$boot" ]; then
    ./scripts/install-packages.sh package-boot
    [ "$boot_kind" = copied ] || ./scripts/install-packages.sh package-try
    echo "== boot in $boot"
    bash tests/packaging/boot.sh "$packages" "$version" "$boot" "$boot_kind"
fi
ls "$packages"/*.deb
