// The worker of delegated requests: work off the calling thread, finishes on
// it in order, a bounded queue, and a stop that finishes every job.
#include "snmp/delegate.h"

#include <gtest/gtest.h>

#include "testing/failing_new.h"

#include <atomic>
#include <chrono>
#include <future>
#include <new>
#include <thread>
#include <vector>

namespace kelp::agent {
namespace {

using namespace std::chrono_literals;

// Waits until `done` holds, for at most 10 s.
template <typename F> bool eventually(F done)
{
    const auto until = std::chrono::steady_clock::now() + 10s;
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

TEST(Delegator, WorkRunsOnTheWorkerAndFinishOnTheCallerInOrder)
{
    std::atomic<int> wakes{0};
    Delegator delegator(8, [&] { wakes++; });
    const std::thread::id caller = std::this_thread::get_id();
    std::vector<int> finished;
    std::atomic<int> worked{0};
    for (int i = 0; i < 3; i++) {
        Delegator::Job job;
        job.work = [&, caller] {
            EXPECT_NE(std::this_thread::get_id(), caller);
            worked++;
        };
        job.finish = [&, i, caller](bool ran) {
            EXPECT_EQ(std::this_thread::get_id(), caller);
            EXPECT_TRUE(ran);
            finished.push_back(i);
        };
        ASSERT_TRUE(delegator.submit(std::move(job)));
    }
    ASSERT_TRUE(eventually([&] { return wakes.load() == 3; }));
    EXPECT_EQ(worked.load(), 3);
    EXPECT_TRUE(finished.empty()) << "finish waits for runFinished";
    delegator.runFinished();
    EXPECT_EQ(finished, (std::vector<int>{0, 1, 2}));
}

TEST(Delegator, WorkThatRunsOutOfMemoryIsFinishedAsNotRunAndTheWorkerGoesOn)
{
    std::atomic<int> wakes{0};
    Delegator delegator(8, [&] { wakes++; });
    std::vector<std::pair<int, bool>> finished;
    for (int i = 0; i < 2; i++) {
        Delegator::Job job;
        job.work = [i] {
            if (i == 0) {
                throw std::bad_alloc();
            }
        };
        job.finish = [&, i](bool ran) { finished.emplace_back(i, ran); };
        ASSERT_TRUE(delegator.submit(std::move(job)));
    }
    ASSERT_TRUE(eventually([&] { return wakes.load() == 2; }));
    delegator.runFinished();
    EXPECT_EQ(finished, (std::vector<std::pair<int, bool>>{{0, false}, {1, true}}));
}

TEST(Delegator, AJobWithoutRoomAmongTheFinishedWaitsForMemoryAndIsFinished)
{
    std::atomic<int> wakes{0};
    constexpr int kJobs = 40; // the finished jobs' deque takes new blocks
    Delegator delegator(kJobs, [&] { wakes++; });
    const size_t failedBefore = kelp::test::failedAllocations();
    std::vector<int> finished;
    for (int i = 0; i < kJobs; i++) {
        Delegator::Job job;
        // The worker's next allocation after the work fails: the one that
        // makes room among the finished jobs, when there is none.
        job.work = [] { kelp::test::failNthAllocation(1); };
        job.finish = [&, i](bool ran) {
            EXPECT_TRUE(ran);
            finished.push_back(i);
        };
        ASSERT_TRUE(delegator.submit(std::move(job)));
    }
    ASSERT_TRUE(eventually([&] { return wakes.load() == kJobs; }));
    delegator.runFinished();
    EXPECT_EQ(finished.size(), size_t(kJobs));
    EXPECT_GT(kelp::test::failedAllocations(), failedBefore);
}

TEST(Delegator, AFullQueueRefusesAndAFinishedJobMakesRoom)
{
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<int> wakes{0};
    Delegator delegator(2, [&] { wakes++; });
    int finished = 0;
    const auto job = [&] {
        Delegator::Job j;
        j.work = [released] { released.wait(); };
        j.finish = [&](bool) { finished++; };
        return j;
    };
    ASSERT_TRUE(delegator.submit(job()));
    ASSERT_TRUE(delegator.submit(job()));
    EXPECT_FALSE(delegator.submit(job()));
    release.set_value();
    ASSERT_TRUE(eventually([&] { return wakes.load() == 2; }));
    // Finished but not yet handed back still counts.
    EXPECT_FALSE(delegator.submit(job()));
    delegator.runFinished();
    EXPECT_EQ(finished, 2);
    EXPECT_TRUE(delegator.submit(job()));
    delegator.stop();
    EXPECT_EQ(finished, 3);
}

// A delegator with one job running until a releaser, started by
// runAndQueue, lets it end 20 ms later, and one job queued behind it. The
// jobs' finishes are recorded in `ran`, room for which is made first.
struct RunningAndQueued {
    std::promise<void> release;
    Delegator delegator{8, [] {}};
    std::vector<bool> ran;
    bool secondWorked = false;
    std::thread releaser;

    RunningAndQueued() { ran.reserve(4); }
    ~RunningAndQueued()
    {
        if (releaser.joinable()) {
            releaser.join();
        } else {
            release.set_value(); // a failed start: the running job ends
        }
    }

    void runAndQueue()
    {
        std::promise<void> started;
        std::shared_future<void> released = release.get_future().share();
        Delegator::Job first;
        first.work = [&started, released] {
            started.set_value();
            released.wait();
        };
        first.finish = [this](bool r) { ran.push_back(r); };
        ASSERT_TRUE(delegator.submit(std::move(first)));
        started.get_future().wait();
        Delegator::Job second;
        second.work = [this] { secondWorked = true; };
        second.finish = [this](bool r) { ran.push_back(r); };
        ASSERT_TRUE(delegator.submit(std::move(second)));
        releaser = std::thread([this] {
            std::this_thread::sleep_for(20ms);
            release.set_value();
        });
    }
};

TEST(Delegator, StopLetsTheRunningJobEndAndDropsTheQueuedOnes)
{
    RunningAndQueued jobs;
    ASSERT_NO_FATAL_FAILURE(jobs.runAndQueue());
    jobs.delegator.stop();
    EXPECT_FALSE(jobs.secondWorked);
    EXPECT_EQ(jobs.ran, (std::vector<bool>{true, false}));
    Delegator::Job late;
    late.work = [] {};
    late.finish = [](bool) {};
    EXPECT_FALSE(jobs.delegator.submit(std::move(late)));
    jobs.delegator.stop();
}

// The request path stops its worker from its destructor, also when the
// agent ends for want of memory: a stop allocates nothing.
TEST(Delegator, AStopWithoutMemoryStillFinishesEveryJob)
{
    RunningAndQueued jobs;
    ASSERT_NO_FATAL_FAILURE(jobs.runAndQueue());
    const size_t failedBefore = kelp::test::failedAllocations();
    kelp::test::failNthAllocation(1);
    EXPECT_NO_THROW(jobs.delegator.stop());
    kelp::test::failNthAllocation(0);
    EXPECT_EQ(kelp::test::failedAllocations(), failedBefore) << "the stop allocated";
    EXPECT_EQ(jobs.ran, (std::vector<bool>{true, false}));
}

} // namespace
} // namespace kelp::agent
