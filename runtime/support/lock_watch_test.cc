// Lock epochs: which event waits count as made under a lock taken since a
// rescan started event was handed out.
#include "support/lock_watch.h"

#include <gtest/gtest.h>

#include <thread>

#include "vcsupt.h"

namespace kelp::rt {
namespace {

// Waits once on `event` for 1 ms, holding `mutex`.
void waitHolding(SMMutexHandle mutex, SMEventHandle event)
{
    ASSERT_EQ(SMMutexLock(mutex, SM_WAIT_FOREVER), 0u);
    SMEventWait(event, 1);
    ASSERT_EQ(SMMutexUnLock(mutex), 0u);
}

TEST(LockEpoch, OnlyAWaitUnderALockTakenInTheEpochCountsForIt)
{
    SMMutexHandle mutex = SMMutexCreate(0);
    SMEventHandle event = SMEventCreate(0, 0, nullptr);
    const uint64_t before = startLockEpoch();

    // A lock taken before the epoch, held across it: the tail of a rescan
    // before is no sign of the next one.
    ASSERT_EQ(SMMutexLock(mutex, SM_WAIT_FOREVER), 0u);
    const uint64_t epoch = startLockEpoch();
    EXPECT_GT(epoch, before);
    SMEventWait(event, 1);
    EXPECT_FALSE(lockedWaitIn(epoch));
    // Nested: the thread's first mutex still dates from before.
    ASSERT_EQ(SMMutexLock(mutex, SM_WAIT_FOREVER), 0u);
    SMEventWait(event, 1);
    ASSERT_EQ(SMMutexUnLock(mutex), 0u);
    EXPECT_FALSE(lockedWaitIn(epoch));
    ASSERT_EQ(SMMutexUnLock(mutex), 0u);

    // A wait without a lock counts for nothing.
    SMEventWait(event, 1);
    EXPECT_FALSE(lockedWaitIn(epoch));

    // Taken in the epoch, on another thread: counts, for this epoch and
    // the ones before, not for the next.
    std::thread([&] { waitHolding(mutex, event); }).join();
    EXPECT_TRUE(lockedWaitIn(epoch));
    EXPECT_TRUE(lockedWaitIn(before));
    EXPECT_FALSE(lockedWaitIn(startLockEpoch()));

    SMEventDestroy(event);
    SMMutexDestroy(mutex);
}

} // namespace
} // namespace kelp::rt
