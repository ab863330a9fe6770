/*
 * Leveled logger: one line on standard error per message.
 *
 * Keeps three process-wide variables, unsynchronised: the current level, the log socket and the daemon's name. Each
 * thread keeps the date and time of its last line, to the second.
 */
#include "tavrix_lsyslog.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include <sys/time.h>
#include <unistd.h>

#include "common/log.h"
#include "common/names.h"
#include "tavrix_conf_parser.h"
#include "tavrix_error.h"

namespace {

constexpr char unit_name[] = "tavrix_lsyslog";
constexpr char levels_section[] = "logging_levels";
constexpr size_t message_size = 8001;
constexpr size_t time_size = 81;     // with its bracket
constexpr size_t line_size = BUFSIZ; // what printf gathers of a line before it writes
constexpr int level_word_size = 50;
constexpr useconds_t socket_delay_us = 500000;

int32_t current_level = TAVRIX_LOG_DEBUG;
// Kept because daemons set it; nothing is ever written to it.
[[maybe_unused]] volatile int32_t log_socket = -1;
const char *daemon_name = "unknown";

struct LevelTag {
    const char *tag;
    bool with_place;
};

constexpr LevelTag level_tags[] = {
    {"UNKNW", false}, {"CONF ", false}, {"ERROR", true}, {"WARN ", false},
    {"INFO ", false}, {"DEBUG", true},  {"VERB ", true},
};
constexpr LevelTag unknown_level_tag = {"UNKNW", true};

/** A second in local time, as a line begins with it, for example "[2024-05-01 13:45:12". */
struct Second {
    time_t time;
    size_t length; ///< 0 when there is none yet
    char text[time_size];
};

// The second of the thread's last line: most lines share it, and looking up the time zone costs more than the rest of a
// line. It is looked up once a second, so a change of the zone shows in the next one. The TLS model keeps the dynamic
// loader off the list of libraries that this one needs.
[[gnu::tls_model("initial-exec")]] thread_local Second last_second;

struct LevelWord {
    const char *word;
    int32_t level;
};

// No word for errors alone: support silences a daemon or lets it talk, and never sees errors without the warnings.
constexpr LevelWord level_words[] = {
    {"off", TAVRIX_LOG_UNDEF},
    {"info", TAVRIX_LOG_INFO},
    {"debug", TAVRIX_LOG_DEBUG},
    {"verbose", TAVRIX_LOG_VERBOSE},
};

const LevelTag &tag_of(int level) {
    if (level < TAVRIX_LOG_UNDEF || level > TAVRIX_LOG_VERBOSE) {
        return unknown_level_tag;
    }
    return level_tags[level];
}

std::string_view text_of_second(time_t time) {
    Second &second = last_second;
    if (second.length == 0 || second.time != time) {
        tm local{};
        tzset(); // localtime_r alone would miss a change of the zone
        static_cast<void>(localtime_r(&time, &local));
        second.length = std::strftime(second.text, sizeof second.text, "[%Y-%m-%d %X", &local);
        second.time = time;
    }
    return {second.text, second.length};
}

char digit(unsigned number) { return static_cast<char>('0' + number % 10); }

/** What follows the second, for example ".042] [". */
struct Milliseconds {
    explicit Milliseconds(int64_t microseconds) {
        const unsigned count = static_cast<unsigned>(microseconds / 1000);
        text[1] = digit(count / 100);
        text[2] = digit(count / 10);
        text[3] = digit(count);
    }
    std::string_view view() const { return {text, sizeof text - 1}; }

    char text[8] = ".000] [";
};

/** A line number with the colon before it, for example ":77". */
struct LineNumber {
    explicit LineNumber(int number) {
        unsigned rest = number < 0 ? 0U - static_cast<unsigned>(number) : static_cast<unsigned>(number);
        do {
            *--begin = digit(rest);
            rest /= 10;
        } while (rest > 0);
        if (number < 0) {
            *--begin = '-';
        }
        *--begin = ':';
    }
    std::string_view view() const { return {begin, static_cast<size_t>(text + sizeof text - begin)}; }

