// The refresh thread against the real data store: readiness, the first
// build, periodic checks run fast through the time scale, rescans, stop,
// and the controllers' status roll-up.
#include "store/refresh.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "frame/frame.h"
#include "kelp/runtime.h"
#include "store/build.h"
#include "testing/model_fixture.h"

extern "C" uint32_t KELPIMP64_SMMIBImplementerDispatch(uint32_t command, void *inBuf,
                                                       uint32_t inSize, void *outBuf,
                                                       uint32_t outSize, uint32_t *outUsed);

namespace {

using namespace std::chrono_literals;
using testmodel::object;
using testmodel::serve;

std::string controllers(uint32_t count, const char *treeStatus = "1")
{
    std::string text;
    for (uint32_t i = 1; i <= count; i++) {
        text += object(i, "adapters", 0,
                       {{"Nexus", std::to_string(i - 1)}, {"TreeStatus", treeStatus}});
    }
    return text;
}

class RefreshTest : public ModelTest {
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        char pattern[] = "/tmp/kelp-refresh-XXXXXX";
        dir_ = mkdtemp(pattern);
        kelpRuntimeSetIniPath((dir_ + "/kelp.ini").c_str());
        kelpRuntimeSetDebugFile((dir_ + "/debug.log").c_str());
        // One-second ticks take a millisecond.
        kelpRuntimeSetTimeScale(1000);
        stopRequested = 0;
        rebuildNeeded = 0;
        g_bSNMPTableInitialised = 0;
    }

    void TearDown() override
    {
        if (started_) {
            stop();
        }
        command(SM_CMD_UNLOAD);
        kelpRuntimeSetIniPath(nullptr);
        kelpRuntimeSetDebugFile(nullptr);
        kelpRuntimeSetTimeScale(0);
        std::filesystem::remove_all(dir_);
        stopRequested = 0;
        g_bSNMPTableInitialised = 0;
        ModelTest::TearDown();
    }

    static uint32_t command(uint32_t number)
    {
        uint32_t used = 0;
        return KELPIMP64_SMMIBImplementerDispatch(number, nullptr, 0, nullptr, 0, &used);
    }

    void start(const std::string &ini = "")
    {
        std::ofstream(dir_ + "/kelp.ini") << "[general]\nDebugSNMP=On\n" << ini;
        SMLoadArgs args{nullptr, 0};
        uint32_t used = 0;
        ASSERT_EQ(
            KELPIMP64_SMMIBImplementerDispatch(SM_CMD_LOAD, &args, sizeof args, nullptr, 0, &used),
            0u);
        ASSERT_EQ(command(SM_CMD_START_MONITOR), 0u);
        started_ = true;
    }

    void stop()
    {
        ASSERT_EQ(command(SM_CMD_STOP_MONITOR), 0u);
        started_ = false;
    }

