/*
 * Leveled logger: one line on standard error per message.
 *
 * Keeps three process-wide variables, unsynchronised: the current level, the log socket and the daemon's name.
 */
#include "tavrix_lsyslog.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <sys/time.h>
#include <unistd.h>

#include "internal/log.h"
#include "tavrix_conf_parser.h"
#include "tavrix_error.h"

// The appliance's path; a build for tests names a private one.
#ifndef TAVRIX_LSYSLOG_CONF_PATH
#define TAVRIX_LSYSLOG_CONF_PATH "/etc/tavrix_lsyslog.conf"
#endif

namespace {

constexpr char unit_name[] = "tavrix_lsyslog";
constexpr char levels_section[] = "logging_levels";
constexpr char reload_method[] = "logger.ReloadConf";
constexpr size_t message_size = 8001;
constexpr size_t time_size = 80;
constexpr size_t milliseconds_size = 8;
constexpr int level_word_size = 50;
constexpr useconds_t socket_delay_us = 500000;

int32_t current_level = TAVRIX_LOG_DEBUG;
// Kept for the daemons; nothing is ever written to it.
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

struct LevelWord {
    const char *word;
    int32_t level;
};

// The file can switch a daemon off or between the three chatty levels only: meant, errors cannot be selected alone.
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

/** Writes the local date and time with milliseconds, for example 2024-05-01 13:45:12.042. */
void print_time(char *out, size_t size) {
    timeval now{};
    static_cast<void>(gettimeofday(&now, nullptr));
    tm local{};
    tzset(); // localtime_r alone would miss a change of the zone
    static_cast<void>(localtime_r(&now.tv_sec, &local));
    const size_t length = std::strftime(out, size - milliseconds_size, "%Y-%m-%d %X", &local);
    const unsigned milliseconds = static_cast<unsigned>(now.tv_usec / 1000) % 1000U;
    static_cast<void>(std::snprintf(out + length, milliseconds_size, ".%03u", milliseconds));
}

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
    char time_text[time_size + milliseconds_size] = "";
    print_time(time_text, sizeof time_text);
    const LevelTag &tag = tag_of(level);
    if (tag.with_place) {
        std::fprintf(stderr, "[%s] [%s] [%s: %s:%d] %s", time_text, tag.tag, daemon_name, file, line, message);
    } else {
        std::fprintf(stderr, "[%s] [%s] [%s] %s", time_text, tag.tag, daemon_name, message);
    }
    return TAVRIX_OK;
}

int tavrix_lsyslog_check_severity(int level) {
    // Compared as unsigned numbers: meant, a negative level is never worth a guarded line.
    return static_cast<uint32_t>(current_level) >= static_cast<uint32_t>(level) ? 1 : 0;
}

int tavrix_lsyslog_reload_conf(void) {
    // One byte more than the parser is told of: a word of exactly 50 characters comes back without a terminator.
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
    if (std::strcmp(method, reload_method) != 0) {
        return 0;
    }
    static_cast<void>(tavrix_lsyslog_reload_conf());
    return 1;
}
