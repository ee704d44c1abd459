// GetInstallPath: KELP_INSTALL_PATH, the runtime library's directory, sizes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "queue.h"

namespace {

class InstallPathTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        if (const char *v = std::getenv("KELP_INSTALL_PATH"))
            old_ = v;
    }
    void TearDown() override
    {
        if (old_) {
            setenv("KELP_INSTALL_PATH", old_->c_str(), 1);
        } else {
            unsetenv("KELP_INSTALL_PATH");
        }
    }
    std::optional<std::string> old_;
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
