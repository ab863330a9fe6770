/**
 * What the verbs share: deadlines, JSON in and out, diagnostics, and the orderly end of those that go on until a
 * signal.
 */
#ifndef TAVRIX_TOOLS_SUPPORT_H
#define TAVRIX_TOOLS_SUPPORT_H

#include <chrono>
#include <string>
#include <vector>

#include <jansson.h>

#include "common/handles.h"
#include "common/names.h"
#include "verbs.h"

namespace tavrixctl {

namespace names = tavrix::names;
using tavrix::Json;
using tavrix::Text;

/** Longer than anybody waits. */
constexpr double for_ever_s = 1e9;

/** A point in time to wait until. */
class Deadline {
  public:
    explicit Deadline(double seconds)
        : end_(std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                      std::chrono::duration<double>(seconds))) {}
    /** Milliseconds left, rounded up, never below 0; fits poll. */
    int left_ms() const;
    bool passed() const { return left_ms() == 0; }
    Deadline later(double seconds) const;

  private:
    std::chrono::steady_clock::time_point end_;
};

/**
 * Keeps the library's log lines off the terminal: standard error is the logger's, so diagnostics get a stream of their
 * own and the logger's output goes nowhere.
 */
void silence_library_log();

/** Prints "tavrixctl: ..." as a diagnostic. */
void complain(const char *format, ...) __attribute__((format(printf, 1, 2)));
/** The same, and gives the exit status back. */
int fail(int status, const char *format, ...) __attribute__((format(printf, 2, 3)));

/** Prints a line beside the results, where the diagnostics go. */
void tell(const std::string &line);

/** While one lives nothing is complained about: for what is tried again. */
class Silence {
  public:
    Silence();
    Silence(const Silence &) = delete;
    Silence &operator=(const Silence &) = delete;
    ~Silence();
};

/** From now on SIGINT and SIGTERM only ask for the end. Complains and returns false when they cannot be watched. */
bool stop_on_signals();

bool stop_requested();

/** Readable once a stop is asked for, so that a signal just before a poll is not slept over; -1 when nobody watches. */
int stop_descriptor();

/** Sleeps so long, or until a stop is asked for. */
void sleep_unless_stopped(double seconds);

/** The text itself, or all of standard input when it is "-". */
std::string text_or_stdin(const std::string &text);

/** A request or, with an empty id, a notification. */
Json make_request(const std::string &method, Json params, const std::string &id);

/** The request's text as it is sent. */
std::string request_text(const json_t *request);

/** The value's text for standard output: whatever stands in it, it is printable ASCII, and the same value when read. */
std::string render(const json_t *value, JsonStyle style);

/** What others said: it must not steer a terminal. */
std::string printable(const std::string &text);

/** Writes one line to standard output; false when it could not be written. */
bool print_line(const std::string &line);
bool print_lines(const std::vector<std::string> &lines);
/** The exit status of a verb whose last step was to print. */
inline int printed(bool done) { return done ? exit_result : exit_error_response; }

/** All of a file; false, with errno, when it cannot be read. */
bool read_file(const std::string &path, std::string *text);

/** The object's text member; empty when it is not a text. */
std::string text_of(const json_t *object, const char *key);

/** The elements of a member; none when it is not an array. */
std::vector<const json_t *> elements_of(const json_t *object, const char *key);

/** The object's members, or those of one member; none when it is not an object. */
std::vector<std::pair<std::string, const json_t *>> members_of(const json_t *object);
inline auto members_of(const json_t *object, const char *key) { return members_of(json_object_get(object, key)); }

} // namespace tavrixctl

#endif
