/**
 * Compile-time checks of the units' tables.
 */
#ifndef TAVRIX_INTERNAL_TABLES_H
#define TAVRIX_INTERNAL_TABLES_H

#include <cstddef>

namespace tavrix {

template <typename Element, size_t Count>
constexpr int count_of(const Element (&)[Count]) {
    return static_cast<int>(Count);
}

/** Whether the rows stand in the order of their ids, from 0 and without a gap. */
template <typename Row, size_t Count>
constexpr bool in_order(const Row (&rows)[Count]) {
    for (size_t i = 0; i < Count; ++i) {
        if (rows[i].id != i) {
            return false;
        }
    }
    return true;
}

} // namespace tavrix

#endif
