#!/usr/bin/env bash
# What CONTRIBUTING.md names for a new status, field, function or method is all there; and a copy of the tree that lacks
# one of the things is noticed.
# usage: forgotten.sh
# shellcheck disable=SC2016 # backquotes are the pages' own
set -euo pipefail
source=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# named WHAT PLACE...: each place, a file or folder, is to have the word
named() {
    local what=$1 place
    shift
    for place in "$@"; do echo "$what" >>"$wanted/${place//\//:}"; done
}
unnamed() { # what of it the places have not
    local list place
    for list in "$wanted"/*; do
        place=$(basename "$list")
        place=${place//://}
        grep -rhoE --exclude-dir={house,threads} '[A-Za-z0-9_]+(\.[A-Za-z]+)*' "$place" | sort -u |
            comm -23 <(sort -u "$list") - | sed "s|\$| is missing in $place|"
    done
}

name_of() { sed -nE "s/^constexpr char $1\[\] = \"(.*)\";.*/\1/p" common/names.h; } # CONSTANT

missing() {
    local name number expected=0 comment='' line rows judged kind
    local wanted
    wanted=$(mktemp -d -p "$work")
    rows=$(grep -oE '/\* +[0-9]+ \*/' tests/unit/tavrix_error_test.cpp | tr -d '/* ')
    judged=$(grep -oE '\{"[a-z_]+"|validate_[a-z_]+' tests/unit/tavrix_validation_test.cpp | sed -E 's/^validate_|[{"]//g')
    # Statuses: without a gap, each with its advice, its message, and its row in the test of the messages.
    while read -r line; do
        if [[ "$line" =~ ^(TAVRIX_OK|TAVRIX_ERR_[A-Z0-9_]+)\ =\ -?([0-9]+),?$ ]]; then
            name=${BASH_REMATCH[1]} number=${BASH_REMATCH[2]}
            [ "$number" -eq "$expected" ] || echo "$name is $number, the next one is $expected"
            [[ "$comment" == "/** "* ]] || echo "$name says nothing about what it means"
            [[ $'\n'$rows$'\n' == *$'\n'"$number"$'\n'* ]] || echo "$name has no row in tests/unit/tavrix_error_test.cpp"
            expected=$((expected + 1))
        fi
        comment=$line
    done <include/tavrix_error.h
    grep -q "tavrix_error_strings\[$((expected + 1))\]" include/tavrix_error.h || echo "tavrix_error_strings has no room for $expected"
    # Codes of JSON-RPC: a row in the unit, and in the test of the messages.
    while read -r name number; do
        named "$name" src
        named "$number" tests/unit/tavrix_jrpc_error_test.cpp
    done < <(sed -nE 's/^ +(TAVRIX_JRPC_[A-Z0-9_]+) = -(32[0-9]+),?$/\1 \2/p' include/tavrix_jrpc.h)
    # Functions: declared, pinned, tested; fields: read, validated, a kind of the kit's, offered by the tool.
    while read -r name; do
        case "$name" in
        tavrix_jrpc_utils_retrieve_input_*)
            named "$name" include kit/src/params.cpp
            kind=${name#tavrix_jrpc_utils_retrieve_input_}
            named "TAVRIX_KIND_${kind^^}" kit/include/tavrix_service.h kit/src/params.cpp
            named "$kind" tests/support/fields.cpp # and unit tests of all it holds
            ;;
        validate_*)
            named "$name" include tools/verb_local.cpp
            name=${name#validate_}
            [[ $'\n'$judged$'\n' == *$'\n'"$name"$'\n'* ]] || echo "$name is missing in tests/unit/tavrix_validation_test.cpp"
            [ "$name" = date_time ] || named "$name" tests/support/fields.cpp
            ;;
        *) named "$name" include tests/unit ;;
        esac
    done < <(sed -nE -f tests/interface/exported_symbols.sed tests/interface/declarations.c)
    # What goes through the table of fields: unit.fields holds it against the exported symbols.
    named fields tests/{fault/params,threads/reentrant,system/tavrixctl_local}_test.cpp \
        fuzz/{params,identifiers}_fuzzer.cpp
    # Methods of the reference daemons: each is called by a test of processes.
    while read -r name; do named "$name" tests/system; done < <(
        sed -nE 's/^ +TAVRIX_METHOD[A-Z_]*\("([A-Za-z.]+)".*/\1/p' daemons/*/*methods.cpp)
    # The router's own: called, and in the table of the page about the wire; what `*` does not cover is what its page says.
    while read -r name; do
        name=$(name_of "$name")
        named "$name" tests/system
        grep -qE "^\|.*\`$name\`.* \|" docs/protocol.md || echo "$name is missing in the table of docs/protocol.md"
    done < <(sed -nE 's/^ +\{names::([a-z_]+), (true|false), &Router::.*/\1/p' daemons/router/own_methods.cpp)
    line=$(sed -n '/^- `\*` does not cover/,/\./p' docs/router.md | tr '\n' ' ' | sed 's/ These are.*//')
    while read -r name; do
        [[ "$line" == *"\`$(name_of "$name")\`"* ]] || echo "docs/router.md does not say that * leaves out $name"
    done < <(grep 'restricted\[\] = {' daemons/router/policy.cpp | grep -oE 'names::[a-z_]+' | sed 's/names:://')
    unnamed
}

said=$(cd "$source" && missing)
[ -z "$said" ] || { printf '%s\n' "$said" >&2; exit 1; }

failed=0
lacking() { # WHAT FILE SED-EXPRESSION: without it, something is said
    local said
    sed -i -E "$3" "$work/$2"
    cmp -s "$source/$2" "$work/$2" && { echo "$1: $2 has changed nothing" >&2; failed=1; }
    said=$(cd "$work" && missing)
    [ -n "$said" ] || { echo "$1 was not missed in $2" >&2; failed=1; }
    cp "$source/$2" "$work/$2"
}
(cd "$source" && tar -cf - common include src daemons docs kit tests fuzz tools) | tar -C "$work" -xf -
lacking "a status's test" tests/unit/tavrix_error_test.cpp '/^ +\/\* 73 \*\//d'
lacking "a status's advice" include/tavrix_error.h '/Nobody answers at the other end/d'
lacking "a status's number" include/tavrix_error.h '/TAVRIX_ERR_MZU_LIMIT = /d'
lacking "a code's test" tests/unit/tavrix_jrpc_error_test.cpp 's/-32014/-1/'
lacking "a field's row" tests/support/fields.cpp 's/\(alias\)/(x)/'
lacking "a validator's test" tests/unit/tavrix_validation_test.cpp 's/\{"uuid"/{"x"/'
lacking "a validator's row" tests/support/fields.cpp 's/\(uuid\)/(x)/'
lacking "the fields' fuzzer" fuzz/params_fuzzer.cpp 's/\<fields\>/x/'
lacking "a validator's verb" tools/verb_local.cpp '/validate_onu_id/d'
lacking "a function's declaration" include/tavrix_timer.h '/tavrix_timer_free/d'
lacking "a field's kind" kit/include/tavrix_service.h '/TAVRIX_KIND_ONU_ID/d'
lacking "a kind's row" kit/src/params.cpp 's/retrieve_input_ports_hardware/retrieve_input_ports/'
lacking "a router's method in its table" docs/protocol.md 's/`router\.Unsubscribe`/`router.Leave`/'
lacking "a restricted method" docs/router.md 's/, `router\.Bus` and/ and/'
lacking "a test of a router's method" common/names.h 's/"router\.Metrics"/"router.Figures"/'
lacking "a test of a method" daemons/ports/methods.cpp 's/"ports\.Get"/"ports.GetAlso"/'
exit "$failed"
