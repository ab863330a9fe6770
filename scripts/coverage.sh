#!/usr/bin/env bash
# Runs the library's tests with counting code, and prints how many lines and branches of src/ they reach. Fails below
# 100% of the lines, but for those that tests/coverage_exceptions.txt names, or below 95% of the branches.
# usage: scripts/coverage.sh [--missing]      --missing: each branch that no test takes, too
set -euo pipefail
cd "$(dirname "$0")/.."
case "${1:-}" in '' | --missing) ;; *) sed -n '4s/^# //p' "$0" >&2; exit 2 ;; esac

./scripts/install-packages.sh build test coverage
cmake --preset coverage >/dev/null
cmake --build --preset coverage -- --quiet
find build/coverage -name '*.gcda' -delete
ctest --preset coverage --quiet
gcovr --root . --filter src/ --exclude-unreachable-branches --json build/coverage/counts.json \
    --txt build/coverage/lines.txt build/coverage
cat build/coverage/lines.txt

python3 - "${1:-}" <<'PYTHON'
import json, sys

lowest_branches = 95.0
excepted = {}  # (file, the line's text behind that of the line before): the reason
with open("tests/coverage_exceptions.txt") as lines:
    for row in (line.rstrip("\n") for line in lines):
        if row and not row.startswith("#"):
            file, text, reason = row.split(" | ")
            excepted[file, text] = reason
unused = set(excepted)
failed = False
taken = branches = 0
for file in json.load(open("build/coverage/counts.json"))["files"]:
    name = file["file"]
    source = open(name).read().split("\n")
    for line in file["lines"]:
        number = line["line_number"]
        text = " ".join(row.strip() for row in source[max(number - 2, 0):number])
        if line["count"] == 0 and not line.get("gcovr/noncode"):
            if (name, text) in excepted:
                unused.discard((name, text))
            else:
                print(f"{name}:{number}: no test reaches: {text}")
                failed = True
        counts = [branch["count"] for branch in line["branches"]]
        taken += sum(count > 0 for count in counts)
        branches += len(counts)
        if 0 in counts and sys.argv[1] == "--missing":
            print(f"{name}:{number}: {counts.count(0)} of {len(counts)} branches not taken: {text}")
for name, text in sorted(unused):
    print(f"tests/coverage_exceptions.txt: a test reaches, or nobody has: {name} | {text}")
    failed = True
share = 100.0 * taken / branches
print(f"branches: {taken} of {branches}, {share:.1f}%, at least {lowest_branches}% wanted")
sys.exit(failed or share < lowest_branches)
PYTHON