    char text[12];
    char *begin = text + sizeof text;
};

/** A line on its way to standard error: written at once when it ends, unless it is longer than printf's own buffer. */
class Line {
  public:
    Line() = default;
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;
    ~Line() {
        flush();
        if (locked_) {
            funlockfile(stderr);
        }
    }

    // Not inline: ten copies would take more room than ten calls take time.
    [[gnu::noinline]] void add(std::string_view piece) {
        if (piece.size() <= sizeof text_ - length_) {
            std::memcpy(text_ + length_, piece.data(), piece.size());
            length_ += piece.size();
        } else {
            add_long(piece);
        }
    }

  private:
    void flush() {
        static_cast<void>(std::fwrite(text_, 1, length_, stderr));
        length_ = 0;
    }
    void add_long(std::string_view piece) {
        if (!locked_) {
            flockfile(stderr); // so that no other line gets between its parts
            locked_ = true;
        }
        flush();
        static_cast<void>(std::fwrite(piece.data(), 1, piece.size(), stderr));
    }

    char text_[line_size];
    size_t length_ = 0;
    bool locked_ = false;
};

const LevelWord *find_level(const char *word) {
    for (const LevelWord &entry : level_words) {
        if (std::strcmp(entry.word, word) == 0) {
            return &entry;
        }
    }
    return nullptr;
}

} // namespace

const char *const tavrix_log_level_strings[7] = {"undef", "config", "error", "warning", "info", "debug", "verbose"};

int tavrix_lsyslog_init(const char *name) {
    if (name != nullptr) {
        daemon_name = name;
    }
    static_cast<void>(tavrix_lsyslog_reload_conf());
    return TAVRIX_OK;
}

int tavrix_lsyslog_shutdown(void) { return TAVRIX_OK; }

int tavrix_lsyslog_set_socket(int fd) {
    log_socket = fd;
    static_cast<void>(usleep(socket_delay_us));
    return TAVRIX_OK;
}

int tavrix_lsyslog_log(int level, const char *file, int line, const char *format, ...) {
    if (level > current_level) {
        return TAVRIX_OK;
    }
    if (format == nullptr) {
        return TAVRIX_ERR_GENERAL;
    }
    char message[message_size];
    va_list args;
    va_start(args, format);
    const int formatted = std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    if (formatted < 0) {
        return TAVRIX_ERR_GENERAL;
    }
    timeval now{};
    static_cast<void>(gettimeofday(&now, nullptr));
    const std::string_view second = text_of_second(now.tv_sec);
    const LevelTag &tag = tag_of(level);
    Line out;
    out.add(second);
    out.add(Milliseconds(now.tv_usec).view());
    out.add(tag.tag);
    out.add("] [");
    out.add(daemon_name);
    if (tag.with_place) {
        out.add(": ");
        out.add(file != nullptr ? file : "(null)");
        out.add(LineNumber(line).view());
    }
    out.add("] ");
    out.add(message);
    return TAVRIX_OK;
}

int tavrix_lsyslog_check_severity(int level) {
    // Compared as unsigned numbers: for a negative level, a caller's mistake, no line is worth building.
    return static_cast<uint32_t>(current_level) >= static_cast<uint32_t>(level) ? 1 : 0;
}

int tavrix_lsyslog_reload_conf(void) {
    // One byte more than the parser may fill: a word of exactly 50 characters comes back without a terminator.
    char word[level_word_size + 1] = "";
    const int rc =
        tavrix_conf_parser_parse(TAVRIX_LSYSLOG_CONF_PATH, levels_section, daemon_name, word, level_word_size);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    const LevelWord *entry = find_level(word);
    if (entry == nullptr) {
        return TAVRIX_ERR_CONF_ENTRY;
    }
    current_level = entry->level;
    LOG_CONFIG("Logging level set to %s.\n", word);
    return TAVRIX_OK;
}

int tavrix_lsyslog_reload_conf_api(json_t * /*params*/, json_t ** /*result*/, json_t ** /*error_data*/) {
    static_cast<void>(tavrix_lsyslog_reload_conf());
    return TAVRIX_OK;
}

int tavrix_lsyslog_is_json_method_lsyslog(const char *method) {
    if (std::strcmp(method, tavrix::names::reload_conf) != 0) {
        return 0;
    }
    static_cast<void>(tavrix_lsyslog_reload_conf());
    return 1;
}
