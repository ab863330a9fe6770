/**
 * Programs in the tests: the client, with words or by its name in a script, and how a program is expected to have
 * ended.
 */
#ifndef TAVRIX_TESTS_SUPPORT_MATCHERS_H
#define TAVRIX_TESTS_SUPPORT_MATCHERS_H

#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "support/process.h"

namespace support {

inline Finished ctl(std::vector<std::string> words, const std::vector<std::string> &more = {}) {
    words.insert(words.begin(), TAVRIXCTL);
    return run(words, more);
}

/** The client, once it has said this. */
inline std::unique_ptr<Process> ctl_that_says(const std::string &said, std::vector<std::string> words,
                                              const std::vector<std::string> &more = {}) {
    words.insert(words.begin(), TAVRIXCTL);
    return begun("tool", words, more, said);
}

/** Every verb of the client, and none at all. */
inline std::vector<std::string> verbs() { return lines_of("\n" + ctl({"__complete", ""}).output); }

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
