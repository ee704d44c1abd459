// The runtime's warnings reach the host's log once it sets one, and stderr
// otherwise.
#include "support/log.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "kelp/runtime.h"

namespace {

std::vector<std::pair<int, std::string>> g_lines;

void collect(int level, const char *line)
{
    g_lines.emplace_back(level, line);
}

class RuntimeLogTest : public ::testing::Test {
  protected:
    void SetUp() override { g_lines.clear(); }
    void TearDown() override
    {
        kelpRuntimeSetLog(nullptr);
        kelpRuntimeSetActivityLog(nullptr);
    }
};

TEST_F(RuntimeLogTest, WarningsAndErrorsGoToTheHostsLogWithTheirLevel)
{
    kelpRuntimeSetLog(collect);
    kelp::rt::logWarning("model %s: line %d", "a.xml", 7);
    kelp::rt::logError("out of memory");
    ASSERT_EQ(g_lines.size(), 2u);
    EXPECT_EQ(g_lines[0],
              std::make_pair(KELP_RUNTIME_LOG_WARNING, std::string("model a.xml: line 7")));
    EXPECT_EQ(g_lines[1], std::make_pair(KELP_RUNTIME_LOG_ERROR, std::string("out of memory")));
}

TEST_F(RuntimeLogTest, WithoutAHostLogALineGoesToStderrWithTheRuntimesPrefix)
{
    testing::internal::CaptureStderr();
    kelp::rt::logWarning("cannot open %s", "x");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kelp: cannot open x\n");
    EXPECT_TRUE(g_lines.empty());
}

TEST_F(RuntimeLogTest, ALongLineIsCutNotOverrun)
{
    kelpRuntimeSetLog(collect);
    const std::string longText(5000, 'x');
    kelp::rt::logWarning("%s", longText.c_str());
    ASSERT_EQ(g_lines.size(), 1u);
    EXPECT_EQ(g_lines[0].second, std::string(1023, 'x'));
}

TEST_F(RuntimeLogTest, ActivityGoesToTheActivityLogOnlyWithItsLevel)
{
    kelpRuntimeSetLog(collect);
    kelp::rt::logNotice("dropped: no activity log");
    EXPECT_TRUE(g_lines.empty());
    kelpRuntimeSetLog(nullptr);
    kelpRuntimeSetActivityLog(collect);
    testing::internal::CaptureStderr();
    kelp::rt::logNotice("kelpctl set: object %u", 12u);
    kelp::rt::logInfo("live rescan: nothing changed");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    ASSERT_EQ(g_lines.size(), 2u);
    EXPECT_EQ(g_lines[0],
              std::make_pair(KELP_RUNTIME_LOG_NOTICE, std::string("kelpctl set: object 12")));
    EXPECT_EQ(g_lines[1],
              std::make_pair(KELP_RUNTIME_LOG_INFO, std::string("live rescan: nothing changed")));
}

TEST_F(RuntimeLogTest, WithoutAnActivityLogActivityIsDroppedNotPrinted)
{
    testing::internal::CaptureStderr();
    kelp::rt::logNotice("kelpctl ready on");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(g_lines.empty());
}

} // namespace
