#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<std::string> lines_of(const std::string &command) {
    std::vector<std::string> lines;
    FILE *pipe = popen(command.c_str(), "r");
    char line[1024];
    while (pipe != nullptr && std::fgets(line, sizeof line, pipe) != nullptr) {
        lines.emplace_back(line, std::string(line).find_last_not_of('\n') + 1);
    }
    EXPECT_TRUE(pipe != nullptr && pclose(pipe) == 0) << command;
    return lines;
}

/** The last word of each line, without a version behind an at sign. */
std::vector<std::string> symbols(const std::string &option) {
    std::vector<std::string> names;
    for (const std::string &line : lines_of(std::string(NM) + " -D " + option + " " + LIBRARY)) {
        std::istringstream words(line);
        std::string word;
        std::string kind;
        std::string last;
        while (words >> word) {
            kind = last;
            last = word;
        }
        if (kind != "A") { // the version itself
            names.push_back(last.substr(0, last.find('@')));
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool starts_with(const std::string &text, const char *begin) { return text.rfind(begin, 0) == 0; }

} // namespace

TEST(Interface, ExportsThePinnedNamesAndNoOther) {
    std::vector<std::string> pinned;
    std::ifstream list(SYMBOL_LIST);
    for (std::string name; list >> name;) {
        pinned.push_back(name);
    }
    ASSERT_EQ(pinned.size(), 219U);
    EXPECT_EQ(symbols("--defined-only"), pinned);
}

TEST(Interface, NeedsTheFourLibrariesAndTheCLibraryAlone) {
    std::vector<std::string> needs;
    for (const std::string &line : lines_of(std::string(READELF) + " -d " + LIBRARY)) {
        if (line.find("(NEEDED)") != std::string::npos) {
            const size_t begin = line.find('[') + 1;
            needs.push_back(line.substr(begin, line.find(']') - begin));
        }
    }
    std::sort(needs.begin(), needs.end());
    const std::vector<std::string> wanted = {"libc.so.6",       "libjansson.so.4", "libm.so.6",
                                             "libnanomsg.so.5", "libpcre.so.3",    "libsqlite3.so.0"};
    EXPECT_EQ(needs, wanted);
}

TEST(Interface, NeedsNoCppRuntime) {
    for (const std::string &name : symbols("--undefined-only")) {
        const bool runtime = starts_with(name, "_Z") || starts_with(name, "__gxx") ||
                             (starts_with(name, "__cxa") && name != "__cxa_finalize" && name != "__cxa_atexit");
        // The sanitizers' own hooks are no part of the library.
        EXPECT_FALSE(runtime && !(SANITIZED && starts_with(name, "__"))) << name;
    }
}

TEST(Interface, CarriesItsNameAndVersion) {
    const auto dynamic = lines_of(std::string(READELF) + " -d " + LIBRARY);
    EXPECT_TRUE(std::any_of(dynamic.begin(), dynamic.end(), [](const std::string &line) {
        return line.find("SONAME") != std::string::npos && line.find("[libtavrix.so.1]") != std::string::npos;
    }));
}
