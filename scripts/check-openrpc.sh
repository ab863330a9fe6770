#!/usr/bin/env bash
# Checks what the system says of itself: starts the router and both services on private paths, fetches rpc.discover, and
# validates the document against OpenRPC's published meta-schema. That comes from npm as a development dependency, into
# the build folder: the machine needs npm's registry, which is why the test suite leaves this out.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'TEXT'
usage: scripts/check-openrpc.sh [--built FOLDER]

  --built FOLDER   build nothing, use the programs of this build folder, for example build/native
TEXT
}

meta_schema=@open-rpc/meta-schema@1.14.9
bin=
while [ $# -gt 0 ]; do
    case "$1" in
    --built) bin=$(realpath -e "${2:?--built takes a build folder}"); shift ;;
    --help | -h) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
    esac
    shift
done

./scripts/install-packages.sh demo openrpc
if ! command -v npm >/dev/null; then # which some machines have from elsewhere than Debian
    ./scripts/install-packages.sh npm
fi
if [ -z "$bin" ]; then
    ./scripts/install-packages.sh build
    cmake --preset demo >/dev/null
    cmake --build --preset demo -- --quiet
    bin=$PWD/build/demo
fi
modules=$PWD/build/openrpc
mkdir -p "$modules"
npm install --prefix "$modules" --no-save --no-package-lock --no-audit --no-fund --ignore-scripts --silent "$meta_schema"

# --- The system ---

source=$PWD
run=$(mktemp -d)
pids=()
stop_all() {
    if [ ${#pids[@]} -gt 0 ]; then
        kill "${pids[@]}" 2>/dev/null || true
        wait "${pids[@]}" 2>/dev/null || true
    fi
    rm -rf "$run" "/dev/shm/tavrix-openrpc-$$"
}
trap stop_all EXIT
cd "$run"

wait_for() { # FILE TEXT: until the file holds the text
    for _ in $(seq 600); do
        if grep -q -- "$2" "$1" 2>/dev/null; then return 0; fi
        sleep 0.05
    done
    cat "$1" >&2
    echo "check-openrpc: '$2' never came" >&2
    exit 1
}

sqlite3 zqn_h7.db <"$source/daemons/ports/schema.sql"
sqlite3 zqn_h7.db <"$source/daemons/ports/fleet.sql"
printf '[logging_levels]\nrouterd=info\nportsd=info\neventsd=info\n' >tavrix_lsyslog.conf
printf 'c1-1 down\n' >links.txt
"$bin/daemons/router/tavrix-routerd" --socket router.sock --session session.sock --publish "ipc://$run/bus/router" \
    >/dev/null 2>routerd.log &
pids+=($!)
wait_for routerd.log "routerd ready"
"$bin/daemons/ports/tavrix-portsd" --session session.sock --database zqn_h7.db >/dev/null 2>portsd.log &
pids+=($!)
"$bin/daemons/events/tavrix-eventsd" --session session.sock --socket events.sock --script links.txt \
    --slot "/tavrix-openrpc-$$" >/dev/null 2>eventsd.log &
pids+=($!)
wait_for portsd.log "portsd ready"
wait_for eventsd.log "eventsd ready"

"$bin/tools/tavrixctl" send --socket router.sock '{"jsonrpc":"2.0","method":"rpc.discover","id":1}' >answer.json
node -e 'console.log(JSON.stringify(require(process.argv[1]).openrpcDocument))' \
    "$modules/node_modules/@open-rpc/meta-schema" >meta.json

# --- The check ---

# The meta-schema leaves schemas to JSON Schema's own draft 7, under another name and by reference: it is handed over.
/usr/bin/python3 - <<'PYTHON'
import json
import sys

from jsonschema import Draft7Validator, RefResolver

document = json.load(open("answer.json"))["result"]
meta = json.load(open("meta.json"))
draft = Draft7Validator.META_SCHEMA
resolver = RefResolver.from_schema(meta, store={"https://meta.json-schema.tools/": draft,
                                                "https://meta.json-schema.tools": draft})
validator = Draft7Validator(meta, resolver=resolver)
errors = [f"{'/'.join(map(str, e.absolute_path))}: {e.message}" for e in validator.iter_errors(document)]


def check_schema(where, schema):
    errors.extend(f"{where}: {e.message}" for e in Draft7Validator(draft).iter_errors(schema))


names = [method["name"] for method in document["methods"]]
if len(names) != len(set(names)):
    errors.append("a method is described twice")
for wanted in ("ports.Get", "mzu.List", "events.Last", "ports.Discover", "events.Discover", "router.Status"):
    if wanted not in names:
        errors.append(f"{wanted} is missing")
for method in document["methods"]:
    required = [param["required"] for param in method["params"]]
    if required != sorted(required, reverse=True):
        errors.append(f"{method['name']}: a parameter that has to be there stands after one that may be absent")
    schemas = {param["name"]: param["schema"] for param in method["params"]}
    for name, schema in schemas.items():
        check_schema(f"{method['name']} {name}", schema)
    check_schema(f"{method['name']} result", method["result"]["schema"])
    for example in method["examples"]:
        for param in example["params"]:
            errors.extend(f"{method['name']} example {param['name']}: {e.message}"
                          for e in Draft7Validator(schemas[param["name"]]).iter_errors(param["value"]))

# What can be refused at all: the document with a member that OpenRPC does not know, or without one that it needs.
for broken in ({**document, "nonsense": 1}, {k: v for k, v in document.items() if k != "info"},
               {**document, "methods": [{"name": "a"}]}):
    if validator.is_valid(broken):
        errors.append("the validator lets everything through")
for error in errors:
    print(error, file=sys.stderr)
if errors:
    sys.exit(1)
print(f"{len(names)} methods, valid OpenRPC {document['openrpc']}")
PYTHON
