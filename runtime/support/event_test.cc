// Events: set, reset, auto- and manual-reset, time-outs.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "kelp/runtime.h"
#include "vcsupt.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

class EventTest : public ::testing::Test {
  protected:
    void SetUp() override { kelpRuntimeSetTimeScale(1.0); }
    void TearDown() override { kelpRuntimeSetTimeScale(0.0); }
};

TEST_F(EventTest, SetThenWaitAnswers0)
{
    SMEventHandle e = SMEventCreate(0, 0, nullptr);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(SMEventSet(e), 0u);
    EXPECT_EQ(SMEventWait(e, 1000), 0u);
    SMEventDestroy(e);
}

TEST_F(EventTest, WaitOnUnsetEventAnswers3AfterTheTimeOut)
{
    SMEventHandle e = SMEventCreate(0, 0, nullptr);
    auto start = Clock::now();
    EXPECT_EQ(SMEventWait(e, 100), 3u);
    EXPECT_GE(Clock::now() - start, milliseconds(100));
    SMEventDestroy(e);
}

TEST_F(EventTest, AutoResetClearsAfterOneWait)
{
    SMEventHandle e = SMEventCreate(0, 0, nullptr);
    SMEventSet(e);
    EXPECT_EQ(SMEventWait(e, 0), 0u);
    EXPECT_EQ(SMEventWait(e, 0), 3u);
    SMEventDestroy(e);
}

TEST_F(EventTest, ManualResetStaysSetUntilReset)
{
    SMEventHandle e = SMEventCreate(1, 0, nullptr);
    SMEventSet(e);
    EXPECT_EQ(SMEventWait(e, 0), 0u);
    EXPECT_EQ(SMEventWait(e, 0), 0u);
    EXPECT_EQ(SMEventReset(e), 0u);
    EXPECT_EQ(SMEventWait(e, 0), 3u);
    SMEventDestroy(e);
}

TEST_F(EventTest, InitialStateSetIsHonoured)
{
    SMEventHandle e = SMEventCreate(0, 1, nullptr);
    EXPECT_EQ(SMEventWait(e, 0), 0u);
    EXPECT_EQ(SMEventWait(e, 0), 3u);
    SMEventDestroy(e);
}

TEST_F(EventTest, SetFromAnotherThreadWakesAWaitWithoutLimit)
{
    SMEventHandle e = SMEventCreate(0, 0, nullptr);
    std::thread setter([e] {
        std::this_thread::sleep_for(milliseconds(50));
        SMEventSet(e);
    });
    EXPECT_EQ(SMEventWait(e, SM_WAIT_FOREVER), 0u);
    setter.join();
    EXPECT_EQ(SMEventWait(e, 0), 3u); // the wait consumed it
    SMEventDestroy(e);
}

TEST_F(EventTest, SetWakesAFiniteWaitBeforeItsTimeOut)
{
    SMEventHandle e = SMEventCreate(0, 0, nullptr);
    std::thread setter([e] {
        std::this_thread::sleep_for(milliseconds(50));
        SMEventSet(e);
    });
    auto start = Clock::now();
    EXPECT_EQ(SMEventWait(e, 60000), 0u);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
    setter.join();
    SMEventDestroy(e);
}

TEST_F(EventTest, TimeScaleShortensAFiniteWait)
{
    kelpRuntimeSetTimeScale(1000.0);
    SMEventHandle e = SMEventCreate(0, 0, nullptr);
    auto start = Clock::now();
    EXPECT_EQ(SMEventWait(e, 60000), 3u);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    SMEventDestroy(e);
}

TEST_F(EventTest, NullHandleAnswers5)
{
    EXPECT_EQ(SMEventSet(nullptr), 5u);
    EXPECT_EQ(SMEventReset(nullptr), 5u);
    EXPECT_EQ(SMEventWait(nullptr, 0), 5u);
    SMEventDestroy(nullptr);
}

} // namespace
