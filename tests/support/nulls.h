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

/** The lines by which the first so many arguments are named, one after the other, where tavrix_check_for_null() looks.
 */
inline std::vector<std::string> null_lines(int count) {
    std::vector<std::string> lines;
    for (int index = 0; index < count; ++index) {
        lines.push_back("WARN |Found a null input parameter at varg index <" + std::to_string(index) + ">");
    }
    return lines;
}

} // namespace support

#endif
