#include "support/log_capture.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include <sys/mman.h>
#include <unistd.h>

#include "support/json.h"
#include "tavrix_lsyslog.h"

namespace support {

namespace {

constexpr char daemon_under_test[] = "unit-test";

/** Length of "[2024-05-01 13:45:12.042] " in the C locale; 0 when the text at `at` is no time stamp. */
size_t time_stamp_length(const std::string &text, size_t at) {
    static const std::string shape = "[dddd-dd-dd dd:dd:dd.ddd] ";
    if (text.size() - at < shape.size()) {
        return 0;
    }
    for (size_t i = 0; i < shape.size(); ++i) {
        const char c = text[at + i];
        const bool fits = shape[i] == 'd' ? (c >= '0' && c <= '9') : c == shape[i];
        if (!fits) {
            return 0;
        }
    }
    return shape.size();
}

LogLine take_apart(const std::string &record) {
    LogLine line;
    const size_t tag_at = 1;
    const size_t tag_end = record.find("] [", tag_at);
    line.tag = record.substr(tag_at, tag_end - tag_at);
    const size_t source_at = tag_end + 3;
    const size_t source_end = record.find("] ", source_at);
    const std::string source = record.substr(source_at, source_end - source_at);
    line.message = record.substr(source_end + 2);
    const size_t colon = source.find(": ");
    line.daemon = source.substr(0, colon);
    if (colon != std::string::npos) {
        const size_t number = source.rfind(':');
        line.file = source.substr(colon + 2, number - colon - 2);
        line.line = std::atoi(source.c_str() + number + 1);
    }
    return line;
}

} // namespace

std::string tag_of(Level level) {
    static const std::array<const char *, 7> tags = {"UNKNW", "CONF ", "ERROR", "WARN ", "INFO ", "DEBUG", "VERB "};
    return tags.at(static_cast<size_t>(level));
}

std::time_t wall_clock() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

void set_log_level(const std::string &word) {
    std::ofstream("tavrix_lsyslog.conf") << "[logging_levels]\n" << daemon_under_test << "=" << word << "\n";
    const StderrCapture confirmation;
    tavrix_lsyslog_init(daemon_under_test);
}

StderrCapture::StderrCapture() : saved_(dup(STDERR_FILENO)), file_(memfd_create("stderr", MFD_CLOEXEC)) {
    if (saved_ < 0 || file_ < 0 || dup2(file_, STDERR_FILENO) < 0) {
        throw std::runtime_error("cannot capture standard error");
    }
}

StderrCapture::~StderrCapture() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    close(file_);
}

std::string StderrCapture::text() const {
    const off_t size = lseek(file_, 0, SEEK_END);
    std::string text(static_cast<size_t>(size), '\0');
    const ssize_t got = pread(file_, text.data(), text.size(), 0);
    text.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return text;
}

void StderrCapture::clear() {
    if (ftruncate(file_, 0) != 0 || lseek(file_, 0, SEEK_SET) != 0) {
        throw std::runtime_error("cannot clear the captured text");
    }
}

void LogCapture::begin(const std::string &level_word) {
    set_log_level(level_word);
    capture_.clear();
}

std::vector<LogLine> LogCapture::lines() const { return parse_log(text()); }

std::string LogCapture::first() const { return silent() ? "(silent)" : lines().front().whole(); }

std::string LogCapture::last() const { return silent() ? "(silent)" : lines().back().whole(); }

int LogCapture::count(Level level, const std::string &unit, const std::string &message) const {
    int found = 0;
    for (const LogLine &line : lines()) {
        if (line.tag == tag_of(level) && line.message == message && (line.file.empty() || line.file == unit)) {
            ++found;
        }
    }
    return found;
}

Lines LogCapture::sequence() const {
    Lines entries;
    for (const LogLine &line : lines()) {
        const bool ended = !line.message.empty() && line.message.back() == '\n';
        entries.push_back(line.tag + "|" +
                          (ended ? line.message.substr(0, line.message.size() - 1) : line.message + " (no line end)"));
    }
    return entries;
}

Lines LogCapture::validated() const {
    Lines announced;
    for (const LogLine &line : lines()) {
        if (line.file == "tavrix_validation" && line.message.rfind("Validating ", 0) == 0) {
            announced.push_back(line.message.substr(11, line.message.find(':') - 11));
        }
    }
    return announced;
}

testing::AssertionResult LogCapture::says(const std::string &part) const { return holds(text(), part); }

testing::AssertionResult LogCapture::said(const Lines &expected) const {
    const Lines entries = sequence();
    return entries == expected ? testing::AssertionSuccess()
                               : testing::AssertionFailure() << "the log says " << testing::PrintToString(entries)
                                                             << "\n  and not " << testing::PrintToString(expected);
}

std::vector<LogLine> parse_log(const std::string &text) {
    std::vector<LogLine> lines;
    size_t at = 0;
    while (at < text.size()) {
        const size_t stamp = time_stamp_length(text, at);
        size_t end = at + 1;
        while (end < text.size() && time_stamp_length(text, end) == 0) {
            ++end;
        }
        if (stamp > 0) {
            lines.push_back(take_apart(text.substr(at + stamp, end - at - stamp)));
        } else if (!lines.empty()) {
            lines.back().message += text.substr(at, end - at);
        }
        at = end;
    }
    return lines;
}

} // namespace support
