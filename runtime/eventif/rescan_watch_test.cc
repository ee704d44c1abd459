// The rescan bookkeeping on a clock of its own: which 3060 closes a rescan,
// which is dropped as stray or late, and when an open rescan expires.
#include "eventif/rescan_watch.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using kelp::ev::RescanWatch;
using Verdict = RescanWatch::Verdict;
using namespace std::chrono_literals;

constexpr uint32_t kStarted = 3061, kCompleted = 3060;
const RescanWatch::Clock::time_point t0{1000s};
constexpr auto kTimeOut = 30s;

TEST(RescanWatchTest, StartedThenCompletedAreHandedOutAndCloseTheRescan)
{
    RescanWatch watch;
    EXPECT_EQ(watch.onEvent(kStarted, t0), Verdict::kHandOut);
    EXPECT_TRUE(watch.open());
    EXPECT_EQ(watch.openSince(), t0);
    EXPECT_EQ(watch.onEvent(kCompleted, t0 + 1s), Verdict::kHandOut);
    EXPECT_FALSE(watch.open());
    EXPECT_FALSE(watch.expire(t0 + 1h, kTimeOut));
}

TEST(RescanWatchTest, OtherEventsPassAndChangeNothing)
{
    RescanWatch watch;
    for (uint32_t id : {0u, 1u, 2048u, 3059u, 3062u, 4294967295u})
        EXPECT_EQ(watch.onEvent(id, t0), Verdict::kHandOut) << id;
    EXPECT_FALSE(watch.open());
    ASSERT_EQ(watch.onEvent(kStarted, t0), Verdict::kHandOut);
    for (uint32_t id : {0u, 2048u, 4294967295u})
        EXPECT_EQ(watch.onEvent(id, t0 + 1s), Verdict::kHandOut) << id;
    EXPECT_TRUE(watch.open());
    EXPECT_EQ(watch.openSince(), t0);
}

TEST(RescanWatchTest, ACompletedThatClosesNothingIsStray)
{
    RescanWatch watch;
    EXPECT_EQ(watch.onEvent(kCompleted, t0), Verdict::kDropStray);
    ASSERT_EQ(watch.onEvent(kStarted, t0), Verdict::kHandOut);
    ASSERT_EQ(watch.onEvent(kCompleted, t0), Verdict::kHandOut);
    EXPECT_EQ(watch.onEvent(kCompleted, t0), Verdict::kDropStray);
    EXPECT_FALSE(watch.open());
}

TEST(RescanWatchTest, AnOpenRescanExpiresAtItsTimeOutAndNotBefore)
{
    RescanWatch watch;
    ASSERT_EQ(watch.onEvent(kStarted, t0), Verdict::kHandOut);
    EXPECT_FALSE(watch.expire(t0, kTimeOut));
    EXPECT_FALSE(watch.expire(t0 + kTimeOut - 1ns, kTimeOut));
    EXPECT_TRUE(watch.open());
    EXPECT_TRUE(watch.expire(t0 + kTimeOut, kTimeOut));
    EXPECT_FALSE(watch.open());
    // Closed once: nothing more expires.
    EXPECT_FALSE(watch.expire(t0 + 2 * kTimeOut, kTimeOut));
}

TEST(RescanWatchTest, TheFirstCompletedAfterAnExpiryIsLateTheNextStray)
{
    RescanWatch watch;
    ASSERT_EQ(watch.onEvent(kStarted, t0), Verdict::kHandOut);
    ASSERT_TRUE(watch.expire(t0 + kTimeOut, kTimeOut));
    EXPECT_EQ(watch.onEvent(kCompleted, t0 + 31s), Verdict::kDropLate);
    EXPECT_EQ(watch.onEvent(kCompleted, t0 + 32s), Verdict::kDropStray);
}

TEST(RescanWatchTest, ANewStartedAfterAnExpiryMakesTheNextCompletedItsOwn)
{
    RescanWatch watch;
    ASSERT_EQ(watch.onEvent(kStarted, t0), Verdict::kHandOut);
    ASSERT_TRUE(watch.expire(t0 + kTimeOut, kTimeOut));
    ASSERT_EQ(watch.onEvent(kStarted, t0 + 40s), Verdict::kHandOut);
    EXPECT_EQ(watch.onEvent(kCompleted, t0 + 41s), Verdict::kHandOut);
    EXPECT_FALSE(watch.open());
}

TEST(RescanWatchTest, ASecondStartedRestartsTheTimeOut)
{
    RescanWatch watch;
    ASSERT_EQ(watch.onEvent(kStarted, t0), Verdict::kHandOut);
    EXPECT_EQ(watch.onEvent(kStarted, t0 + 20s), Verdict::kDropNested);
    EXPECT_EQ(watch.openSince(), t0 + 20s);
    EXPECT_FALSE(watch.expire(t0 + kTimeOut, kTimeOut)); // 30 s after the first
    EXPECT_FALSE(watch.expire(t0 + 20s + kTimeOut - 1ns, kTimeOut));
    EXPECT_TRUE(watch.expire(t0 + 20s + kTimeOut, kTimeOut));
}

// The second 3061 is not handed out: the plug-in would rescan again after
// the 3060, holding its tables for a 3060 that never comes.
TEST(RescanWatchTest, TwoStartedAndOneCompletedLeaveNothingOpen)
{
    RescanWatch watch;
    ASSERT_EQ(watch.onEvent(kStarted, t0), Verdict::kHandOut);
    ASSERT_EQ(watch.onEvent(kStarted, t0 + 1s), Verdict::kDropNested);
    EXPECT_EQ(watch.onEvent(kCompleted, t0 + 2s), Verdict::kHandOut);
    EXPECT_FALSE(watch.open());
    EXPECT_EQ(watch.onEvent(kCompleted, t0 + 3s), Verdict::kDropStray);
}

} // namespace
