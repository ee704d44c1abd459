// Threads: start, prompt stop of sleeping and waiting threads, self-stop, and
// Sleep's time scale.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "kelp/runtime.h"
#include "os.h"
#include "vcsupt.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Generous: the waits cut short below would otherwise last 60 s or more.
constexpr auto kPrompt = seconds(5);

struct Probe {
    SMEventHandle started = SMEventCreate(1, 0, nullptr);
    SMEventHandle gate = SMEventCreate(1, 0, nullptr);
    std::atomic<uint32_t> result{99};
    std::atomic<int> steps{0};
    SMThreadHandle self = nullptr;
    ~Probe()
    {
        SMEventDestroy(started);
        SMEventDestroy(gate);
    }
};

class ThreadTest : public ::testing::Test {
  protected:
    void SetUp() override { kelpRuntimeSetTimeScale(1.0); }
    void TearDown() override { kelpRuntimeSetTimeScale(0.0); }
};

TEST_F(ThreadTest, StartRunsTheFunctionWithItsArgument)
{
    Probe p;
    SMThreadHandle h = SMThreadStart([](void *arg) { static_cast<Probe *>(arg)->steps = 7; }, &p);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(SMThreadStop(h), 0u);
    EXPECT_EQ(p.steps.load(), 7);
}

TEST_F(ThreadTest, StopDuringA60sSleepReturnsPromptly)
{
    Probe p;
    SMThreadHandle h = SMThreadStart(
        [](void *arg) {
            auto *probe = static_cast<Probe *>(arg);
            SMEventSet(probe->started);
            Sleep(60000);
            probe->steps = 1;
        },
        &p);
    ASSERT_EQ(SMEventWait(p.started, SM_WAIT_FOREVER), 0u);
    std::this_thread::sleep_for(milliseconds(20)); // most likely inside Sleep by now
    auto start = Clock::now();
    EXPECT_EQ(SMThreadStop(h), 0u);
    EXPECT_LT(Clock::now() - start, kPrompt);
    EXPECT_EQ(p.steps.load(), 1);
}

TEST_F(ThreadTest, EverySleepAfterTheStopRequestReturnsAtOnce)
{
    Probe p;
    SMThreadHandle h = SMThreadStart(
        [](void *arg) {
            auto *probe = static_cast<Probe *>(arg);
            SMEventSet(probe->started);
            for (int i = 0; i < 5; ++i) {
                Sleep(60000);
                ++probe->steps;
            }
        },
        &p);
    ASSERT_EQ(SMEventWait(p.started, SM_WAIT_FOREVER), 0u);
    auto start = Clock::now();
    EXPECT_EQ(SMThreadStop(h), 0u);
    EXPECT_LT(Clock::now() - start, kPrompt);
    EXPECT_EQ(p.steps.load(), 5);
}

// Stops land at every point of the thread's start and of its entry into the
// wait; a lost wake-up would leave one of them waiting out its 60 s.
TEST_F(ThreadTest, StopRacingTheStartOfAWaitIsNeverLost)
{
    SMEventHandle never = SMEventCreate(0, 0, nullptr);
    auto start = Clock::now();
    for (int i = 0; i < 200; ++i) {
        SMThreadHandle sleeper = SMThreadStart([](void *) { Sleep(60000); }, nullptr);
        SMThreadHandle waiter = SMThreadStart(
            [](void *arg) { SMEventWait(static_cast<SMEventHandle>(arg), 60000); }, never);
        EXPECT_EQ(SMThreadStop(sleeper), 0u);
        EXPECT_EQ(SMThreadStop(waiter), 0u);
    }
    EXPECT_LT(Clock::now() - start, seconds(30));
    SMEventDestroy(never);
}

TEST_F(ThreadTest, StopDuringA60sEventWaitReturnsPromptlyAndTheWaitAnswers3)
{
    Probe p;
    SMThreadHandle h = SMThreadStart(
        [](void *arg) {
            auto *probe = static_cast<Probe *>(arg);
            SMEventSet(probe->started);
            probe->result = SMEventWait(probe->gate, 60000);
        },
        &p);
    ASSERT_EQ(SMEventWait(p.started, SM_WAIT_FOREVER), 0u);
    std::this_thread::sleep_for(milliseconds(20));
    auto start = Clock::now();
    EXPECT_EQ(SMThreadStop(h), 0u);
    EXPECT_LT(Clock::now() - start, kPrompt);
    EXPECT_EQ(p.result.load(), 3u);
}

TEST_F(ThreadTest, StopDoesNotCutAWaitWithoutLimitShort)
{
    Probe p;
    SMThreadHandle h = SMThreadStart(
        [](void *arg) {
            auto *probe = static_cast<Probe *>(arg);
            SMEventSet(probe->started);
            probe->result = SMEventWait(probe->gate, SM_WAIT_FOREVER);
        },
        &p);
    ASSERT_EQ(SMEventWait(p.started, SM_WAIT_FOREVER), 0u);
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        SMThreadStop(h);
        stopped = true;
    });
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_FALSE(stopped.load()); // the thread still waits for its event
    SMEventSet(p.gate);
    stopper.join();
    EXPECT_TRUE(stopped.load());
    EXPECT_EQ(p.result.load(), 0u);
}

TEST_F(ThreadTest, StopOfANullHandleAnswers0)
{
    EXPECT_EQ(SMThreadStop(nullptr), 0u);
}

TEST_F(ThreadTest, StopOfTheCallingThreadAnswers5)
{
    Probe p;
    p.self = SMThreadStart(
        [](void *arg) {
            auto *probe = static_cast<Probe *>(arg);
            SMEventWait(probe->gate, SM_WAIT_FOREVER); // until `self` is filled in
            probe->result = SMThreadStop(probe->self);
            SMEventSet(probe->started);
        },
        &p);
    ASSERT_NE(p.self, nullptr);
    SMEventSet(p.gate);
    ASSERT_EQ(SMEventWait(p.started, SM_WAIT_FOREVER), 0u);
    EXPECT_EQ(p.result.load(), 5u);
}

TEST_F(ThreadTest, SleepLastsItsTimeWhenNotStopped)
{
    auto start = Clock::now();
    Sleep(100);
    EXPECT_GE(Clock::now() - start, milliseconds(100));
}

TEST_F(ThreadTest, TimeScaleShortensSleep)
{
    kelpRuntimeSetTimeScale(1000.0);
    EXPECT_EQ(kelpRuntimeTimeScale(), 1000.0);
    auto start = Clock::now();
    Sleep(60000);
    EXPECT_LT(Clock::now() - start, kPrompt);
}

TEST_F(ThreadTest, TimeScaleShortensSleepOnAStartedThread)
{
    kelpRuntimeSetTimeScale(1000.0);
    Probe p;
    SMThreadHandle h = SMThreadStart(
        [](void *arg) {
            auto *probe = static_cast<Probe *>(arg);
            Sleep(60000);
            SMEventSet(probe->started);
        },
        &p);
    auto start = Clock::now();
    EXPECT_EQ(SMEventWait(p.started, SM_WAIT_FOREVER), 0u); // before any stop
    EXPECT_LT(Clock::now() - start, kPrompt);
    SMThreadStop(h);
}

} // namespace
