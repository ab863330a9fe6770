/**
 * Makes each allocation and each system call of the library fail once.
 *
 *     each_failure([](Fault &fault) {
 *         char *text = nullptr;
 *         fault.expect(-1, 0, [&] { return tavrix_jrpc_parse_msg("a|b", 3, &text); });
 *         free(text);
 *     });
 *
 * Counted are the library's own calls (see CMakeLists.txt for the list), and what Jansson and PCRE allocate. Jansson's
 * parser and printer count as one call each: with a failure inside, the one crashes and the other leaves a key out.
 * What a test itself calls is not counted.
 */
#ifndef TAVRIX_TESTS_FAULT_FAULTS_H
#define TAVRIX_TESTS_FAULT_FAULTS_H

#include <cerrno>
#include <functional>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace fault {

class Fault {
  public:
    explicit Fault(int number, int reason = ENOMEM) : number_(number), reason_(reason) {}

    /** Runs the library's code; its call of this fault's number fails. */
    template <class Code>
    auto in(Code code) {
        const Armed armed(this);
        return code();
    }
    /** The code's status: `failed` when its call has failed, else `passed`. */
    template <class Code>
    void expect(int failed, int passed, Code code) {
        const int rc = in(code);
        EXPECT_EQ(rc, happened() ? failed : passed) << function_;
    }

    /** Whether the call was reached, and so has failed. */
    bool happened() const { return remaining_ == 0; }
    /** The function that failed. */
    const std::string &function() const { return function_; }
    bool was(const std::string &function) const { return function_ == function; }

    /** For the wrappers: counts a call, true when it is the one to fail. */
    static bool fails(const char *function);

    /** For the wrappers: nothing is counted for as long as it lives. */
    class Truce {
      public:
        Truce();
        ~Truce();
        Truce(const Truce &) = delete;
        Truce &operator=(const Truce &) = delete;

      private:
        Fault *fault_;
    };

  private:
    /** The fault is in force for as long as it lives. */
    struct Armed {
        explicit Armed(Fault *fault);
        ~Armed();
        Armed(const Armed &) = delete;
        Armed &operator=(const Armed &) = delete;
    };

    int number_;
    int reason_; ///< errno of the failure
    int remaining_ = -1;
    std::string function_;
};

/**
 * Runs the attempt with the first call failing, then with the second, until an attempt gets through with none. After
 * each of them as many descriptors are open, and as many of Jansson's and PCRE's blocks in use, as before.
 *
 * @param reason what errno says of the failure
 * @return the functions that have failed
 */
std::set<std::string> each_failure(const std::function<void(Fault &fault)> &attempt, int reason = ENOMEM);
/** Fails the test when one of the functions is not among those that have failed: the loop would prove nothing of it. */
void expect_reached(const std::set<std::string> &failed, const std::set<std::string> &functions);

} // namespace fault

#endif
