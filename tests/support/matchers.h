/**
 * How a test expects a program to have ended, for EXPECT_THAT.
 */
#ifndef TAVRIX_TESTS_SUPPORT_MATCHERS_H
#define TAVRIX_TESTS_SUPPORT_MATCHERS_H

#include <ostream>
#include <string>

#include <gmock/gmock.h>

#include "support/process.h"

namespace support {

inline void PrintTo(const Finished &finished, std::ostream *out) {
    *out << "status " << finished.status << "\n" << finished.output << finished.diagnostics;
}

using TextMatcher = testing::Matcher<std::string>;

inline testing::Matcher<const Finished &> ends(int status, const TextMatcher &output = testing::_,
                                               const TextMatcher &diagnostics = testing::_) {
    return testing::AllOf(testing::Field("status", &Finished::status, status),
                          testing::Field("output", &Finished::output, output),
                          testing::Field("diagnostics", &Finished::diagnostics, diagnostics));
}

/** It has ended well, with nothing but this. */
inline testing::Matcher<const Finished &> prints(const TextMatcher &output) { return ends(0, output, ""); }

/** It has ended with nothing but this diagnostic. */
inline testing::Matcher<const Finished &> fails(int status, const TextMatcher &diagnostics) {
    return ends(status, "", diagnostics);
}

} // namespace support

#endif
