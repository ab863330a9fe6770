#!/usr/bin/env bash
# Shows what the tests do not see: makes random changes of src/ and of what it includes from common/, one at a time, on a
# copy of the tree in build/mutate, and says of each whether a unit or a fault test noticed it. docs/mutation.md tells
# more.
# usage: scripts/mutate.sh [SECONDS] [SEED] [PATTERN]
# PATTERN leaves the changes whose heading it matches, as in 'tavrix_mq.*: (level|newline)'.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-packages.sh build mutate
exec python3 scripts/mutate.py "${1:-600}" "${2:-$RANDOM}" "${3:-}"
