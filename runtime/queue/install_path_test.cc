// GetInstallPath: KELP_INSTALL_PATH, the runtime library's directory, sizes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "queue.h"
#include "support/env_testing.h"

namespace {

class InstallPathTest : public ::testing::Test {
  protected:
    ScopedEnv saved_{"KELP_INSTALL_PATH"};
};

TEST_F(InstallPathTest, KelpInstallPathIsAnsweredWithoutATrailingSlash)
{
    setenv("KELP_INSTALL_PATH", "/opt/kelp//", 1);
    char buf[64];
    uint32_t size = sizeof buf;
    ASSERT_EQ(GetInstallPath(buf, &size), 0u);
    EXPECT_STREQ(buf, "/opt/kelp");
    EXPECT_EQ(size, 10u);
}

TEST_F(InstallPathTest, ShortBufferAnswers16WithTheSizeNeeded)
{
    setenv("KELP_INSTALL_PATH", "/opt/kelp", 1);
    char buf[9];
    uint32_t size = sizeof buf;
    EXPECT_EQ(GetInstallPath(buf, &size), 16u);
    EXPECT_EQ(size, 10u);
    EXPECT_EQ(GetInstallPath(nullptr, &size), 5u);
    EXPECT_EQ(GetInstallPath(buf, nullptr), 5u);
}

TEST_F(InstallPathTest, WithoutTheVariableItIsTheRuntimeLibrarysDirectory)
{
    unsetenv("KELP_INSTALL_PATH");
    char buf[4096];
    uint32_t size = sizeof buf;
    ASSERT_EQ(GetInstallPath(buf, &size), 0u);
    std::string dir = buf;
    ASSERT_FALSE(dir.empty());
    EXPECT_EQ(dir.front(), '/');
    EXPECT_NE(dir.back(), '/');
    EXPECT_TRUE(std::filesystem::exists(dir + "/libkelpruntime.so")) << dir;
}

} // namespace
