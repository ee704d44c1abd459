// SMGetIPFQDN: KELP_FQDN, completion from a hosts file, buffer sizes.
#include "support/fqdn.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include "support/env_testing.h"
#include "vcsupt.h"

namespace {

class FqdnEnv : public ::testing::Test {
  protected:
    ScopedEnv saved_{"KELP_FQDN"};
};

TEST_F(FqdnEnv, KelpFqdnIsAnsweredAsItIs)
{
    setenv("KELP_FQDN", "node7.lab.example", 1);
    char buf[64];
    uint32_t size = sizeof buf;
    ASSERT_EQ(SMGetIPFQDN(buf, &size), 0u);
    EXPECT_STREQ(buf, "node7.lab.example");
    EXPECT_EQ(size, 18u);
}

TEST_F(FqdnEnv, ShortBufferAnswers16WithTheSizeNeeded)
{
    setenv("KELP_FQDN", "node7.lab.example", 1);
    char buf[8];
    uint32_t size = sizeof buf;
    EXPECT_EQ(SMGetIPFQDN(buf, &size), 16u);
    EXPECT_EQ(size, 18u);
    EXPECT_EQ(SMGetIPFQDN(buf, nullptr), 5u);
}

TEST_F(FqdnEnv, WithoutKelpFqdnTheHostNameIsAnswered)
{
    unsetenv("KELP_FQDN");
    char host[256] = {};
    ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
    char buf[512];
    uint32_t size = sizeof buf;
    ASSERT_EQ(SMGetIPFQDN(buf, &size), 0u);
    // The answer is the host name itself or that name completed with a domain.
    std::string answer = buf, h = host;
    EXPECT_EQ(answer.compare(0, h.size(), h), 0) << answer;
}

class HostsFileTest : public ::testing::Test {
  protected:
    void write(const std::string &text)
    {
        path_ = ::testing::TempDir() + "hosts_" + std::to_string(getpid());
        std::ofstream(path_) << text;
    }
    void TearDown() override
    {
        if (!path_.empty())
            std::remove(path_.c_str());
    }
    std::string path_;
};

TEST_F(HostsFileTest, CompletesTheNameFromTheLineThatNamesTheHost)
{
    write("127.0.0.1 localhost\n"
          "# 10.0.0.9 vega.wrong.example vega\n"
          "127.0.1.1\tvega.lab.example   vega  # this machine\n");
    EXPECT_EQ(kelp::rt::completeFromHosts("vega", path_), "vega.lab.example");
    EXPECT_EQ(kelp::rt::completeFromHosts("VEGA", path_), "vega.lab.example");
}

TEST_F(HostsFileTest, PrefersTheNameThatExtendsTheHostName)
{
    write("10.1.1.1 other.example vega vega.lab.example\n");
    EXPECT_EQ(kelp::rt::completeFromHosts("vega", path_), "vega.lab.example");
}

TEST_F(HostsFileTest, KeepsTheHostNameWhenNothingCompletesIt)
{
    write("127.0.0.1 localhost\n10.1.1.1 vega\n");
    EXPECT_EQ(kelp::rt::completeFromHosts("vega", path_), "vega");
    EXPECT_EQ(kelp::rt::completeFromHosts("vega", "/nonexistent/hosts"), "vega");
    EXPECT_EQ(kelp::rt::completeFromHosts("vega.already.dotted", path_), "vega.already.dotted");
}

} // namespace
