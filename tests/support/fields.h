/**
 * The fields of requests, as the unit, fault, thread, client and fuzz programs see them: one table, which
 * unit.fields holds against the exported symbols. It is independent of the library's own table.
 */
#ifndef TAVRIX_TESTS_SUPPORT_FIELDS_H
#define TAVRIX_TESTS_SUPPORT_FIELDS_H

#include <string>
#include <vector>

#include <jansson.h>

namespace support {

struct Field {
    const char *name; ///< as in the names of its functions, and for the client
    // Null where the field has no such function.
    int (*read_text)(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size);
    int (*read_number)(json_t *params, json_t **debug_message, const char *key, int *out);
    int (*read_list)(json_t *params, json_t **debug_message, const char *key);
    int (*validate)(const char *value);
    int (*validate_number)(int value);
    std::vector<std::string> valid;
    std::string invalid; ///< what the validator refuses, if there is such a value
    int verdict;         ///< with this
    // Of a field that follows a pattern.
    const char *label;    ///< as the log shows it
    std::string alphabet; ///< the characters that it is made of, or that come close
    int min_length;
    int max_length; ///< 0: no bounds

    bool has_reader() const { return read_text != nullptr || read_number != nullptr || read_list != nullptr; }
    bool has_validator() const { return validate != nullptr || validate_number != nullptr; }
    /** Reads by whichever reader there is; `out` is for a text. */
    int read(json_t *params, json_t **debug_message, const char *key, char *out, size_t out_size) const;
    /** Validates by whichever validator there is. */
    int judge(const std::string &value) const;
    /** What the bounds say of a value: TAVRIX_INVALID_TOO_SHORT, TAVRIX_INVALID_TOO_LONG, or TAVRIX_VALID. */
    int judge_length(const std::string &value) const;
    /** {"k": value} */
    std::string params(const std::string &value) const;
};

const std::vector<Field> &fields();
/** The row of that name; throws when there is none. */
const Field &field(const std::string &name);
/** Those of them that follow a pattern. */
const std::vector<Field> &pattern_fields();

} // namespace support

#endif