    std::string debugText() const
    {
        std::ifstream in(dir_ + "/debug.log");
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    // Polls `done` for up to 20 s.
    template <typename Done> static bool eventually(Done done)
    {
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (!done()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            std::this_thread::sleep_for(2ms);
        }
        return true;
    }

    bool initialised() const
    {
        if (SMMutexLock(dataMutex, 0) != 0) {
            return false;
        }
        const bool built = g_bSNMPTableInitialised != 0;
        SMMutexUnLock(dataMutex);
        return built;
    }

    // Whether another thread holds the data lock (a successful probe gives it
    // straight back).
    static bool lockedElsewhere()
    {
        if (SMMutexLock(dataMutex, 0) != 0) {
            return true;
        }
        SMMutexUnLock(dataMutex);
        return false;
    }

    bool logged(const char *line) const { return debugText().find(line) != std::string::npos; }

    std::string dir_;
    bool started_ = false;
};

TEST_F(RefreshTest, TheTablesAreBuiltOnceTheStoreIsReady)
{
    serve(controllers(2), false);
    start();
    std::this_thread::sleep_for(50ms); // dozens of one-second polls at this scale
    EXPECT_FALSE(initialised());
    std::string error;
    ASSERT_TRUE(kelp::ds::setReady(true, &error)) << error;
    ASSERT_TRUE(eventually([&] { return initialised(); }));
    EXPECT_EQ(ctrlList.length, 2u);
    EXPECT_GT(lastRefreshTime.load(), 0);
}

TEST_F(RefreshTest, StopWhileTheStoreIsNotReadyEndsTheThread)
{
    start();
    stop();
    EXPECT_TRUE(logged("tEvtFunc: Entry\n"));
    EXPECT_TRUE(logged("tEvtFunc: Just set eEvtFuncEnd\n"));
    EXPECT_EQ(g_bSNMPTableInitialised, 0u);
}

TEST_F(RefreshTest, APeriodicCheckWithoutAChangeOnlyLogsAndResetsTheCount)
{
    serve(controllers(1));
    start("SNMPRefreshMinutes=1\n");
    ASSERT_TRUE(eventually([&] { return logged("tEvtFunc: Flag to rebuild is not set.\n"); }));
    EXPECT_FALSE(logged("rebuildAllStep1: Entered"));
    EXPECT_LT(refreshTicks.load(), 60);
}

TEST_F(RefreshTest, APeriodicCheckAfterAChangeRebuildsAndSignalsRefreshDone)
{
    serve(controllers(1));
    start("SNMPRefreshMinutes=1\n");
    ASSERT_TRUE(eventually([&] { return initialised(); }));
    std::string error;
    ASSERT_TRUE(kelp::ds::addObjects(object(9, "adapters", 0, {{"Nexus", "9"}}), &error)) << error;
    rebuildNeeded = 1;
    // refreshDoneEvent is set once the merge is done; waits are scaled too.
    ASSERT_TRUE(eventually([&] { return SMEventWait(refreshDoneEvent, 1000) == 0; }));
    EXPECT_EQ(rebuildNeeded.load(), 0u);
    ASSERT_EQ(SMMutexLock(dataMutex, SM_WAIT_FOREVER), 0u);
    EXPECT_EQ(ctrlList.length, 2u);
    SMMutexUnLock(dataMutex);
}

TEST_F(RefreshTest, ARescanHoldsTheLockUntilItIsDoneThenRebuilds)
{
    serve(controllers(1));
    start();
    ASSERT_TRUE(eventually([&] { return initialised(); }));
    std::string error;
    ASSERT_TRUE(kelp::ds::addObjects(object(9, "adapters", 0, {{"Nexus", "9"}}), &error)) << error;
    ASSERT_EQ(SMEventSet(rescanEvent), 0u);
    // The thread takes the lock and keeps it while the rescan runs.
    ASSERT_TRUE(eventually([&] { return lockedElsewhere(); }));
    std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(lockedElsewhere());
    EXPECT_EQ(ctrlList.length, 1u);
    ASSERT_EQ(SMEventSet(rescanDoneEvent), 0u);
    ASSERT_EQ(SMMutexLock(dataMutex, 20000), 0u);
    EXPECT_EQ(ctrlList.length, 2u);
    EXPECT_LT(refreshTicks.load(), 1000);
    SMMutexUnLock(dataMutex);
}

TEST_F(RefreshTest, ARescanDuringAPeriodicCheckRunsOnTheNextPass)
{
    serve(controllers(1));
    start("SNMPRefreshMinutes=1\n");
    ASSERT_TRUE(eventually([&] { return logged("tEvtFunc: Flag to rebuild is not set.\n"); }));
    ASSERT_EQ(SMEventSet(rescanDoneEvent), 0u); // the rescan is already complete
    ASSERT_EQ(SMEventSet(rescanEvent), 0u);
    ASSERT_TRUE(eventually([&] { return logged("rebuildAllStep2: Exit"); }));
}

TEST_F(RefreshTest, StopWhileWaitingForTheRescanEndsAtOnceWithTheLockHeld)
{
    serve(controllers(1));
    start();
    ASSERT_TRUE(eventually([&] { return initialised(); }));
    ASSERT_EQ(SMEventSet(rescanEvent), 0u);
    ASSERT_TRUE(eventually([&] { return lockedElsewhere(); }));
    const auto begin = std::chrono::steady_clock::now();
    stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
    EXPECT_TRUE(logged("tEvtFunc: Just set eEvtFuncEnd while waiting for rescan complete\n"));
    EXPECT_TRUE(lockedElsewhere());
}

class GlobalStatusTest : public ModelTest {};

TEST_F(GlobalStatusTest, AnEmptyControllerTableGivesThreeAndLeavesPrevious)
{
    uint32_t current = 5, previous = 4;
    EXPECT_EQ(getGlobalSystemStatus(&current, &previous), 3u);
    EXPECT_EQ(current, 3u);
    EXPECT_EQ(previous, 4u);
}

TEST_F(GlobalStatusTest, TheMostSevereControllerWins)
{
    serve(object(1, "adapters", 0, {{"Nexus", "0"}, {"TreeStatus", "1"}}) +
          object(2, "adapters", 0, {{"Nexus", "1"}, {"TreeStatus", "3"}}) +
          object(3, "adapters", 0, {{"Nexus", "2"}, {"TreeStatus", "2"}}));
    ASSERT_EQ(buildAll(), 0);
    uint32_t current = 0, previous = 0;
    EXPECT_EQ(getGlobalSystemStatus(&current, &previous), 4u);
    EXPECT_EQ(current, 4u);
    EXPECT_EQ(previous, 0u); // the first change records the old (unknown) status

    std::string error;
    ASSERT_TRUE(kelp::ds::setAttribute(2, "TreeStatus", "1", &error)) << error;
    EXPECT_EQ(getGlobalSystemStatus(&current, &previous), 3u);
    EXPECT_EQ(previous, 4u);
    EXPECT_EQ(getGlobalSystemStatus(&current, &previous), 3u);
    EXPECT_EQ(previous, 4u);
}

TEST_F(GlobalStatusTest, AnUnreadableStatusCountsAsOne)
{
    serve(object(1, "adapters", 0, {{"Nexus", "0"}}));
    ASSERT_EQ(buildAll(), 0);
    uint32_t current = 0, previous = 7;
    EXPECT_EQ(getGlobalSystemStatus(&current, &previous), 1u);
    EXPECT_EQ(previous, 0u);
}

} // namespace
