/**
 * A function called with each of its pointers null in turn:
 *
 *     EXPECT_EQ(with_each_null(tavrix_jrpc_mq_pub, &pub.number, "c", "{}"), Statuses(3, TAVRIX_ERR_NULL_INPUT));
 */
#ifndef TAVRIX_TESTS_SUPPORT_NULLS_H
#define TAVRIX_TESTS_SUPPORT_NULLS_H

#include <cstddef>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace support {

using Statuses = std::vector<int>;

template <class Value>
Value null_if(bool /*null*/, Value value) {
    return value;
}
template <class Pointee>
Pointee *null_if(bool null, Pointee *pointer) {
    return null ? nullptr : pointer;
}

template <class Function, class Arguments, size_t... At>
int call_with_null(Function function, size_t null, const Arguments &arguments, std::index_sequence<At...> /*all*/) {
    return function(null_if(At == null, std::get<At>(arguments))...);
}

/** What it returns, one pointer after the other; arguments that are no pointers stay as they are. */
template <class Function, class... Arguments>
Statuses with_each_null(Function function, Arguments... arguments) {
    constexpr bool is_pointer[] = {std::is_pointer_v<Arguments>...};
    Statuses statuses;
    for (size_t at = 0; at < sizeof...(arguments); ++at) {
        if (is_pointer[at]) {
            statuses.push_back(
                call_with_null(function, at, std::make_tuple(arguments...), std::index_sequence_for<Arguments...>{}));
        }
    }
    return statuses;
}

/** With each pointer null in turn the status comes, and this line. */
template <class Function, class... Arguments>
void expect_nulls_refused(int status, const std::string &line, Function function, Arguments... arguments) {
    const LogCapture log("debug");
    const Statuses statuses = with_each_null(function, arguments...);
    EXPECT_EQ(statuses, Statuses(statuses.size(), status)) << line;
    EXPECT_TRUE(log.said(Lines(statuses.size(), line)));
}

/** The same where tavrix_check_for_null() looks, which names the arguments by their places. */
inline std::string null_line(size_t place) {
    return "WARN |Found a null input parameter at varg index <" + std::to_string(place) + ">";
}
template <class Function, class... Arguments>
void expect_nulls_named(int status, Function function, Arguments... arguments) {
    const LogCapture log("info");
    const Statuses statuses = with_each_null(function, arguments...);
    EXPECT_EQ(statuses, Statuses(statuses.size(), status));
    Lines lines;
    while (lines.size() < statuses.size()) {
        lines.push_back(null_line(lines.size()));
    }
    EXPECT_TRUE(log.said(lines));
}

} // namespace support

#endif
