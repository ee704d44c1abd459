// The event interface before the event source exists, and the extended SNMP
// message preference read from the ini store.
#include <gtest/gtest.h>

#include <cstdlib>

#include "kelp/runtime.h"
#include "queue.h"
#include "vcsif.h"

namespace {

TEST(EventIfTest, QueueIsEmptyAndFreeDataReleasesHeapBlocks)
{
    vcsif32_yesEventQ();
    vcsif32_noCmdQ();
    EXPECT_EQ(vcsif32_getEvent(1), nullptr);
    vcsif32_freeData(static_cast<char *>(std::malloc(8)));
    vcsif32_freeData(nullptr);
}

class MessagePreferenceTest : public ::testing::Test {
  protected:
    void SetUp() override { kelpRuntimeSetIniPath(""); } // the in-memory store
    void TearDown() override { kelpRuntimeSetIniPath(nullptr); }
};

TEST_F(MessagePreferenceTest, IsOnOnlyForExactlyOn)
{
    struct Case {
        const char *value;
        uint32_t flag;
    } cases[] = {{"On", 1},
                 {"on", 0},
                 {"ON", 0},
                 {"On ", 0},
                 {"Off", 0},
                 {"", 0},
                 {"On and on and on and on", 0}};
    for (const auto &c : cases) {
        ASSERT_EQ(SSSetPrivateIniValue("vcsipe", "ExtendedSNMPMessages", c.value), 0u);
        uint32_t flag = 99;
        EXPECT_EQ(geteemisnmpmsgpref(&flag), 0u);
        EXPECT_EQ(flag, c.flag) << '"' << c.value << '"';
    }
}

TEST_F(MessagePreferenceTest, MissingKeyIsOffAndNullAnswers5)
{
    uint32_t flag = 99;
    ASSERT_EQ(SSSetPrivateIniValue("vcsipe", "ExtendedSNMPMessages", "On"), 0u);
    kelpRuntimeSetIniPath("/nonexistent-dir/kelp.ini"); // a store without the key
    EXPECT_EQ(geteemisnmpmsgpref(&flag), 0u);
    EXPECT_EQ(flag, 0u);
    EXPECT_EQ(geteemisnmpmsgpref(nullptr), 5u);
}

} // namespace
