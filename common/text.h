/**
 * The words of others: made printable, judged, matched.
 */
#ifndef TAVRIX_COMMON_TEXT_H
#define TAVRIX_COMMON_TEXT_H

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace tavrix {

constexpr size_t escaped_size = 4; ///< of one byte, as \xHH
constexpr size_t printable_margin =
    escaped_size + sizeof "..."; ///< room for one more byte, escaped, and the end of a cut text

/**
 * Copies a text; the backslash, and all that is not printable ASCII, becomes \xHH: foreign words can neither forge log
 * lines nor control a terminal. What is longer than `size` less the margin is cut.
 *
 * @param size of `out`, larger than the margin
 * @return the length of what is in `out`, which has a terminator
 */
inline size_t make_printable(const char *text, size_t length, char *out, size_t size) {
    constexpr char cut[] = "...";
    size_t written = 0;
    for (size_t i = 0; i < length; ++i) {
        if (written >= size - printable_margin) {
            std::memcpy(out + written, cut, sizeof cut);
            return written + sizeof cut - 1;
        }
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < ' ' || byte > '~' || byte == '\\') {
            written += static_cast<size_t>(std::snprintf(out + written, escaped_size + 1, "\\x%02x", unsigned{byte}));
        } else {
            out[written++] = text[i];
        }
    }
    out[written] = '\0';
    return written;
}

/** The size of the control character or line separator that a text begins with; 0 when it begins with neither. */
inline size_t control_character_size(const char *text, size_t length) {
    const auto byte = [text, length](size_t i) { return i < length ? static_cast<unsigned char>(text[i]) : 0U; };
    if (byte(0) < ' ' || byte(0) == 127) {
        return 1;
    }
    if (byte(0) == 0xc2 && byte(1) >= 0x80 && byte(1) <= 0x9f) { // U+0080 to U+009F
        return 2;
    }
    const bool is_separator = byte(0) == 0xe2 && byte(1) == 0x80 && (byte(2) == 0xa8 || byte(2) == 0xa9);
    return is_separator ? 3 : 0; // U+2028 and U+2029 end a line, or a paragraph
}

/** Whether a text in UTF-8 holds a control character, or anything else that ends a line. */
inline bool has_control_characters(const char *text, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        if (control_character_size(text + i, length - i) > 0) {
            return true;
        }
    }
    return false;
}

inline bool has_control_characters(const char *text) { return has_control_characters(text, std::strlen(text)); }

/** Whether a method's name matches a pattern: the name itself, or its beginning followed by `*`. */
inline bool matches(const char *pattern, size_t pattern_length, const char *name, size_t length) {
    const bool is_beginning = pattern_length > 0 && pattern[pattern_length - 1] == '*';
    const size_t compared = is_beginning ? pattern_length - 1 : pattern_length;
    return (is_beginning ? length >= compared : length == compared) && std::memcmp(pattern, name, compared) == 0;
}
inline bool matches(const char *pattern, const char *name) {
    return matches(pattern, std::strlen(pattern), name, std::strlen(name));
}

} // namespace tavrix

#endif
