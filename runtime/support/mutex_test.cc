// Mutexes: ownership, recursion, time-outs, refusal of a foreign unlock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "kelp/runtime.h"
#include "vcsupt.h"

namespace {

using std::chrono::milliseconds;

// Runs `body` on another thread and waits for it.
template <typename F> void onOtherThread(F body)
{
    std::thread t(body);
    t.join();
}

// Another thread takes the mutex at once, and lets it go.
void expectFreeToAnotherThread(SMMutexHandle m)
{
    onOtherThread([m] {
        EXPECT_EQ(SMMutexLock(m, 0), 0u);
        EXPECT_EQ(SMMutexUnLock(m), 0u);
    });
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
    expectFreeToAnotherThread(m);
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
    expectFreeToAnotherThread(m);
    SMMutexDestroy(m);
}

// Holds `m` on a thread of its own from construction to destruction.
class Holder {
  public:
    explicit Holder(SMMutexHandle m)
        : thread_([this, m] {
              EXPECT_EQ(SMMutexLock(m, SM_WAIT_FOREVER), 0u);
              SMEventSet(held_);
              SMEventWait(release_, SM_WAIT_FOREVER);
              EXPECT_EQ(SMMutexUnLock(m), 0u);
          })
    {
        SMEventWait(held_, SM_WAIT_FOREVER);
    }
    ~Holder()
    {
        SMEventSet(release_);
        thread_.join();
        SMEventDestroy(held_);
        SMEventDestroy(release_);
    }
    Holder(const Holder &) = delete;
    Holder &operator=(const Holder &) = delete;

  private:
    SMEventHandle held_ = SMEventCreate(0, 0, nullptr);
    SMEventHandle release_ = SMEventCreate(0, 0, nullptr);
    std::thread thread_;
};

TEST(MutexTest, AThreadsWaitLimitBoundsEveryLockWaitOnThatThreadOnly)
{
    SMMutexHandle m = SMMutexCreate(0);
    {
        Holder holder(m);
        onOtherThread([m] {
            kelpRuntimeSetLockWaitLimit(0);
            const unsigned long before = kelpRuntimeLockTimeouts();
            const auto start = std::chrono::steady_clock::now();
            // The caller asks for a minute, or for ever; the bound answers at once.
            EXPECT_EQ(SMMutexLock(m, 60000), 3u);
            EXPECT_EQ(SMMutexLock(m, SM_WAIT_FOREVER), 3u);
            EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
            EXPECT_EQ(kelpRuntimeLockTimeouts(), before + 2);

            kelpRuntimeSetLockWaitLimit(50);
            const auto waited = std::chrono::steady_clock::now();
            EXPECT_EQ(SMMutexLock(m, 60000), 3u);
            EXPECT_GE(std::chrono::steady_clock::now() - waited, milliseconds(50));
            EXPECT_EQ(kelpRuntimeLockTimeouts(), before + 3);
        });
        // Another thread has no bound of its own: its short wait is its own.
        onOtherThread([m] {
            const unsigned long before = kelpRuntimeLockTimeouts();
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(SMMutexLock(m, 30), 3u);
            EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(30));
            EXPECT_EQ(kelpRuntimeLockTimeouts(), before + 1);
        });
    }
    SMMutexDestroy(m);
}

TEST(MutexTest, ABoundedThreadStillTakesAFreeMutexAndItsOwnAgain)
{
    SMMutexHandle m = SMMutexCreate(0);
    onOtherThread([m] {
        kelpRuntimeSetLockWaitLimit(0);
        const unsigned long before = kelpRuntimeLockTimeouts();
        EXPECT_EQ(SMMutexLock(m, 1000), 0u);
        EXPECT_EQ(SMMutexLock(m, 1000), 0u);
        EXPECT_EQ(SMMutexUnLock(m), 0u);
        EXPECT_EQ(SMMutexUnLock(m), 0u);
        EXPECT_EQ(kelpRuntimeLockTimeouts(), before);
        // A negative bound lifts it.
        kelpRuntimeSetLockWaitLimit(-5);
        EXPECT_EQ(SMMutexLock(m, 0), 0u);
        EXPECT_EQ(SMMutexUnLock(m), 0u);
    });
    SMMutexDestroy(m);
}

