/**
 * The fields that follow a pattern, each with valid values and the characters that it is made of or that come close.
 */
#ifndef TAVRIX_TESTS_SUPPORT_PATTERN_FIELDS_H
#define TAVRIX_TESTS_SUPPORT_PATTERN_FIELDS_H

#include <string>
#include <vector>

namespace support {

struct PatternField {
    const char *name;
    const char *label; ///< as the log shows it
    int (*validate)(const char *);
    std::vector<std::string> valid;
    std::string alphabet;
};

const std::vector<PatternField> &pattern_fields();

} // namespace support

#endif
