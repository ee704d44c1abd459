// The event monitor: the blocked list, the trap each event maps to, the
// signals to the refresh thread, bad event texts and stopping.
#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "events/event_fixture.h"

namespace {

using Sent = std::vector<std::pair<uint32_t, uint32_t>>; // specific trap, event number

// The traps as (specific trap, event number), checking that each is an
// enterprise-specific trap carrying its event number.
size_t count(const std::string &text, const std::string &part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++n;
    }
    return n;
}

Sent sent(const std::vector<eventspy::Trap> &traps)
{
    Sent out;
    for (const eventspy::Trap &trap : traps) {
        EXPECT_EQ(trap.generic, 6u);
        EXPECT_TRUE(trap.eventIdBound);
        out.emplace_back(trap.specific, trap.eventId);
    }
    return out;
}

class MonitorTest : public EventThreadTest {};

TEST_F(MonitorTest, BlockedAlertsFillTheFirstSlotsAndTheirEventsAreDropped)
{
    queue(event(2048, 769));
    queue(event(2049, 770));
    startMonitor("BlockedAlerts=2048,2049\n");
    ASSERT_TRUE(waitForLog("MonitorEvents: Event:2049 has to be blocked"));
    // Blocked events mark the tables stale all the same.
    EXPECT_EQ(rebuildNeeded, 1u);

    queue(event(2122, 769));
    EXPECT_EQ(sent(eventspy::waitForTraps(1)), (Sent{{1305, 2122}}));
    const std::string log = debugText();
    EXPECT_NE(log.find("MonitorEvents:buffer:2048,2049\t ret:0\n"), std::string::npos);
    EXPECT_NE(log.find("MonitorEvents: alertID[0] is 2048\n"), std::string::npos);
    EXPECT_NE(log.find("MonitorEvents: alertID[1] is 2049\n"), std::string::npos);
    for (int slot = 2; slot < 10; ++slot) {
        EXPECT_NE(log.find("MonitorEvents: alertID[" + std::to_string(slot) + "] is 0\n"),
                  std::string::npos)
            << slot;
    }
    EXPECT_NE(log.find("MonitorEvents: comparing alertID[0]:2048 with 2048\n"
                       "MonitorEvents: Event:2048 has to be blocked"),
              std::string::npos);
    EXPECT_NE(log.find("MonitorEvents: comparing alertID[1]:2049 with 2049\n"
                       "MonitorEvents: Event:2049 has to be blocked"),
              std::string::npos);
    ASSERT_TRUE(stopMonitor());
    // A blocked event's text is not handed back to the library.
    EXPECT_EQ(eventspy::outstandingTexts(), 2u);
}

TEST_F(MonitorTest, AnEleventhBlockedNumberIsIgnored)
{
    queue(event(10, 769));
    queue(event(11, 769));
    startMonitor("BlockedAlerts=1,2,3,4,5,6,7,8,9,10,11\n");
    EXPECT_EQ(sent(eventspy::waitForTraps(1)), (Sent{{751, 11}}));
    const std::string log = debugText();
    EXPECT_NE(log.find("MonitorEvents: alertID[9] is 10\n"), std::string::npos);
    EXPECT_EQ(log.find("alertID[10]"), std::string::npos);
    EXPECT_NE(log.find("MonitorEvents: Event:10 has to be blocked"), std::string::npos);
    EXPECT_EQ(log.find("MonitorEvents: Event:11 has to be blocked"), std::string::npos);
}

TEST_F(MonitorTest, MissingBlockedAlertsLeaveEverySlotZero)
{
    queue(event(2048, 769));
    startMonitor();
    EXPECT_EQ(sent(eventspy::waitForTraps(1)), (Sent{{754, 2048}}));
    const std::string log = debugText();
    EXPECT_NE(log.find("MonitorEvents:buffer:" + std::string(64, '0') + "\t ret:2\n"),
              std::string::npos);
    for (int slot = 0; slot < 10; ++slot) {
        EXPECT_NE(log.find("MonitorEvents: alertID[" + std::to_string(slot) + "] is 0\n"),
                  std::string::npos)
            << slot;
    }
}

