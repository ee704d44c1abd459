// Mutexes: ownership, recursion, time-outs, refusal of a foreign unlock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "vcsupt.h"

namespace {

using std::chrono::milliseconds;

// Runs `body` on another thread and waits for it.
template <typename F> void onOtherThread(F body)
{
    std::thread t(body);
    t.join();
}

TEST(MutexTest, LockAnswers3WhileAnotherThreadHoldsItAnd0AfterRelease)
{
    SMMutexHandle m = SMMutexCreate(0);
    ASSERT_NE(m, nullptr);
    SMEventHandle held = SMEventCreate(0, 0, nullptr);
    SMEventHandle release = SMEventCreate(0, 0, nullptr);
    std::thread holder([&] {
        EXPECT_EQ(SMMutexLock(m, SM_WAIT_FOREVER), 0u);
        SMEventSet(held);
        SMEventWait(release, SM_WAIT_FOREVER);
        EXPECT_EQ(SMMutexUnLock(m), 0u);
    });
    ASSERT_EQ(SMEventWait(held, SM_WAIT_FOREVER), 0u);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SMMutexLock(m, 100), 3u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(100));
    EXPECT_EQ(SMMutexLock(m, 0), 3u);
    SMEventSet(release);
    holder.join();
    EXPECT_EQ(SMMutexLock(m, 0), 0u);
    EXPECT_EQ(SMMutexUnLock(m), 0u);
    SMEventDestroy(held);
    SMEventDestroy(release);
    SMMutexDestroy(m);
}

TEST(MutexTest, WaitingLockIsGrantedWhenTheHolderReleases)
{
    SMMutexHandle m = SMMutexCreate(0);
    ASSERT_EQ(SMMutexLock(m, 0), 0u);
    std::atomic<uint32_t> result{99};
    std::thread waiter([&] {
        result = SMMutexLock(m, 60000);
        if (result == 0)
            SMMutexUnLock(m);
    });
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(SMMutexUnLock(m), 0u);
    waiter.join();
    EXPECT_EQ(result.load(), 0u);
    SMMutexDestroy(m);
}

TEST(MutexTest, UnlockByANonOwnerAnswers5AndChangesNothing)
{
    SMMutexHandle m = SMMutexCreate(0);
    ASSERT_EQ(SMMutexLock(m, 0), 0u);
    onOtherThread([m] {
        EXPECT_EQ(SMMutexUnLock(m), 5u);
        EXPECT_EQ(SMMutexLock(m, 0), 3u); // still held by the owner
    });
    EXPECT_EQ(SMMutexUnLock(m), 0u);
    onOtherThread([m] {
        EXPECT_EQ(SMMutexLock(m, 0), 0u);
        EXPECT_EQ(SMMutexUnLock(m), 0u);
    });
    SMMutexDestroy(m);
}

TEST(MutexTest, UnlockOfAFreeMutexAnswers5)
{
    SMMutexHandle m = SMMutexCreate(0);
    EXPECT_EQ(SMMutexUnLock(m), 5u);
    SMMutexDestroy(m);
}

TEST(MutexTest, RecursiveLockNeedsAsManyUnlocks)
{
    SMMutexHandle m = SMMutexCreate(0);
    ASSERT_EQ(SMMutexLock(m, 0), 0u);
    ASSERT_EQ(SMMutexLock(m, 0), 0u);
    ASSERT_EQ(SMMutexLock(m, SM_WAIT_FOREVER), 0u);
    EXPECT_EQ(SMMutexUnLock(m), 0u);
    EXPECT_EQ(SMMutexUnLock(m), 0u);
    onOtherThread([m] { EXPECT_EQ(SMMutexLock(m, 0), 3u); });
    EXPECT_EQ(SMMutexUnLock(m), 0u);
    EXPECT_EQ(SMMutexUnLock(m), 5u);
    onOtherThread([m] {
        EXPECT_EQ(SMMutexLock(m, 0), 0u);
        EXPECT_EQ(SMMutexUnLock(m), 0u);
    });
    SMMutexDestroy(m);
}

TEST(MutexTest, NullHandleAnswers5)
{
    EXPECT_EQ(SMMutexLock(nullptr, 0), 5u);
    EXPECT_EQ(SMMutexUnLock(nullptr), 5u);
    SMMutexDestroy(nullptr);
}

} // namespace
