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
std::vector<std::string> symbols(const std::string &option, const std::string &library = LIBRARY) {
    std::vector<std::string> names;
    for (const std::string &line : lines_of(std::string(NM) + " -D " + option + " " + library)) {
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

/** The libraries that a library names as its needs. */
std::vector<std::string> needs_of(const std::string &library) {
    std::vector<std::string> needs;
    for (const std::string &line : lines_of(std::string(READELF) + " -d " + library)) {
        if (line.find("(NEEDED)") != std::string::npos) {
            const size_t begin = line.find('[') + 1;
            needs.push_back(line.substr(begin, line.find(']') - begin));
        }
    }
    std::sort(needs.begin(), needs.end());
    return needs;
}

bool carries_name(const std::string &library, const std::string &name) {
    const auto dynamic = lines_of(std::string(READELF) + " -d " + library);
    return std::any_of(dynamic.begin(), dynamic.end(), [&name](const std::string &line) {
        return line.find("SONAME") != std::string::npos && line.find("[" + name + "]") != std::string::npos;
    });
}

/** The functions that the kit's header declares. */
std::vector<std::string> declared_by_the_kit() {
    std::ifstream header(KIT_HEADER);
    std::vector<std::string> names;
    for (std::string line; std::getline(header, line);) {
        if (!starts_with(line, "TAVRIX_SERVICE_API ")) {
            continue;
        }
        const size_t end = line.find('(');
        const size_t begin = line.find_last_of(" *", end) + 1;
        names.push_back(line.substr(begin, end - begin));
    }
    std::sort(names.begin(), names.end());
    return names;
}

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
    const std::vector<std::string> wanted = {"libc.so.6",       "libjansson.so.4", "libm.so.6",
                                             "libnanomsg.so.5", "libpcre.so.3",    "libsqlite3.so.0"};
    EXPECT_EQ(needs_of(LIBRARY), wanted);
}

TEST(Interface, NeedsNoCppRuntime) {
    for (const char *library : {LIBRARY, KIT_LIBRARY}) {
        for (const std::string &name : symbols("--undefined-only", library)) {
            const bool runtime = starts_with(name, "_Z") || starts_with(name, "__gxx") ||
                                 (starts_with(name, "__cxa") && name != "__cxa_finalize" && name != "__cxa_atexit");
            // The sanitizers' own hooks are no part of the library.
            EXPECT_FALSE(runtime && !(SANITIZED && starts_with(name, "__"))) << library << " " << name;
        }
    }
}

TEST(Interface, CarriesItsNameAndVersion) { EXPECT_TRUE(carries_name(LIBRARY, "libtavrix.so.1")); }

TEST(ServiceKit, ExportsWhatItsHeaderDeclaresAndNothingElse) {
    ASSERT_GT(declared_by_the_kit().size(), 40U);
    EXPECT_EQ(symbols("--defined-only", KIT_LIBRARY), declared_by_the_kit());
}

TEST(ServiceKit, NeedsTheLibraryAndWhatItsLoopIsMadeOf) {
    const std::vector<std::string> wanted = {"libc.so.6", "libevent_core-2.1.so.7", "libjansson.so.4",
                                             "libnanomsg.so.5", "libtavrix.so.1"};
    EXPECT_EQ(needs_of(KIT_LIBRARY), wanted);
}

TEST(ServiceKit, CarriesItsNameAndVersion) { EXPECT_TRUE(carries_name(KIT_LIBRARY, "libtavrix_service.so.1")); }
