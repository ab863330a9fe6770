#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Lines = std::vector<std::string>;

/** What a command prints, sorted; there is always something. */
Lines lines_of(const std::string &command) {
    Lines lines;
    FILE *pipe = popen(command.c_str(), "r");
    char line[1024];
    while (pipe != nullptr && std::fgets(line, sizeof line, pipe) != nullptr) {
        lines.emplace_back(line, std::string(line).find_last_not_of('\n') + 1);
    }
    EXPECT_TRUE(pipe != nullptr && pclose(pipe) == 0 && !lines.empty()) << command;
    std::sort(lines.begin(), lines.end());
    return lines;
}

/** The last word of each line but for the version itself, and without a version behind an at sign. */
Lines symbols(const std::string &option, const std::string &library = LIBRARY) {
    return lines_of(NM " -D " + option + " " + library +
                    R"( | awk '$(NF - 1) != "A" { sub(/@.*/, "", $NF); print $NF }')");
}

/** What a library says in its dynamic section under a tag, such as (NEEDED). */
Lines said_under(const std::string &tag, const std::string &library) {
    return lines_of(READELF " -d " + library + " | sed -n 's/.*(" + tag + R"().*\[\(.*\)\].*/\1/p')");
}

/** The functions that the kit's header declares. */
Lines declared_by_the_kit() {
    return lines_of(R"(sed -n 's/^TAVRIX_SERVICE_API [^(]*[ *]\([a-z0-9_]*\)(.*/\1/p' )" KIT_HEADER);
}

bool starts_with(const std::string &text, const char *begin) { return text.rfind(begin, 0) == 0; }

} // namespace

TEST(Interface, ExportsThePinnedNamesAndNoOther) {
    const Lines pinned = lines_of("cat " TAVRIX_EXPORTED_SYMBOLS);
    ASSERT_EQ(pinned.size(), 219U);
    EXPECT_EQ(symbols("--defined-only"), pinned);
}

TEST(Interface, NeedsTheFourLibrariesAndTheCLibraryAlone) {
    const Lines wanted = {"libc.so.6",       "libjansson.so.4", "libm.so.6",
                          "libnanomsg.so.5", "libpcre.so.3",    "libsqlite3.so.0"};
    EXPECT_EQ(said_under("NEEDED", LIBRARY), wanted);
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

TEST(Interface, AndTheServiceKitCarryTheirNamesAndVersions) {
    EXPECT_EQ(said_under("SONAME", LIBRARY), Lines{"libtavrix.so.1"});
    EXPECT_EQ(said_under("SONAME", KIT_LIBRARY), Lines{"libtavrix_service.so.1"});
}

TEST(ServiceKit, ExportsWhatItsHeaderDeclaresAndNothingElse) {
    ASSERT_GT(declared_by_the_kit().size(), 40U);
    EXPECT_EQ(symbols("--defined-only", KIT_LIBRARY), declared_by_the_kit());
}

TEST(ServiceKit, NeedsTheLibraryAndWhatItsLoopIsMadeOf) {
    const Lines wanted = {"libc.so.6", "libevent_core-2.1.so.7", "libjansson.so.4", "libnanomsg.so.5",
                          "libtavrix.so.1"};
    EXPECT_EQ(said_under("NEEDED", KIT_LIBRARY), wanted);
}
