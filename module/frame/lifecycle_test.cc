// Load, unload, and the start and stop of the worker threads.
#include <chrono>

#include "testing/frame_fixture.h"

namespace {

class LifecycleTest : public FrameTest {};

TEST_F(LifecycleTest, LoadCreatesTheMutexAndFiveDistinctEvents)
{
    ASSERT_EQ(load(), 0u);
    ASSERT_NE(dataMutex, nullptr);
    const SMEventHandle events[] = {rescanEvent, rescanDoneEvent, eMonitorEvtEnd, eEvtFuncEnd,
                                    refreshDoneEvent};
    for (size_t i = 0; i < 5; i++) {
        ASSERT_NE(events[i], nullptr) << i;
        for (size_t j = 0; j < i; j++) {
            EXPECT_NE(events[i], events[j]);
        }
        // Auto-reset and not set.
        EXPECT_EQ(SMEventWait(events[i], 0), 3u);
        EXPECT_EQ(SMEventSet(events[i]), 0u);
        EXPECT_EQ(SMEventWait(events[i], 0), 0u);
        EXPECT_EQ(SMEventWait(events[i], 0), 3u);
    }
    EXPECT_EQ(SMMutexLock(dataMutex, 0), 0u);
    EXPECT_EQ(SMMutexUnLock(dataMutex), 0u);
}

TEST_F(LifecycleTest, UnloadDestroysTheEventsAndTheMutex)
{
    ASSERT_EQ(load(), 0u);
    ASSERT_EQ(dispatch(SM_CMD_UNLOAD), 0u);
    EXPECT_EQ(dataMutex, nullptr);
    EXPECT_EQ(rescanEvent, nullptr);
    EXPECT_EQ(refreshDoneEvent, nullptr);
}

TEST_F(LifecycleTest, LoadAndUnloadPrintTheirLinesInOrder)
{
    ASSERT_EQ(load(), 0u);
    ASSERT_EQ(dispatch(SM_CMD_UNLOAD), 0u);
    EXPECT_EQ(debugText(), "MIBImplementerLoad: entry\n"
                           "KelpmibAttach: entry\n"
                           "MIBImplementerLoad: exit\n"
                           "MIBImplementerUnload: entry\n"
                           "KelpmibDetach: entry\n"
                           "KelpmibDetach: exit\n"
                           "MIBImplementerUnload: exit\n");
}

TEST_F(LifecycleTest, UnloadEndsDebugPrinting)
{
    ASSERT_EQ(load(), 0u);
    ASSERT_EQ(dispatch(SM_CMD_UNLOAD), 0u);
    const std::string before = debugText();
    VscilDebugPrint("after unload\n");
    EXPECT_EQ(debugText(), before);
}

TEST_F(LifecycleTest, ListMibPrintsItsLines)
{
    ASSERT_EQ(load(), 0u);
    alignas(8) unsigned char out[16];
    ASSERT_EQ(dispatch(SM_CMD_LIST_MIB, nullptr, 0, out, sizeof out), 0u);
    EXPECT_NE(debugText().find("KelpmibListMib: entry\nKelpmibListMib: exit\n"), std::string::npos);
}

TEST_F(LifecycleTest, WithoutAggregationStopStillStopsTheNullAggregationThread)
{
    ASSERT_EQ(load(), 0u);
    ASSERT_EQ(g_bAggregateEvents, 0u);
    uint32_t used = 9;
    ASSERT_EQ(dispatch(SM_CMD_START_MONITOR, nullptr, 0, nullptr, 0, &used), 0u);
    EXPECT_EQ(used, 0u);
    const SMThreadHandle monitor = g_hMonitorThread;
    const SMThreadHandle refresh = g_hRefreshThread;
    ASSERT_NE(monitor, nullptr);
    ASSERT_NE(refresh, nullptr);
    EXPECT_EQ(g_hAggregateThread, nullptr);

    ASSERT_EQ(dispatch(SM_CMD_STOP_MONITOR, nullptr, 0, nullptr, 0, &used), 0u);
    EXPECT_EQ(used, 0u);
    const std::vector<SMThreadHandle> expected{monitor, nullptr, refresh};
    EXPECT_EQ(fake::threadStops(), expected);
    EXPECT_EQ(stopRequested.load(), 1u);
}

TEST_F(LifecycleTest, WithAggregationThreeThreadsStartAndStopInOrder)
{
    writeIni("[general]\nDebugSNMP=On\n[vcsipe]\nAggregateEvents=On\n");
    ASSERT_EQ(load(), 0u);
    ASSERT_EQ(dispatch(SM_CMD_START_MONITOR), 0u);
    const SMThreadHandle monitor = g_hMonitorThread;
    const SMThreadHandle aggregate = g_hAggregateThread;
    const SMThreadHandle refresh = g_hRefreshThread;
    ASSERT_NE(aggregate, nullptr);

    // The aggregation thread sleeps 55 s between passes; stopping it must
    // not wait for that.
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(dispatch(SM_CMD_STOP_MONITOR), 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    const std::vector<SMThreadHandle> expected{monitor, aggregate, refresh};
    EXPECT_EQ(fake::threadStops(), expected);
}

TEST_F(LifecycleTest, StartAndStopPrintTheirLines)
{
    ASSERT_EQ(load(), 0u);
    ASSERT_EQ(dispatch(SM_CMD_START_MONITOR), 0u);
    ASSERT_EQ(dispatch(SM_CMD_STOP_MONITOR), 0u);
    const std::string text = debugText();
    // The started threads print lines of their own in between.
    const size_t startEntry = text.find("KelpmibStartMonitor: entry\n");
    const size_t startExit = text.find("KelpmibStartMonitor: exit\n");
    ASSERT_NE(startEntry, std::string::npos);
    ASSERT_NE(startExit, std::string::npos);
    EXPECT_LT(startEntry, startExit);
    // The threads still run while the stop begins, so their lines may fall between the two.
    const size_t stopEntry = text.find("MIBImplementerStopMonitor: entry\n");
    const size_t innerStopEntry = text.find("KelpmibStopMonitor: entry\n");
    ASSERT_NE(stopEntry, std::string::npos);
    ASSERT_NE(innerStopEntry, std::string::npos);
    EXPECT_LT(startExit, stopEntry);
    EXPECT_LT(stopEntry, innerStopEntry) << text;
    const std::string endLines = "MIBImplementerStopMonitor: Just stopped threads\n"
                                 "KelpmibStopMonitor: exit\n"
                                 "MIBImplementerStopMonitor: exit\n";
    EXPECT_EQ(text.substr(text.size() - endLines.size()), endLines);
    EXPECT_NE(text.find("tEvtFunc: Just set eEvtFuncEnd\n"), std::string::npos);
    EXPECT_NE(text.find("MonitorEvents: Just set eMonitorEvtEnd\n"), std::string::npos);
}

} // namespace
