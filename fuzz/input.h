/**
 * What the fuzzers share: a text that ends at its terminator, values released with their scope, and a check that tells.
 */
#ifndef TAVRIX_FUZZ_INPUT_H
#define TAVRIX_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <jansson.h>

#include "common/handles.h"

#define EXPECT(condition)                                                                                              \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition);                               \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (false)

namespace fuzz {

using tavrix::Json;
using tavrix::Text;

/** The input, in a block of exactly its size and one terminator, so that a sanitizer sees a byte too many. */
inline Text text_of(const uint8_t *data, size_t size) {
    Text text(static_cast<char *>(std::malloc(size + 1)));
    for (size_t i = 0; i < size; ++i) {
        text.get()[i] = static_cast<char>(data[i]);
    }
    text.get()[size] = '\0';
    return text;
}

inline bool is_object(const char *text) {
    const Json value(json_loads(text, 0, nullptr));
    return json_is_object(value.get());
}

} // namespace fuzz

#endif
