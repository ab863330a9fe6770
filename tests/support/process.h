/**
 * Real processes in the tests: daemons and tools, started on private paths, waited for by what they say.
 */
#ifndef TAVRIX_TESTS_SUPPORT_PROCESS_H
#define TAVRIX_TESTS_SUPPORT_PROCESS_H

#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/types.h>

namespace support {

/** Whether a program is one of the build, which runs under the build's emulator, or one of this machine. */
enum class Origin { build, machine };

/** A running program; killed and reaped with its scope. */
class Process {
  public:
    /** Starts `arguments[0]`; standard error goes to the file `name`.log, standard output to `name`.out. */
    Process(const std::string &name, const std::vector<std::string> &arguments, Origin origin = Origin::build);
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    ~Process();

    std::string log() const;
    std::string output() const;
    /** Waits until the log holds the text; false when it does not in time. */
    bool says(const std::string &text, int timeout_ms = 30000) const;
    /** How often the log holds the text. */
    int times_said(const std::string &text) const;
    bool prints(const std::string &text, int timeout_ms = 30000) const;
    void signal(int number) const;
    /** Stops it and waits until it has stopped. */
    void stand_still() const;
    /** Waits for the end: the exit status, or 128 and the signal's number; -1 when it goes on. */
    int wait(int timeout_ms = 30000);
    /** The same after a signal. */
    int end_by(int number) {
        signal(number);
        return wait();
    }
    bool running() { return wait(0) == -1; }
    pid_t pid() const { return pid_; }

  private:
    std::string name_;
    pid_t pid_ = -1;
    int status_ = -1;
};

/** Starts a program of the build, with `more` behind its arguments, and waits until it says this; or throws. */
std::unique_ptr<Process> begun(const std::string &name, std::vector<std::string> arguments,
                               const std::vector<std::string> &more, const std::string &said);
/** The same of a daemon, which says "NAME ready". */
inline std::unique_ptr<Process> started(const std::string &name, const std::vector<std::string> &arguments,
                                        const std::vector<std::string> &more = {}) {
    return begun(name, arguments, more, name + " ready");
}

/** While it lives, the process may have this many descriptors; those that are open stay. */
class FewDescriptors {
  public:
    FewDescriptors(const Process &process, rlim_t most) : pid_(process.pid()) {
        prlimit(pid_, RLIMIT_NOFILE, nullptr, &before_);
        const rlimit few{most, before_.rlim_max};
        prlimit(pid_, RLIMIT_NOFILE, &few, nullptr);
    }
    FewDescriptors(const FewDescriptors &) = delete;
    FewDescriptors &operator=(const FewDescriptors &) = delete;
    ~FewDescriptors() { prlimit(pid_, RLIMIT_NOFILE, &before_, nullptr); }

  private:
    pid_t pid_;
    rlimit before_{};
};

/** What a program that ends by itself left behind. */
struct Finished {
    int status;
    std::string output;
    std::string diagnostics;
};
Finished run(std::vector<std::string> arguments, const std::vector<std::string> &more = {});
/** Runs a script in this machine's bash that calls the client by its name. */
Finished script(const std::string &text);

std::vector<std::string> lines_of(const std::string &text);
/** How often a text holds a part. */
int count_of(const std::string &text, const std::string &part);
/** The text with something else in each place of a part. */
std::string replaced(std::string text, const std::string &part, const std::string &by);

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);

} // namespace support

#endif
