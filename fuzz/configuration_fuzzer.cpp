/*
 * A configuration file, read from memory.
 */
#include "input.h"

#include <sys/mman.h>
#include <unistd.h>

#include "tavrix_conf_parser.h"

namespace {

/** A file of one input, reached by its path. */
struct MemoryFile {
    int fd = memfd_create("configuration", MFD_CLOEXEC);
    MemoryFile(const uint8_t *data, size_t size) { EXPECT(write(fd, data, size) == static_cast<ssize_t>(size)); }
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;
    ~MemoryFile() { close(fd); }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd); }
};

} // namespace

/** The first byte is the size of the value's buffer. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2 || data[0] == 0) {
        return 0;
    }
    const MemoryFile file(data + 1, size - 1);
    const fuzz::Text out(static_cast<char *>(std::malloc(data[0])));
    for (const char *section : {"logging_levels", "a", ""}) {
        static_cast<void>(tavrix_conf_parser_parse(file.path().c_str(), section, "portsd", out.get(), data[0]));
        static_cast<void>(tavrix_conf_parser_parse(file.path().c_str(), section, "k", out.get(), data[0]));
    }
    return 0;
}
