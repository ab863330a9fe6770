#include "support/process.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/bus.h"

// The words before a cross-built program's path, separated by blanks; empty for a native one.
#ifndef TAVRIX_TEST_EMULATOR
#define TAVRIX_TEST_EMULATOR ""
#endif

namespace support {

namespace {

std::vector<std::string> emulated(const std::vector<std::string> &arguments) {
    std::istringstream words(TAVRIX_TEST_EMULATOR);
    std::vector<std::string> all((std::istream_iterator<std::string>(words)), std::istream_iterator<std::string>());
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

} // namespace

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

int count_of(const std::string &text, const std::string &part) {
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

std::string replaced(std::string text, const std::string &part, const std::string &by) {
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += by.size()) {
        text.replace(at, part.size(), by);
    }
    return text;
}

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

void write_file(const std::string &path, const std::string &text) { std::ofstream(path, std::ios::binary) << text; }

Process::Process(const std::string &name, const std::vector<std::string> &arguments, Origin origin) : name_(name) {
    std::vector<std::string> words = origin == Origin::build ? emulated(arguments) : arguments;
    std::vector<char *> argv(words.size() + 1); // the last one is null
    std::transform(words.begin(), words.end(), argv.begin(), [](std::string &word) { return word.data(); });
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    for (const auto &[fd, ending] : {std::pair(STDOUT_FILENO, ".out"), std::pair(STDERR_FILENO, ".log")}) {
        // One of an earlier run must not be read: under an emulator we go on before the child opens its own.
        std::remove((name + ending).c_str());
        posix_spawn_file_actions_addopen(&actions, fd, (name + ending).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    }
    const int rc = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        throw std::runtime_error("cannot start " + arguments[0]);
    }
}

Process::~Process() {
    if (status_ == -1) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

std::string Process::log() const { return read_file(name_ + ".log"); }

std::string Process::output() const { return read_file(name_ + ".out"); }

bool Process::says(const std::string &text, int timeout_ms) const {
    return wait_until([&] { return log().find(text) != std::string::npos; }, timeout_ms);
}

int Process::times_said(const std::string &text) const { return count_of(log(), text); }

bool Process::prints(const std::string &text, int timeout_ms) const {
    return wait_until([&] { return output().find(text) != std::string::npos; }, timeout_ms);
}

void Process::signal(int number) const { kill(pid_, number); }

void Process::stand_still() const {
    signal(SIGSTOP);
    siginfo_t state{};
    waitid(P_PID, static_cast<id_t>(pid_), &state, WSTOPPED);
}

int Process::wait(int timeout_ms) {
    wait_until(
        [&] {
            int status = 0;
            if (status_ == -1 && waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            return status_ != -1;
        },
        timeout_ms);
    return status_;
}

std::unique_ptr<Process> begun(const std::string &name, std::vector<std::string> arguments,
                               const std::vector<std::string> &more, const std::string &said) {
    arguments.insert(arguments.end(), more.begin(), more.end());
    auto process = std::make_unique<Process>(name, arguments);
    if (!process->says(said)) {
        throw std::runtime_error(name + " does not say '" + said + "': " + process->log());
    }
    return process;
}

namespace {

Finished run_to_its_end(const std::vector<std::string> &arguments, Origin origin) {
    static int count = 0;
    Process process("run-" + std::to_string(++count), arguments, origin);
    const int status = process.wait();
    return {status, process.output(), process.log()};
}

} // namespace

Finished run(std::vector<std::string> arguments, const std::vector<std::string> &more) {
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run_to_its_end(arguments, Origin::build);
}

Finished script(const std::string &text) {
    return run_to_its_end({"bash", "-c", "tavrixctl() { " TAVRIX_TEST_EMULATOR " " TAVRIXCTL " \"$@\"; }\n" + text},
                          Origin::machine);
}

} // namespace support
