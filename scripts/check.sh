#!/usr/bin/env bash
# What can be said of the sources without running them: their format, the shell scripts, the house's rules, the types of
# the Python package, clang-tidy.
# usage: scripts/check.sh [format|shell|house|types|tidy|tidy-all]...      none named: all but the last
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-packages.sh build check

check_format() {
    find . -path ./build -prune -o \( -name '*.c' -o -name '*.cpp' -o -name '*.h' \) -print0 |
        xargs -0 clang-format-14 --dry-run -Werror
}

check_shell() {
    { # by what their first line says: Debian's maintainer scripts have no extension
        grep -rIlE --exclude-dir=build --exclude-dir=.git '^#!.*\b(ba|)sh\b' .
        find scripts tests -name '*.sh'
        echo tools/completion.bash
    } | sort -u | xargs shellcheck
}

check_house() { ./scripts/house-rules.sh; }

# Its users' checkers read these types, for the package says that it has them.
check_types() { (cd bindings/python && mypy --cache-dir=/dev/null --no-error-summary); }

# tidy FOLDERS [OPTION...]: one pass over the sources below the folders
tidy() {
    local folders=$1
    shift
    run-clang-tidy-14 -quiet -p build/native "$@" "^$PWD/($folders)/.*" >build/tidy.log 2>&1 ||
        { grep -vE '^clang-tidy-14|^[0-9]+ warnings? generated' build/tidy.log; return 1; }
}

# The analyzer takes most of the time where C++ owns everything (44 seconds for the router's largest file, 6 without), and
# has its worth where memory and descriptors are C's own: in the libraries. `tidy-all` has no such exception, and the
# tests besides.
# Left out for the same reason, time: tests, fuzz and bench.
check_tidy() {
    cmake --preset native >/dev/null
    local status=0
    tidy 'src|common|kit' || status=1
    tidy 'daemons|tools' '-checks=-clang-analyzer-*' || status=1
    return "$status"
}
check_tidy_all() {
    cmake --preset native >/dev/null
    tidy 'bench|common|daemons|kit|src|tests|tools'
}

checks=("$@")
[ $# -gt 0 ] || checks=(format shell house types tidy)
for name in "${checks[@]}"; do
    case "$name" in format | shell | house | types | tidy | tidy-all) ;; *) sed -n '4s/^# //p' "$0" >&2; exit 2 ;; esac
done
failed=()
for name in "${checks[@]}"; do
    echo "== check: $name"
    "check_${name//-/_}" || failed+=("$name")
done
if [ ${#failed[@]} -gt 0 ]; then
    echo "failed: ${failed[*]}" >&2
    exit 1
fi
