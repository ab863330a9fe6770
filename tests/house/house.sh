#!/usr/bin/env bash
# scripts/house-rules.sh is content with the tree, and with a copy of it that breaks one rule it is not.
# usage: house.sh
set -euo pipefail
source=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

tar -C "$source" --exclude=./build --exclude=./.git --exclude=./.cache -cf - . | tar -C "$work" -xf -
"$source/scripts/house-rules.sh" "$work" || { echo "the tree itself breaks a rule" >&2; exit 1; }

failed=0
refused() { # RULE FILE: with FILE as it is now
    local said
    if said=$("$source/scripts/house-rules.sh" "$work"); then
        echo "$1: not noticed in $2" >&2
        failed=1
    elif [ "$(grep -c '^[a-z-]*: ' <<<"$said")" -ne 1 ] || [[ "$said" != "$1: "* ]]; then
        printf '%s: in %s this was found instead:\n%s\n' "$1" "$2" "$said" >&2
        failed=1
    fi
    rm "$work/$2"
    [ ! -e "$source/$2" ] || cp "$source/$2" "$work/$2"
}
plant() { # RULE FILE LINE
    printf '%s\n' "$3" >>"$work/$2"
    refused "$1" "$2"
}

plant bare-meant src/tavrix_timer.cpp '// The result is ignored; meant.'
plant bare-meant docs/router.md 'This is meant.'
plant machine-path README.md 'cd /home/somebody/tavrix'
plant network scripts/demo.sh 'curl https://example.org/tool'
plant network cmake/armhf.cmake '# from mirror.example.org'
plant left-over kit/src/base.cpp '// TODO: more'
plant status-number src/tavrix_shm.cpp 'int f() { return -35; }'
plant status-number daemons/ports/main.cpp 'bool f(int rc) { return rc == -1; }'
plant status-number-in-test tests/unit/tavrix_mq_test.cpp '    EXPECT_EQ(receive(), -46) << "nothing";'
plant status-number-in-test tests/unit/tavrix_shm_test.cpp '    EXPECT_EQ(tavrix_shm_create("/x", 0), -1);'
plant status-number-in-test tests/unit/tavrix_shm_test.cpp '        {"c12", -5, "too short"},'
plant status-number-in-test tests/fault/jrpc_test.cpp '    fault.expect(-1, 0, [] { return 0; });'
plant status-number-in-test tests/fault/jrpc_test.cpp '    make_error(-32005, id.get());'
plant status-number-in-test tests/fault/jrpc_test.cpp '    EXPECT_TRUE(rc == 0 || rc == -1);'
plant one-home tools/words.cpp 'const char *place = "/run/tavrix/session.sock";'
plant one-home daemons/events/main.cpp 'const char *place = "/run/tavrix/router.sock";'
plant one-home tools/words.cpp 'constexpr char openrpc_version[] = "1.2.6";'
plant one-home kit/src/base.cpp 'constexpr int busy = -32014;'
plant one-home tools/words.cpp 'constexpr char told[] = "TAVRIX_SESSION";'
plant one-home daemons/router/bus.cpp 'nn_setsockopt(1, NN_SOL_SOCKET, NN_RCVMAXSIZE, &limit, sizeof limit);'
plant one-home kit/src/calls.cpp 'constexpr size_t flags = JSON_REJECT_DUPLICATES | JSON_DISABLE_EOF_CHECK;'
plant one-home daemons/events/events.cpp 'constexpr char changed[] = "events.LinkChanged";'
plant channel tests/system/router_test.cpp 'constexpr char channel[] = "3a6f8f51-502f-4238-9638-29764ff1a8a4";'
plant private-header kit/src/base.cpp '#include "internal/tables.h"'
plant private-header tests/unit/tavrix_mq_test.cpp '#include "tavrix_jrpc_internal.h"'
plant runtime src/tavrix_socket.cpp '    std::string text;'
plant runtime kit/src/base.cpp '    auto *record = new Record;'
plant second-owner fuzz/input.h '    void operator()(char *text) const { std::free(text); }'
plant function-pointer-deleter tools/support.h 'std::unique_ptr<FILE, decltype(&fclose)> file;'
plant using-in-header daemons/base/log.h 'using namespace std;'
plant swallowed-semicolon common/log.h '#define X do { f(); } while (0);'
plant fixed-sleep tests/system/router_test.cpp '    std::this_thread::sleep_for(one_second);'
printf '// a line\n%.0s' {1..1000} >"$work/tools/words.cpp"
refused long-file tools/words.cpp

# An exception that nothing needs any more is no longer one.
sed -i 's/usleep(turn_us);//' "$work/tests/fault/kit_test.cpp"
refused fixed-sleep tests/fault/kit_test.cpp

while read -r name; do
    grep -qE "^(plant|refused) $name " "$0" || { echo "$name: not put to the test here" >&2; failed=1; }
done < <(sed -nE 's/^ *rule ([a-z-]+) .*/\1/p' "$source/scripts/house-rules.sh")
exit "$failed"
