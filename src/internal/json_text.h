/**
 * JSON as text: whether a value can be written as one, and a text that is built from pieces.
 */
#ifndef TAVRIX_INTERNAL_JSON_TEXT_H
#define TAVRIX_INTERNAL_JSON_TEXT_H

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <jansson.h>

#include "common/handles.h"

namespace tavrix {

// --- Values that have a text ---------------------------------------------------------------------------------------

/** Pure ASCII is quick to recognise; Jansson judges the rare other text. */
inline bool is_utf8(const char *text, size_t length) {
    size_t ascii = 0;
    while (ascii < length && static_cast<unsigned char>(text[ascii]) < 0x80) {
        ++ascii;
    }
    return ascii == length || Json(json_stringn(text, length)) != nullptr;
}

/** The path down to a container, as much of it as is needed to notice a loop. */
struct Descent {
    const json_t *landmark; ///< the container above at the last depth that was a power of two
    size_t depth;
};

/**
 * Whether the value can be written as JSON text: its strings and keys are UTF-8 (Jansson would write half of a key that
 * is not, and report success), and it does not contain itself. In a loop of any length the walk meets its landmark
 * again, so one comparison per container is enough.
 */
inline bool is_renderable(const json_t *value, const Descent &above = {nullptr, 0}) {
    if (json_is_string(value)) {
        return is_utf8(json_string_value(value), json_string_length(value));
    }
    if (!json_is_object(value) && !json_is_array(value)) {
        return true;
    }
    if (value == above.landmark) {
        return false;
    }
    const size_t depth = above.depth + 1;
    const bool is_power_of_two = (depth & (depth - 1)) == 0;
    const Descent here = {is_power_of_two ? value : above.landmark, depth};
    for (size_t i = 0; i < json_array_size(value); ++i) {
        if (!is_renderable(json_array_get(value, i), here)) {
            return false;
        }
    }
    json_t *object = const_cast<json_t *>(value); // Jansson's iterators could change an object; these do not
    for (void *member = json_object_iter(object); member != nullptr; member = json_object_iter_next(object, member)) {
        if (!is_utf8(json_object_iter_key(member), json_object_iter_key_len(member)) ||
            !is_renderable(json_object_iter_value(member), here)) {
            return false;
        }
    }
    return true;
}

// --- A text in pieces ----------------------------------------------------------------------------------------------

/** A text under construction; `size` bytes are allocated, `length` of them written. */
class Draft {
  public:
    /** False when memory runs out. Not inline: a dozen copies would cost more room than a dozen calls cost time. */
    [[gnu::noinline]] bool add(const char *bytes, size_t count) {
        const size_t needed = length_ + count;
        if (needed > size_ && !enlarge(needed)) {
            return false;
        }
        std::memcpy(text_.get() + length_, bytes, count);
        length_ = needed;
        return true;
    }
    template <size_t Size>
    bool add(const char (&words)[Size]) {
        return add(words, Size - 1);
    }
    /** Also false when the value cannot be written. */
    bool add(const json_t *value, size_t flags) { return json_dump_callback(value, add_piece, this, flags) == 0; }
    /** The finished text; null when there is no memory for its terminator. */
    Text finish() { return add("", 1) ? std::move(text_) : nullptr; }

  private:
    static constexpr size_t first_size = 256;

    bool enlarge(size_t needed) {
        const size_t size = std::max({needed, 2 * size_, first_size});
        char *text = static_cast<char *>(std::realloc(text_.get(), size));
        if (text == nullptr) {
            return false;
        }
        static_cast<void>(text_.release());
        text_.reset(text);
        size_ = size;
        return true;
    }
    /** Jansson hands the pieces of a rendering to this. */
    static int add_piece(const char *bytes, size_t count, void *draft) {
        return static_cast<Draft *>(draft)->add(bytes, count) ? 0 : -1;
    }

    Text text_;
    size_t length_ = 0;
    size_t size_ = 0;
};

} // namespace tavrix

#endif
