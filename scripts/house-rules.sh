#!/usr/bin/env bash
# The house's rules that a search can check: no line matches a rule's pattern, but those that match its exceptions.
# usage: scripts/house-rules.sh [FOLDER]      the tree to search, this one if none is named
set -euo pipefail
cd "${1:-$(dirname "$0")/..}"

violations=0
complain() { # RULE REASON LINES
    printf '%s: %s\n%s\n' "$1" "$2" "$3"
    violations=$((violations + 1))
}

# rule NAME REASON PATTERN EXCEPTIONS FOLDER...: both are Perl's expressions; an exception sees "file:number:line", may
# carry a remark, and has to go when no line needs it any more
rule() {
    local name=$1 reason=$2 pattern=$3 exceptions=$4 lines folders=() folder bad exception
    shift 4
    for folder in "$@"; do [ ! -e "$folder" ] || folders+=("$folder"); done
    lines=$(grep -rnIP --exclude-dir={build,.git,.cache,house} --exclude={.git,house-rules.sh} \
        -e "$pattern" "${folders[@]}" | sed 's|^\./||') || true
    bad=$lines
    while read -r exception; do
        exception=${exception%% \# *}
        [ -n "$exception" ] || continue
        grep -qP -e "$exception" <<<"$lines" || complain "$name" "an exception that nothing needs" "    $exception"
        bad=$(grep -vP -e "$exception" <<<"$bad") || true
    done <<<"$exceptions"
    [ -z "$bad" ] || complain "$name" "$reason" "$bad"
}

# --- Words ---

rule bare-meant "it gives no reason: say who relies on the oddity, or what it protects" \
    '\bmeant\b(?! (to|for|by|as)\b)' '' .
rule machine-path "a path of one person or one machine: nobody else has it" \
    '(?<![\w.$}])/(home|Users|root|work|mnt|opt)/\w' '' .
rule network "an address of the network: the project stands on Debian packages alone" \
    'https?://(?!127\.|www\.w3\.org/2000/svg)|\b(registry|mirrors?|proxy|deb|pypi|ftp)\.[a-z-]+\.[a-z]{2,}' '
    ^packaging/deb/copyright:1:Format: https://www\.debian\.org/
    ^scripts/check-openrpc\.sh:.*meta\.json-schema\.tools' .
rule left-over "work that is left has no place in a comment" '\b(TODO|FIXME)\b' '' .

# --- Names instead of numbers ---

rule status-number "a status has a name in tavrix_error.h, a verdict in tavrix_validation.h" \
    '\b(return|case|[=!<>]=) -([2-9]|[1-7]\d)\b(?!\.)|\b(rc|status) (==|!=) -1\b' '' \
    src common kit daemons tools
N='-([2-9]|[1-6]\d|7[0-3])\b'
rule status-number-in-test "an expectation says more by the name of the status or verdict" \
    "(EXPECT|ASSERT)_(EQ|NE)\((.*, $N|(tavrix|validate)_\w+\(.*, -1)\)(;| <<|\$)\
|(\)|\brc|\bstatus) (==|!=) $N|\b(rc|status) (==|!=) -1\b|(expect\(|\brc, )-\d|\? ($N : 0|0 : -\d)|\breturn $N\
|\", $N(\}|, [\"{])|\(-32\d{3}," '
    tavrix_(socket_recv|utils_sw_version_strcmp)\(.*, -1\) # a count, an order
    ^tests/unit/tavrix_error_test\.cpp:' tests fuzz

# one_home HOME PATTERN [EXCEPTIONS]: a fact that stands in one file of what is built, and is named elsewhere
one_home() {
    rule one-home "this stands in $1; name it instead" "$2" "
    ^$1:
    ${3:-}" src common include kit daemons/*/*.{h,cpp} tools/*.{h,cpp}
}
one_home 'kit/include/tavrix_service\.h' '/run/tavrix/session\.sock'
one_home 'common/names\.h' '/run/tavrix/router\.sock'
one_home 'common/names\.h' '"1\.2\.6"'
one_home 'common/names\.h' '"(router|service)\.[A-Z]\w+"|^[^*]*"(logger\.ReloadConf|events\.LinkChanged)"'
one_home 'common/wire\.h' '"TAVRIX_SESSION"'
one_home 'common/bus\.h' 'NN_RCVMAXSIZE|\bNN_TCP_NODELAY'
one_home 'common/message\.h' 'JSON_DISABLE_EOF_CHECK'
one_home 'include/tavrix_jrpc\.h' '-32[0-9]{3}\b' '
    ^tools/tavrixctl\.cpp:.*tavrixctl error -32602'
rule channel "a channel has a name in tavrix_jrpc.h" '(3a6f8f51-5|505a5451-3|b4469f46-e|30e493d7-9|2524546b-ca99-)' '
    ^include/tavrix_jrpc\.h:
    ^tests/unit/tavrix_jrpc_framing_test\.cpp: # holds the names to their values
    ^bench/road/\w+\.[ch]: # the bare processes know nothing of the library' src common include kit daemons tools tests/*/*.{h,cpp} bench fuzz/*.{h,cpp}

# --- Structure ---

rule private-header "another folder's private header: only white-box tests and what is built with the library see it" \
    '#include "(internal/|tavrix_\w+_internal\.h)' '
    ^src/
    ^tests/unit/\w+_whitebox_test\.cpp:
    ^tests/fault/
    ^fuzz/
    ^bench/' .
rule runtime "the library needs no C++ runtime" \
    '^[^"/]*(\b(throw|dynamic_cast|typeid)\b|\bnew (?!\(|value|text)[A-Z]|std::(string|vector|map|function|shared_ptr)\b)' '' \
    src kit/src common
rule second-owner "common/handles.h has an owner for this" \
    'operator\(\)\((json_t|char|void|FILE) \*\w+\) const \{.*\b(json_decref|free|fclose|pclose)\(' '' \
    src kit daemons tools tests fuzz
rule function-pointer-deleter "a deleter is a type with a name: a pointer makes each owner twice as large" \
    'unique_ptr<[^;]*(decltype\(&|\(\*\))' '' src common kit daemons tools tests
rule using-in-header "it would reach everybody who includes the header" '^\s*using namespace' '\.cpp:' \
    include src common kit daemons tools tests
rule swallowed-semicolon "the macro ends in a semicolon of its own, and breaks an if without braces" \
    'while \((0|false)\);\s*\\?$' '' src common include kit daemons tools tests
rule fixed-sleep "a test waits for a condition: a fixed time is too short on some day, and too long on all others" \
    '\b(sleep_for|usleep|nanosleep|sleep)\(' '
    ^tests/fault/kit_test\.cpp:.*usleep\(turn_us\)' tests/{fault,interface,kit,support,system,testkit,threads,unit}

# --- Length: what is longer than this has two topics ---

longest=900
declare -A longer=( # its own limit, and the reason
    [src/tavrix_jrpc.cpp]="1300 its log lines carry one unit name and a line number"
)
while read -r lines file; do
    file=${file#./}
    limit=${longer[$file]:-$longest}
    limit=${limit%% *}
    [ "$lines" -le "$limit" ] || complain long-file "what is this long has two topics" "$file: $lines lines of $limit"
    if [ -n "${longer[$file]:-}" ] && [ "$lines" -le "$longest" ]; then
        complain long-file "an exception that nothing needs" "$file: $lines lines"
    fi
done < <(find . -path ./build -prune -o \( -name '*.c' -o -name '*.cpp' -o -name '*.h' -o -name '*.sh' -o -name '*.py' \) \
    -exec wc -l {} +  | grep -v ' total$')

[ "$violations" -eq 0 ]