TEST_F(MonitorTest, BlockedAlertsWithBlanksAndGarbageReadLikeNumbers)
{
    queue(event(2048, 769));
    queue(event(2049, 769));
    queue(event(2050, 769));
    startMonitor("BlockedAlerts=\" 2048 , abc, 2049x\"\n");
    EXPECT_EQ(sent(eventspy::waitForTraps(1)), (Sent{{751, 2050}}));
    const std::string log = debugText();
    EXPECT_NE(log.find("MonitorEvents: alertID[0] is 2048\n"), std::string::npos);
    EXPECT_NE(log.find("MonitorEvents: alertID[1] is 0\n"), std::string::npos);
    EXPECT_NE(log.find("MonitorEvents: alertID[2] is 2049\n"), std::string::npos);
    EXPECT_NE(log.find("MonitorEvents: alertID[3] is 0\n"), std::string::npos);
}

TEST_F(MonitorTest, BlockedAlertsWithoutAnyNumberSayNoToken)
{
    size_t expectedLines = 0;
    for (const char *value : {"BlockedAlerts=\n", "BlockedAlerts=,,,\n"}) {
        SCOPED_TRACE(value);
        eventspy::reset();
        stopRequested = 0;
        queue(event(2122, 769));
        startMonitor(value);
        EXPECT_EQ(sent(eventspy::waitForTraps(1)), (Sent{{1305, 2122}}));
        EXPECT_EQ(count(debugText(), "MonitorEvents: not able to get retreive the token\n"),
                  ++expectedLines);
        EXPECT_EQ(count(debugText(), "MonitorEvents: alertID[0] is 0\n"), expectedLines);
        ASSERT_TRUE(stopMonitor());
        dispatch(SM_CMD_UNLOAD);
    }
}

TEST_F(MonitorTest, StateChangeOnATypeWithoutTrapSendsNothingAndConfigurationEventsAlwaysDo)
{
    queue(event(2121, 774));
    queue(event(2122, 774));
    queue("<EventID>2122</EventID>");
    queue(event(2123, 12345));
    queue(event(2124, 769));
    queue(event(2121, 780));
    startMonitor();
    EXPECT_EQ(sent(eventspy::waitForTraps(5)),
              (Sent{{1305, 2122}, {1305, 2122}, {1306, 2123}, {1304, 2124}, {952, 2121}}));
}

TEST_F(MonitorTest, AStateChangeMapsByObjectType)
{
    const std::pair<uint32_t, uint32_t> traps[] = {
        {769, 752}, {770, 802},  {771, 1152}, {772, 902},  {773, 1202},
        {776, 852}, {777, 1102}, {778, 1052}, {779, 1002}, {780, 952}};
    Sent expected;
    for (const auto &[objType, trap] : traps) {
        queue(event(2121, objType));
        expected.emplace_back(trap, 2121);
    }
    // Types with other traps have none for a state change.
    for (const uint32_t objType : std::initializer_list<uint32_t>{775, 785, 786, 791, 793}) {
        queue(event(2121, objType));
    }
    queue(event(2122, 769));
    expected.emplace_back(1305, 2122);
    kelpRuntimeSetTimeScale(1000);
    startMonitor();
    EXPECT_EQ(sent(eventspy::waitForTraps(expected.size())), expected);
}

TEST_F(MonitorTest, AWarningOnAControllerSendsTheExtraTrapFirst)
{
    // A controller's traps count from 750 and a warning (level 2) adds 3:
    // 753, as the state-change table for controllers (752) has it too.
    queue(event(2164, 769));
    startMonitor();
    EXPECT_EQ(sent(eventspy::waitForTraps(2)), (Sent{{101, 2164}, {753, 2164}}));
    EXPECT_NE(debugText().find("MonitorEvents: warningLevelStr= 2"), std::string::npos);
}

TEST_F(MonitorTest, ExtraTrapsGoOutEvenWithoutAMainTrap)
{
    queue(event(2135, 774));
    queue(event(2122, 769));
    startMonitor();
    EXPECT_EQ(sent(eventspy::waitForTraps(2)), (Sent{{103, 2135}, {1305, 2122}}));
}

