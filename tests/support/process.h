/**
 * Real processes in the tests: daemons and tools, started on private paths, waited for by what they say.
 */
#ifndef TAVRIX_TESTS_SUPPORT_PROCESS_H
#define TAVRIX_TESTS_SUPPORT_PROCESS_H

#include <memory>
#include <string>
#include <vector>

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
    /** Waits for the end: the exit status, or 128 and the signal's number; -1 when it goes on. */
    int wait(int timeout_ms = 30000);
    bool running() { return wait(0) == -1; }
    pid_t pid() const { return pid_; }

  private:
    std::string name_;
    pid_t pid_ = -1;
    int status_ = -1;
};

/** Starts a daemon of the build, with `more` behind its arguments, and waits until it says "NAME ready"; or throws. */
std::unique_ptr<Process> started(const std::string &name, std::vector<std::string> arguments,
                                 const std::vector<std::string> &more = {});

/** What a program that ends by itself left behind. */
struct Finished {
    int status;
    std::string output;
    std::string diagnostics;
};
Finished run(const std::vector<std::string> &arguments);

/** Runs a script in this machine's bash, in which `name` is the build's program at `path`. */
Finished run_script(const std::string &name, const std::string &path, const std::string &script);

/** How often a part stands in a text. */
int times_in(const std::string &text, const std::string &part);

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);

} // namespace support

#endif
