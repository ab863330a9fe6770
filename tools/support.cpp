#include "support.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "common/message.h"
#include "common/text.h"

namespace tavrixctl {

namespace {

FILE *diagnostics = stderr;
bool is_silent = false;

volatile std::sig_atomic_t requested = 0;
int stop_pipe[2] = {-1, -1};

void request_stop(int /*signal*/) {
    requested = 1;
    if (write(stop_pipe[1], "", 1) < 0) {
        // A full pipe is readable just as well.
    }
}

__attribute__((format(printf, 1, 0))) void complain_with(const char *format, va_list args) {
    if (!is_silent) {
        std::fputs("tavrixctl: ", diagnostics);
        std::vfprintf(diagnostics, format, args);
        std::fputc('\n', diagnostics);
    }
}

} // namespace

int Deadline::left_ms() const {
    const std::chrono::duration<double, std::milli> left = end_ - std::chrono::steady_clock::now();
    return left.count() <= 0 ? 0 : static_cast<int>(std::ceil(std::min(left.count(), 1e9)));
}

Deadline Deadline::later(double seconds) const {
    Deadline other = *this;
    other.end_ +=
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
    return other;
}

void silence_library_log() {
    const int terminal = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    FILE *stream = terminal < 0 ? nullptr : fdopen(terminal, "w");
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (stream == nullptr || nowhere < 0) {
        return;
    }
    setvbuf(stream, nullptr, _IOLBF, 0);
    dup2(nowhere, STDERR_FILENO);
    close(nowhere);
    diagnostics = stream;
}

Silence::Silence() { is_silent = true; }

Silence::~Silence() { is_silent = false; }

void complain(const char *format, ...) {
    va_list args;
    va_start(args, format);
    complain_with(format, args);
    va_end(args);
}

int fail(int status, const char *format, ...) {
    va_list args;
    va_start(args, format);
    complain_with(format, args);
    va_end(args);
    return status;
}

void tell(const std::string &line) {
    std::fputs((line + "\n").c_str(), diagnostics);
    std::fflush(diagnostics);
}

bool stop_on_signals() {
    if (pipe2(stop_pipe, O_NONBLOCK | O_CLOEXEC) != 0) {
        complain("cannot watch for signals: %s", std::strerror(errno));
        return false;
    }
    struct sigaction action {};
    action.sa_handler = request_stop; // without SA_RESTART: output that waits for its reader has to come back too
    return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

bool stop_requested() { return requested != 0; }

int stop_descriptor() { return stop_pipe[0]; }

void sleep_unless_stopped(double seconds) {
    const Deadline deadline(seconds);
    pollfd stopping{stop_pipe[0], POLLIN, 0};
    while (!stop_requested() && !deadline.passed()) {
        poll(&stopping, 1, deadline.left_ms());
    }
}

std::string text_or_stdin(const std::string &text) {
    if (text != "-") {
        return text;
    }
    return std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
}

Json make_request(const std::string &method, Json params, const std::string &id) {
    return id.empty() ? tavrix::make_notification(method.c_str(), params.release())
                      : tavrix::make_request(method.c_str(), params.release(), json_string(id.c_str()));
}

std::string request_text(const json_t *request) {
    const Text text(json_dumps(request, JSON_COMPACT));
    return text ? text.get() : "";
}

std::string render(const json_t *value, JsonStyle style) {
    const bool pretty = style == JsonStyle::pretty || (style == JsonStyle::automatic && isatty(STDOUT_FILENO) != 0);
    const Text text(json_dumps(value, JSON_ENCODE_ANY | JSON_ENSURE_ASCII | (pretty ? JSON_INDENT(2) : JSON_COMPACT)));
    std::string safe = text ? text.get() : "";
    // The one control character that is ASCII and that JSON leaves as it is.
    for (size_t at = 0; (at = safe.find('\x7f', at)) != std::string::npos;) {
        safe.replace(at, 1, "\\u007F");
    }
    return safe;
}

std::string printable(const std::string &text) {
    std::string safe(text.size() * tavrix::escaped_size + tavrix::printable_margin, '\0');
    safe.resize(tavrix::make_printable(text.data(), text.size(), safe.data(), safe.size()));
    return safe;
}

bool print_line(const std::string &line) {
    const std::string text = line + "\n";
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        complain("cannot write to standard output");
        return false;
    }
    return true;
}

bool print_lines(const std::vector<std::string> &lines) { return std::all_of(lines.begin(), lines.end(), print_line); }

bool read_file(const std::string &path, std::string *text) {
    std::ifstream file(path, std::ios::binary);
    text->assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return file.is_open() && !file.bad();
}

std::string text_of(const json_t *object, const char *key) {
    const json_t *text = json_object_get(object, key);
    return json_is_string(text) ? std::string(json_string_value(text), json_string_length(text)) : "";
}

std::vector<const json_t *> elements_of(const json_t *object, const char *key) {
    std::vector<const json_t *> elements;
    size_t index = 0;
    const json_t *element = nullptr;
    json_array_foreach(json_object_get(object, key), index, element) { elements.push_back(element); }
    return elements;
}

std::vector<std::pair<std::string, const json_t *>> members_of(const json_t *object) {
    std::vector<std::pair<std::string, const json_t *>> members;
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(const_cast<json_t *>(object), key, value) { members.emplace_back(key, value); } // as it is
    return members;
}

} // namespace tavrixctl
