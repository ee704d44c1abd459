// A fixture for tests of the event threads: the module loaded with a service
// table whose trap send records (event_spy.h), the event queue and the
// aggregation maps empty, and the threads started and stopped by the test.
#ifndef KELP_MODULE_EVENTS_EVENT_FIXTURE_H
#define KELP_MODULE_EVENTS_EVENT_FIXTURE_H

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "eventif/event_queue.h"
#include "events/event_spy.h"
#include "events/workers.h"
#include "frame/state.h"
#include "store/refresh.h"
#include "testing/frame_fixture.h"

class EventThreadTest : public FrameTest {
  protected:
    void SetUp() override
    {
        FrameTest::SetUp();
        eventspy::reset();
        kelp::ev::clearEvents();
        freeEventMaps();
        rebuildNeeded = 0;
        savedClock_ = g_aggregateClock;
        services_[SM_SERVICE_TRAP_SEND] = reinterpret_cast<void *>(eventspy::recordTrap);
    }

    void TearDown() override
    {
        stopThreads();
        eventspy::releaseOutstanding();
        eventspy::reset();
        kelp::ev::clearEvents();
        freeEventMaps();
        g_aggregateClock = savedClock_;
        FrameTest::TearDown();
    }

    // Loads the module with these lines in section "vcsipe" of the ini file
    // (debug printing on).
    void loadWith(const std::string &vcsipeLines)
    {
        writeIni("[general]\nDebugSNMP=On\n[vcsipe]\n" + vcsipeLines);
        ASSERT_EQ(load(services_, 1), 0u);
    }

    void startMonitor(const std::string &vcsipeLines = "")
    {
        loadWith(vcsipeLines);
        monitor_ = SMThreadStart(MonitorEvents, nullptr);
        ASSERT_NE(monitor_, nullptr);
    }

    void startAggregation(const std::string &vcsipeLines = "")
    {
        loadWith(vcsipeLines);
        g_aggregateClock = eventspy::aggregationClock;
        aggregator_ = SMThreadStart(AggregateEventsThread, nullptr);
        ASSERT_NE(aggregator_, nullptr);
    }

    // Asks the monitor to stop and waits (bounded) for eMonitorEvtEnd; true
    // when it was set. The thread is then stopped.
    bool stopMonitor()
    {
        if (monitor_ == nullptr) {
            return true;
        }
        stopRequested = 1;
        const bool ended = SMEventWait(eMonitorEvtEnd, 600000) == 0;
        SMThreadStop(monitor_);
        monitor_ = nullptr;
        return ended;
    }

    void stopAggregation()
    {
        stopRequested = 1;
        SMThreadStop(aggregator_);
        aggregator_ = nullptr;
    }

    void stopThreads()
    {
        EXPECT_TRUE(stopMonitor());
        stopAggregation();
    }

    static std::string event(uint32_t eventId, uint32_t objType)
    {
        return "<EventID>" + std::to_string(eventId) + "</EventID><ObjType>" +
               std::to_string(objType) + "</ObjType>";
    }

    static void queue(const std::string &xml)
    {
        std::string error;
        ASSERT_TRUE(kelp::ev::queueEvent(xml, &error)) << error;
    }

    // Waits (a minute at most) until the debug file holds `text`.
    bool waitForLog(const std::string &text) const
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (debugText().find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    // Waits (a minute at most) until `done` holds.
    template <typename Done> static bool waitUntil(Done done)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (!done()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return true;
    }

    void *services_[SM_SERVICE_COUNT] = {};
    SMThreadHandle monitor_ = nullptr;
    SMThreadHandle aggregator_ = nullptr;
    int64_t (*savedClock_)(void) = nullptr;
};

#endif // KELP_MODULE_EVENTS_EVENT_FIXTURE_H
