#!/usr/bin/env bash
# Builds everything and runs every test through ctest: natively, under Address- and UndefinedBehaviorSanitizer, and as
# 32-bit ARM under qemu-user; and what may run on several threads at once under ThreadSanitizer. Installs from Debian
# what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
usage: scripts/test.sh [--only native|sanitize|threads|armhf] [--test REGEX] [--filter PATTERN]

  --only NAME       run one of the four instead of all
  --test REGEX      only the test programs whose ctest name matches, for example unit.tavrix_mq
  --filter PATTERN  only the cases that match, as GoogleTest's filter takes it, for example 'PortId.*'

examples:
  scripts/test.sh                                       everything
  scripts/test.sh --only native --test system           the system tests, natively
  scripts/test.sh --only armhf --test unit.tavrix_shm --filter 'Shm.Creates*'
TEXT
}

runs=(native sanitize threads armhf)
ctest_options=()
while [ $# -gt 0 ]; do
    case "$1" in
    --only) runs=("${2:?--only takes a name}"); shift ;;
    --test) ctest_options+=(-R "${2:?--test takes a regular expression}"); shift ;;
    --filter) export GTEST_FILTER="${2:?--filter takes a pattern}"; shift ;;
    --help | -h) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
    esac
    shift
done
for run in "${runs[@]}"; do
    case "$run" in native | sanitize | threads | armhf) ;; *) usage >&2; exit 2 ;; esac
done

if [ "$(id -u)" -ne 0 ]; then
    echo "not root: tests of shared memory will fail, a slot's mode lets its owner neither read nor write" >&2
fi
./scripts/install-packages.sh build test
failed=()
for run in "${runs[@]}"; do
    echo "== $run: build"
    if [ "$run" = armhf ]; then ./scripts/armhf-sysroot.sh; fi
    cmake --preset "$run" >/dev/null
    cmake --build --preset "$run" -- --quiet
    echo "== $run: test"
    ctest --preset "$run" "${ctest_options[@]}" || failed+=("$run")
done
if [ ${#failed[@]} -gt 0 ]; then
    echo "failed: ${failed[*]}" >&2
    exit 1
fi
