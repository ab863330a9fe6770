/**
 * Captures standard error and reads it as log lines.
 *
 *     LogCapture log("verbose");            // sets the level, captures from here on
 *     tavrix_mq_socket_init(0, &sock);
 *     EXPECT_TRUE(log.has(debug, "tavrix_mq", "FAIL: SP type outside acceptable range [1, 10]\n"));
 */
#ifndef TAVRIX_TESTS_SUPPORT_LOG_CAPTURE_H
#define TAVRIX_TESTS_SUPPORT_LOG_CAPTURE_H

#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace support {

using Lines = std::vector<std::string>;

/** Seconds by the clock that stamps the lines: time() reads a coarser one, which may still be in the second before. */
std::time_t wall_clock();

enum Level { undef = 0, config = 1, error = 2, warning = 3, info = 4, debug = 5, verbose = 6 };

/** One log line, taken apart. `file` and `line` are empty and 0 for the levels that do not print them. */
struct LogLine {
    std::string tag;
    std::string daemon;
    std::string file;
    int line = 0;
    std::string message; ///< with its newline

    /** Level and message in one, down to the newline: "DEBUG|NULL pointer!\n". */
    std::string whole() const { return tag + "|" + message; }
};

/** The five characters that the logger prints for a level. */
std::string tag_of(Level level);

/** Writes the private logger configuration and loads it: "off", "info", "debug" or "verbose". */
void set_log_level(const std::string &word);

/** Captures standard error from construction until destruction; earlier output is not seen. */
class StderrCapture {
  public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;

    /** Everything written so far. */
    std::string text() const;
    /** Forgets what was written so far. */
    void clear();

  private:
    int saved_;
    int file_;
};

/** A StderrCapture that also sets the level and reads log lines. */
class LogCapture {
  public:
    explicit LogCapture(const std::string &level_word = "verbose") { begin(level_word); }
    /** Sets the level and captures from here on. */
    void begin(const std::string &level_word);

    std::string text() const { return capture_.text(); }
    void clear() { capture_.clear(); }
    std::vector<LogLine> lines() const;
    /** The first line and the last one, level and all; "(silent)" when there is none. */
    std::string first() const;
    std::string last() const;

    /** How many lines carry exactly this level, unit (checked where the level prints it) and message. */
    int count(Level level, const std::string &unit, const std::string &message) const;
    bool has(Level level, const std::string &unit, const std::string &message) const {
        return count(level, unit, message) > 0;
    }
    /**
     * The messages in order, as "TAG|message": for comparing whole sequences. The newline that ends a message is left
     * out, and one that lacks it is told by " (no line end)" behind it.
     */
    Lines sequence() const;
    /** Whether this is the sequence: EXPECT_TRUE(log.said({"DEBUG|NULL pointer!"})). */
    testing::AssertionResult said(const Lines &expected) const;
    /** What was validated, in turn, in the words of the validators' announcements. */
    Lines validated() const;
    bool silent() const { return text().empty(); }
    /** Whether the part stands anywhere in it; a failed expectation shows all that does. */
    testing::AssertionResult says(const std::string &part) const;

  private:
    StderrCapture capture_;
};

/** Splits captured text into log lines; text that belongs to no line is appended to the message before it. */
std::vector<LogLine> parse_log(const std::string &text);

} // namespace support

#endif
