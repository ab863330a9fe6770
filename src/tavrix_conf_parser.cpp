/*
 * Configuration-file parser: one value from a sectioned file, read line by line on every call.
 *
 * Keeps no state. Lines are handled with their lengths, so a line of any length, or one with a NUL inside, is safe.
 */
#include "tavrix_conf_parser.h"

#include <cstring>

#include <sys/types.h>

#include "common/handles.h"
#include "tavrix_error.h"

namespace {

constexpr size_t max_section_length = 49;
constexpr size_t max_key_length = 50;

/** Part of a line, not terminated. */
struct Span {
    const char *text;
    size_t length;

    bool equals(const char *name) const { return std::strlen(name) == length && std::memcmp(text, name, length) == 0; }
    const char *find(char wanted) const { return static_cast<const char *>(std::memchr(text, wanted, length)); }
    bool starts_with(char first) const { return length > 0 && text[0] == first; }
};

/** The lines of a file, one at a time, in a buffer that grows to the longest. */
class LineReader {
  public:
    explicit LineReader(FILE *file) : file_(file) {}
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;
    ~LineReader() { std::free(buffer_); }

    bool next(Span *line) {
        const ssize_t length = getline(&buffer_, &capacity_, file_);
        if (length < 0) {
            return false;
        }
        *line = Span{buffer_, static_cast<size_t>(length)};
        return true;
    }

  private:
    FILE *file_;
    char *buffer_ = nullptr;
    size_t capacity_ = 0;
};

bool is_header_of(const Span &line, const char *section) {
    if (!line.starts_with('[')) {
        return false;
    }
    const char *close = line.find(']');
    if (close == nullptr) {
        return false;
    }
    const Span name{line.text + 1, static_cast<size_t>(close - line.text) - 1};
    return name.length <= max_section_length && name.equals(section);
}

/** True when the line is `key=value` and ends in a newline; `value` is the text between the two. */
bool is_entry_of(const Span &line, const char *key, Span *value) {
    const char *equals_sign = line.find('=');
    if (equals_sign == nullptr || line.text[line.length - 1] != '\n') {
        return false;
    }
    const Span name{line.text, static_cast<size_t>(equals_sign - line.text)};
    if (name.length > max_key_length || !name.equals(key)) {
        return false;
    }
    *value = Span{equals_sign + 1, line.length - name.length - 2};
    return true;
}

int copy_value(const Span &value, char *out, size_t out_size) {
    if (value.length > out_size) {
        return TAVRIX_ERR_BUFFER_SPACE;
    }
    // A value of exactly out_size characters leaves no terminator: callers pass one byte less than they have.
    std::memset(out, 0, out_size);
    std::memcpy(out, value.text, value.length);
    return TAVRIX_OK;
}

bool enter_section(LineReader &lines, const char *section) {
    Span line{};
    while (lines.next(&line)) {
        if (is_header_of(line, section)) {
            return true;
        }
    }
    return false;
}

} // namespace

int tavrix_conf_parser_parse(const char *path, const char *section, const char *key, char *out, int out_size) {
    if (path == nullptr || section == nullptr || key == nullptr || out == nullptr) {
        return TAVRIX_ERR_NULL_INPUT;
    }
    if (out_size < 1) {
        return TAVRIX_ERR_PARAMETER;
    }
    const tavrix::File file(std::fopen(path, "re"));
    if (!file) {
        return TAVRIX_ERR_FILE_OPEN;
    }
    LineReader lines(file.get());
    if (!enter_section(lines, section)) {
        return TAVRIX_ERR_PARAMETER_NOT_FOUND;
    }
    Span line{};
    Span value{};
    // Any further header ends the search, even one of the same section.
    while (lines.next(&line) && !line.starts_with('[')) {
        if (!line.starts_with('#') && is_entry_of(line, key, &value)) {
            return copy_value(value, out, static_cast<size_t>(out_size));
        }
    }
    return TAVRIX_ERR_PARAMETER_NOT_FOUND;
}