TEST_F(MonitorTest, ARescanStartSignalsTheRefreshThreadBeforeItsTrap)
{
    std::atomic<int> rescanSetAtTrap{-1};
    eventspy::onTrap([&](const eventspy::Trap &trap) {
        if (trap.specific == 951) {
            rescanSetAtTrap = SMEventWait(rescanEvent, 0) == 0 ? 1 : 0;
        }
    });
    queue(event(3061, 780));
    startMonitor();
    EXPECT_EQ(sent(eventspy::waitForTraps(1)), (Sent{{951, 3061}}));
    EXPECT_EQ(rescanSetAtTrap, 1);
    EXPECT_NE(debugText().find("MonitorEvents: objectType: 780\n"), std::string::npos);
}

TEST_F(MonitorTest, ARescanEndSignalsRescanDone)
{
    // The event queue hands out a rescan end only after its start (and, past
    // a time-out, ends a rescan by itself: long here, for a loaded machine).
    // The start's signal is taken here, as the refresh thread would take it.
    struct LongRescanTimeOut {
        LongRescanTimeOut() { kelpRuntimeSetRescanTimeout(3600); }
        ~LongRescanTimeOut() { kelpRuntimeSetRescanTimeout(0); }
    } longTimeOut;
    eventspy::onTrap([](const eventspy::Trap &trap) {
        if (trap.specific == 951 && trap.eventId == 3061) {
            SMEventWait(rescanEvent, 0);
        }
    });
    queue(event(3061, 780));
    queue(event(3060, 780));
    startMonitor();
    EXPECT_EQ(sent(eventspy::waitForTraps(2)), (Sent{{951, 3061}, {951, 3060}}));
    EXPECT_EQ(SMEventWait(rescanDoneEvent, 0), 0u);
    EXPECT_NE(SMEventWait(rescanEvent, 0), 0u);
}

TEST_F(MonitorTest, UnknownObjectTypesSendNoMainTrap)
{
    for (const uint32_t objType :
         std::initializer_list<uint32_t>{774, 775, 789, 790, 792, 768, 794, 0, 4294967295u}) {
        queue(event(2048, objType));
    }
    queue("<EventID>2048</EventID>");
    queue(event(2122, 769));
    startMonitor();
    EXPECT_EQ(sent(eventspy::waitForTraps(1)), (Sent{{1305, 2122}}));
    EXPECT_NE(debugText().find("MonitorEvents: objectTypeString is NULL.\n"), std::string::npos);
    ASSERT_TRUE(stopMonitor());
    EXPECT_EQ(eventspy::outstandingTexts(), 0u);
}

TEST_F(MonitorTest, EveryTypeWithTrapsMapsSeverityToItsOffset)
{
    // 2048 is critical (+4), 2049 a warning (+3), 2050 information (+1).
    const std::pair<uint32_t, uint32_t> bases[] = {
        {769, 750},  {770, 800},  {771, 1150}, {772, 900},  {785, 900},  {793, 900},
        {773, 1200}, {776, 850},  {777, 1100}, {778, 1050}, {779, 1000}, {780, 950},
        {786, 1600}, {787, 1700}, {788, 1400}, {791, 1500}};
    Sent expected;
    for (const auto &[objType, base] : bases) {
        queue(event(2048, objType));
        queue(event(2049, objType));
        queue(event(2050, objType));
        expected.insert(expected.end(), {{base + 4, 2048}, {base + 3, 2049}, {base + 1, 2050}});
    }
    kelpRuntimeSetTimeScale(1000);
    startMonitor();
    EXPECT_EQ(sent(eventspy::waitForTraps(expected.size())), expected);
}

