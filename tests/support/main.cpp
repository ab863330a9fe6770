/*
 * Every test program runs in a private working directory: the libraries of a test build name their fixed files
 * relative to it, so nothing of the machine is read or written.
 */
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    const char *base = std::getenv("TMPDIR");
    std::string folder = std::string(base != nullptr ? base : "/tmp") + "/tavrix-test-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr || chdir(folder.c_str()) != 0) {
        std::perror("private working directory");
        return EXIT_FAILURE;
    }
    const int result = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return result;
}