TEST(MutexTest, AWaiterOfARecursivelyHeldMutexGetsItAtTheLastUnlock)
{
    SMMutexHandle m = SMMutexCreate(0);
    ASSERT_EQ(SMMutexLock(m, 0), 0u);
    ASSERT_EQ(SMMutexLock(m, 0), 0u);
    std::atomic<bool> taken{false};
    std::thread waiter([&] {
        EXPECT_EQ(SMMutexLock(m, SM_WAIT_FOREVER), 0u);
        taken = true;
        EXPECT_EQ(SMMutexUnLock(m), 0u);
    });
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(SMMutexUnLock(m), 0u);
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_FALSE(taken.load());
    EXPECT_EQ(SMMutexUnLock(m), 0u);
    waiter.join();
    EXPECT_TRUE(taken.load());
    SMMutexDestroy(m);
}

TEST(MutexTest, AWaitThatTimedOutLeavesTheMutexToItsOwnerAndThenFree)
{
    SMMutexHandle m = SMMutexCreate(0);
    ASSERT_EQ(SMMutexLock(m, 0), 0u);
    onOtherThread([m] { EXPECT_EQ(SMMutexLock(m, 20), 3u); });
    // Still the owner's, recursively, after a wait on it gave up.
    EXPECT_EQ(SMMutexLock(m, 0), 0u);
    EXPECT_EQ(SMMutexUnLock(m), 0u);
    EXPECT_EQ(SMMutexUnLock(m), 0u);
    EXPECT_EQ(SMMutexUnLock(m), 5u);
    expectFreeToAnotherThread(m);
    SMMutexDestroy(m);
}

TEST(MutexTest, ThreadsTakingItInTurnsAreNeverInsideTogether)
{
    SMMutexHandle m = SMMutexCreate(0);
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    std::atomic<int> inside{0};
    long count = 0; // guarded by m
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                // Some rounds wait briefly and may give up.
                const uint32_t wait = (i + t) % 7 == 0 ? 0 : SM_WAIT_FOREVER;
                if (SMMutexLock(m, wait) != 0)
                    continue;
                EXPECT_EQ(SMMutexLock(m, 0), 0u);
                EXPECT_EQ(inside.fetch_add(1), 0);
                ++count;
                inside.fetch_sub(1);
                EXPECT_EQ(SMMutexUnLock(m), 0u);
                EXPECT_EQ(SMMutexUnLock(m), 0u);
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    EXPECT_GT(count, 0);
    EXPECT_LE(count, long{kThreads} * kRounds);
    EXPECT_EQ(SMMutexUnLock(m), 5u);
    EXPECT_EQ(SMMutexLock(m, 0), 0u);
    EXPECT_EQ(SMMutexUnLock(m), 0u);
    SMMutexDestroy(m);
}

TEST(MutexTest, AMutexMayBeDestroyedByTheThreadThatTookItFromAWaitedRelease)
{
    for (int round = 0; round < 50; ++round) {
        SMMutexHandle m = SMMutexCreate(0);
        ASSERT_EQ(SMMutexLock(m, 0), 0u);
        std::thread next([m] {
            EXPECT_EQ(SMMutexLock(m, SM_WAIT_FOREVER), 0u);
            EXPECT_EQ(SMMutexUnLock(m), 0u);
            SMMutexDestroy(m);
        });
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        EXPECT_EQ(SMMutexUnLock(m), 0u);
        next.join();
    }
}

TEST(MutexTest, NullHandleAnswers5)
{
    EXPECT_EQ(SMMutexLock(nullptr, 0), 5u);
    EXPECT_EQ(SMMutexUnLock(nullptr), 5u);
    SMMutexDestroy(nullptr);
}

} // namespace
