// waitForQuiet: a burst ends once quiet, a storm that never ends is cut at the
// longest wait, and every event of either is drained.
#include "datastore/live/burst.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

namespace kelp::live {
namespace {

using namespace std::chrono_literals;

struct Pipe {
    // The read end does not block: a drain takes what is there.
    Pipe() { EXPECT_EQ(pipe2(fds, O_NONBLOCK), 0); }
    ~Pipe()
    {
        close(fds[0]);
        close(fds[1]);
    }
    void send(int n)
    {
        for (int i = 0; i < n; ++i) {
            // The pipe holds far more than a test sends; a full pipe would only
            // drop events, which the drain count would show.
            if (write(fds[1], "e", 1) != 1)
                ADD_FAILURE() << "pipe full";
        }
    }
    int drainAll()
    {
        char buffer[4096];
        int got = 0;
        ssize_t n = 0;
        while ((n = read(fds[0], buffer, sizeof buffer)) == static_cast<ssize_t>(sizeof buffer))
            got += static_cast<int>(n);
        return got + static_cast<int>(std::max<ssize_t>(n, 0));
    }
    int fds[2];
};

TEST(BurstTest, AQuietDescriptorReturnsAtOnce)
{
    Pipe p;
    std::atomic<bool> stop{false};
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(waitForQuiet(
                  p.fds[0], [&] { p.drainAll(); }, 50ms, 5s, stop),
              0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

TEST(BurstTest, AStormOfThousandsIsDrainedAsOneBurst)
{
    Pipe p;
    std::atomic<bool> stop{false};
    int drained = 0;
    // 5,000 events in ten waves 10 ms apart: one burst.
    std::thread storm([&] {
        for (int wave = 0; wave < 10; ++wave) {
            p.send(500);
            std::this_thread::sleep_for(10ms);
        }
    });
    std::this_thread::sleep_for(1ms);
    const int drains = waitForQuiet(
        p.fds[0], [&] { drained += p.drainAll(); }, 300ms, 30s, stop);
    storm.join();
    drained += p.drainAll();
    EXPECT_EQ(drained, 5000);
    EXPECT_GE(drains, 1);
}

TEST(BurstTest, AStormThatNeverEndsIsCutAtTheLongestWait)
{
    Pipe p;
    std::atomic<bool> stop{false}, done{false};
    std::thread storm([&] {
        while (!done.load()) {
            p.send(1);
            std::this_thread::sleep_for(5ms);
        }
    });
    const auto begin = std::chrono::steady_clock::now();
    waitForQuiet(
        p.fds[0], [&] { p.drainAll(); }, 200ms, 500ms, stop);
    const auto took = std::chrono::steady_clock::now() - begin;
    done.store(true);
    storm.join();
    EXPECT_GE(took, 450ms);
    EXPECT_LT(took, 10s) << "the longest wait bounds it";
}

TEST(BurstTest, StopEndsTheWait)
{
    Pipe p;
    p.send(1);
    std::atomic<bool> stop{true};
    EXPECT_EQ(waitForQuiet(
                  p.fds[0], [&] { p.drainAll(); }, 1s, 60s, stop),
              0);
}

} // namespace
} // namespace kelp::live
