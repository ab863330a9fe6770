/**
 * The one way in which a test makes a call of the system, of memory or of a library fail:
 *
 *     const Failing once("socket", 1, EMFILE);   // its first call
 *     const Failing ever("PCRE", 2, ENOMEM, Fault::always); // from its second allocation on
 *
 * and the way in which it makes each one fail in turn:
 *
 *     each_failure([](Fault &fault) {
 *         char *text = nullptr;
 *         fault.expect(TAVRIX_ERR_GENERAL, 0, [&] { return tavrix_jrpc_parse_msg("a|b", 3, &text); });
 *         free(text);
 *     });
 *
 * A function by its name is counted where CMakeLists.txt hands it to tavrix_wrap(), and then the calls of all that is
 * linked statically: the library's, the kit's, and a test's own while a failure is in force. "Jansson", "PCRE",
 * "SQLite" and "libevent" stand for what these allocate. Jansson's parser and printer count as one call each: with a
 * failure inside, the one crashes and the other leaves a key out. nanomsg ends the process when memory runs out, so its
 * allocations are not counted.
 *
 * A test that also looks at the arguments has a wrapper of its own, which asks Fault::fails() as those in faults.cpp
 * do. Programs as they are shipped have no wrappers: their tests take descriptors away with a resource limit. The
 * seams (src/internal/<unit>_seam.h) make nothing fail; they let a test call what a unit does not export.
 */
#ifndef TAVRIX_TESTS_SUPPORT_FAULTS_H
#define TAVRIX_TESTS_SUPPORT_FAULTS_H

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <functional>
#include <set>
#include <string>

namespace fault {

/** Which calls fail and what came of it: in one piece, for the router's lies in a file that its test maps as well. */
struct Plan {
    char of[48];                ///< the function that is counted; empty: every one
    std::atomic<int32_t> first; ///< the numbers of the calls that fail, from 1; 0: none does
    int32_t last;
    int32_t reason; ///< what errno says then, and the function itself where it returns its reason
    std::atomic<int32_t> calls;
    std::atomic<int32_t> failures;
    char failed[48]; ///< the function that failed last
};

constexpr char plan_variable[] = "TAVRIX_TEST_FAULTS"; ///< names the router's file in the environment

class Fault {
  public:
    static constexpr int always = INT_MAX;

    /** The call of this number fails, whichever function's. */
    explicit Fault(int number, int reason = ENOMEM) : Fault("", number, reason) {}
    /** The function's call of this number and those behind it, up to so many times. */
    Fault(const char *function, int number, int reason = ENOMEM, int times = 1);

    /** Runs the code with the fault in force. */
    template <class Code>
    auto in(Code code) {
        plan_.calls = 0;
        plan_.failures = 0;
        const Armed armed(&plan_);
        return code();
    }
    /** The code's status: `failed` when its call has failed, else `passed`. */
    void expect(int failed, int passed, const std::function<int()> &code);

    /** Whether the call was reached, and so has failed. */
    bool happened() const { return plan_.failures > 0; }
    /** The function that failed. */
    std::string function() const { return happened() ? plan_.failed : ""; }
    bool was(const std::string &function) const { return happened() && function == plan_.failed; }

    /** For the wrappers: counts a call, true when it is one to fail. */
    static bool fails(const char *function);

    /** The plan is in force for as long as it lives; with none, nothing is counted. */
    class Armed {
      public:
        explicit Armed(Plan *plan);
        ~Armed();
        Armed(const Armed &) = delete;
        Armed &operator=(const Armed &) = delete;

      private:
        Plan *before_;
    };
    /** Nothing is counted for as long as it lives. */
    struct Truce : private Armed {
        Truce() : Armed(nullptr) {}
    };

  protected:
    Plan plan_{};
};

/** A fault of one function that is in force for as long as it lives. With the number 0 it only counts. */
class Failing : public Fault {
  public:
    explicit Failing(const char *function, int number = 1, int reason = ENOMEM, int times = 1)
        : Fault(function, number, reason, times) {}
    int calls() const { return plan_.calls; }

  private:
    const Armed armed_{&plan_};
};

/** The blocks of Jansson, PCRE and SQLite that are in use. */
int blocks();
/** For allocators that are wrapped: count a block that was taken, or one that goes back, and return it; null is none.
 */
void *taken(void *memory);
void *given_back(void *memory);

/**
 * Runs the attempt with the first call failing, then with the second, until an attempt gets through with none. After
 * each of them as many descriptors are open, and as many blocks in use, as before.
 *
 * @param reason what errno says of the failure
 * @param of     the function whose calls are counted; empty: every one
 * @return the functions that have failed
 */
std::set<std::string> each_failure(const std::function<void(Fault &fault)> &attempt, int reason = ENOMEM,
                                   const char *of = "");
/** The same; the functions are among those that have failed: else the loop would prove nothing of them. */
void each_failure_of(const std::set<std::string> &functions, const std::function<void(Fault &fault)> &attempt,
                     int reason = ENOMEM);
/** Lets SQLite's allocations be counted, once per process; no connection may be open. */
void take_over_sqlite();
/** The same loop with SQLite's allocations, all of those that the attempt makes. */
void each_sqlite_failure(const std::function<void(const Fault &fault)> &attempt);

} // namespace fault

#endif