TEST_F(MonitorTest, AVirtualDiskChangeWaitsForTheTablesButADeletionDoesNot)
{
    queue(event(2054, 773));
    startMonitor();
    EXPECT_EQ(sent(eventspy::waitForTraps(1)), (Sent{{1201, 2054}}));

    queue(event(2053, 773));
    // The level is the last line before the wait.
    ASSERT_TRUE(waitUntil([this] { return count(debugText(), "warningLevelStr= 4") == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(eventspy::traps().size(), 1u);
    SMEventSet(refreshDoneEvent);
    EXPECT_EQ(sent(eventspy::waitForTraps(2)), (Sent{{1201, 2054}, {1201, 2053}}));
}

TEST_F(MonitorTest, AnEmptyQueueIsLogged)
{
    startMonitor();
    EXPECT_TRUE(waitForLog("MonitorEvents: xmlStr was NULL\n"));
    EXPECT_NE(debugText().find("MonitorEvents: xmlStr in hex: 0\n"), std::string::npos);
    EXPECT_TRUE(eventspy::traps().empty());
}

TEST_F(MonitorTest, EventsWithoutANumberAreReleasedAndMalformedOnesDoNoHarm)
{
    // Put at the head of the queue in reverse order, past the queue's own
    // checks, as a faulty library could hand them out. The unclosed element
    // has no value.
    queue(event(2122, 769));
    kelp::ev::requeueOldestEvent("<EventID>2123");
    kelp::ev::requeueOldestEvent("<EventID></EventID><ObjType>769</ObjType>");
    kelp::ev::requeueOldestEvent("<<<>>>&&&");
    kelp::ev::requeueOldestEvent("");
    kelp::ev::requeueOldestEvent("<ObjType>769</ObjType>");
    startMonitor("BlockedAlerts=7\n");
    EXPECT_EQ(sent(eventspy::waitForTraps(1)), (Sent{{1305, 2122}}));
    ASSERT_TRUE(stopMonitor());
    // An empty number reads as event 0, which the slots without a number
    // block; its text stays with the monitor like any blocked event's. The
    // others were released.
    EXPECT_NE(debugText().find("MonitorEvents: Event:0 has to be blocked"), std::string::npos);
    EXPECT_EQ(eventspy::outstandingTexts(), 1u);
    EXPECT_EQ(rebuildNeeded, 1u);
}

TEST_F(MonitorTest, ThousandsOfQueuedEventsAreTakenOneASecond)
{
    constexpr uint32_t kEvents = 2000;
    for (uint32_t i = 0; i < kEvents; ++i) {
        queue(event(2050, 769));
    }
    kelpRuntimeSetTimeScale(10000);
    startMonitor();
    const std::vector<eventspy::Trap> traps = eventspy::waitForTraps(kEvents);
    ASSERT_EQ(traps.size(), kEvents);
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
    ASSERT_TRUE(stopMonitor());
    // Every call of vcsif32_getEvent follows a one-second sleep of its own.
    const std::vector<uint32_t> calls = eventspy::getEventCalls();
    ASSERT_GE(calls.size(), kEvents);
    EXPECT_GE(calls.front(), 1u);
    for (size_t i = 1; i < calls.size(); ++i) {
        ASSERT_GT(calls[i], calls[i - 1]) << i;
    }
    EXPECT_EQ(eventspy::outstandingTexts(), 0u);
}

TEST_F(MonitorTest, StopsWhileEventsKeepArriving)
{
    std::atomic<bool> feeding{true};
    std::thread feeder([&] {
        while (feeding) {
            kelp::ev::queueEvent(event(2050, 769), nullptr);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    startMonitor();
    eventspy::waitForTraps(3);
    EXPECT_TRUE(stopMonitor());
    feeding = false;
    feeder.join();
    EXPECT_GE(eventspy::traps().size(), 3u);
    EXPECT_NE(debugText().find("MonitorEvents: Just set eMonitorEvtEnd\n"), std::string::npos);
    EXPECT_EQ(eventspy::outstandingTexts(), 0u);
}

TEST_F(MonitorTest, StopsWhileWaitingForTheDataStore)
{
    fake::setDataStoreReadyAnswer(false);
    queue(event(2122, 769));
    startMonitor();
    ASSERT_TRUE(waitUntil([] { return fake::dataStoreReadyCalls() >= 2; }));
    EXPECT_TRUE(stopMonitor());
    const std::string log = debugText();
    EXPECT_NE(log.find("MonitorEvents: entry\nMonitorEvents: Just set eMonitorEvtEnd\n"),
              std::string::npos);
    EXPECT_EQ(log.find("MonitorEvents:buffer:"), std::string::npos);
    EXPECT_TRUE(eventspy::traps().empty());
    EXPECT_EQ(kelp::ev::queuedEvents(), 1u);
}

} // namespace
