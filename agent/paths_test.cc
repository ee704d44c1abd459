#include "paths.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

TEST(Paths, AStateDirThatCannotTakeAFileIsRefusedAndNothingIsLeft)
{
    char pattern[] = "/tmp/kelp-paths-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string dir = pattern;
    std::ofstream(dir + "/file") << "x";
    const struct {
        std::string stateDir;
        std::string error; // "" when writable
    } cases[] = {
        {dir, ""},
        {dir + "/missing",
         "the state dir " + dir + "/missing cannot be written: No such file or directory"},
        {dir + "/file", "the state dir " + dir + "/file cannot be written: Not a directory"},
    };
    for (const auto &c : cases) {
        std::string error;
        EXPECT_EQ(checkStateDirWritable(c.stateDir, &error), c.error.empty()) << c.stateDir;
        EXPECT_EQ(error, c.error);
    }
    // The probe file is gone: only what the test made is there.
    size_t entries = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(dir)) {
        entries++;
    }
    EXPECT_EQ(entries, 1u);
    std::filesystem::remove_all(dir);
}

} // namespace
} // namespace kelp::agent
