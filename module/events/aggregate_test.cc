// The aggregation thread: when a pass comes for each interval, which held
// events it sends, and the interval read from the ini file.
#include <string>
#include <utility>
#include <vector>

#include "events/event_fixture.h"
#include "platform/queue.h"

namespace {

// A trap as (specific trap, event number, wake-ups before it was sent).
struct Summary {
    uint32_t specific;
    uint32_t eventId;
    uint32_t wakeUps;
    bool operator==(const Summary &) const = default;
};

void PrintTo(const Summary &s, std::ostream *out)
{
    *out << "{" << s.specific << ", " << s.eventId << ", wake-up " << s.wakeUps << "}";
}

std::vector<Summary> summaries(const std::vector<eventspy::Trap> &traps)
{
    std::vector<Summary> out;
    for (const eventspy::Trap &trap : traps) {
        EXPECT_EQ(trap.generic, 6u);
        EXPECT_TRUE(trap.eventIdBound);
        out.push_back({trap.specific, trap.eventId, trap.wakeUps});
    }
    return out;
}

// Holds `times` occurrences of one event (number and nexus) in the maps.
void hold(uint32_t eventId, const char *nexus, uint32_t trapNumber, uint32_t times)
{
    const std::string xml =
        "<EventID>" + std::to_string(eventId) + "</EventID><Nexus>" + nexus + "</Nexus>";
    for (uint32_t i = 0; i < times; ++i) {
        InsertEventinQueue(eventId, nexus, "message", xml.c_str(), trapNumber);
    }
}

class AggregateTest : public EventThreadTest {};

TEST_F(AggregateTest, WithoutAnIntervalEveryWakeUpIsAPassAndSingleEventsAreDropped)
{
    hold(2049, "pd:1", 802, 3);
    hold(2050, "pd:2", 751, 1);
    eventspy::onWakeUp([](uint32_t wakeUps) {
        if (wakeUps == 1) {
            hold(2051, "pd:3", 802, 2);
        } else if (wakeUps == 2) {
            hold(2052, "pd:4", 751, 1);
            hold(2076, "pd:5", 751, 4);
        }
    });
    startAggregation();
    const std::vector<Summary> traps = summaries(eventspy::waitForTraps(3));
    EXPECT_EQ(traps, (std::vector<Summary>{{802, 2049, 0}, {802, 2051, 1}, {751, 2076, 2}}));
    ASSERT_TRUE(waitUntil([] { return eventspy::wakeUps() >= 3; }));
    stopAggregation();
    EXPECT_EQ(EventAggregateInteval, 0u);
    EXPECT_EQ(getNumberofEvents(), 0u);
    EXPECT_EQ(eventspy::traps().size(), 3u);
}

TEST_F(AggregateTest, AnIntervalOfZeroIsAPassAtOnce)
{
    hold(2049, "pd:1", 802, 2);
    startAggregation("EventAggregateInteval=0\n");
    EXPECT_EQ(summaries(eventspy::waitForTraps(1)), (std::vector<Summary>{{802, 2049, 0}}));
}

TEST_F(AggregateTest, AnIntervalOfOneMinutePassesAtTheSecondWakeUp)
{
    hold(2049, "pd:1", 802, 2);
    hold(2050, "pd:2", 751, 1);
    eventspy::onWakeUp([](uint32_t wakeUps) {
        if (wakeUps == 1) {
            // Nothing was sent at 55 seconds, and nothing was freed.
            EXPECT_TRUE(eventspy::traps().empty());
            EXPECT_EQ(getNumberofEvents(), 2u);
        } else if (wakeUps == 3) {
            hold(2051, "pd:3", 1003, 2);
        }
    });
    startAggregation("EventAggregateInteval=1\n");
    // The period reopens at the third wake-up, so its pass is at the fifth.
    EXPECT_EQ(summaries(eventspy::waitForTraps(2)),
              (std::vector<Summary>{{802, 2049, 2}, {1003, 2051, 5}}));
    stopAggregation();
    EXPECT_EQ(EventAggregateInteval, 1u);
}

TEST_F(AggregateTest, AnIntervalThatIsNoNumberReadsAsZero)
{
    for (const char *line :
         {"EventAggregateInteval=-5\n", "EventAggregateInteval=abc\n",
          "EventAggregateInteval=99999999999\n", "EventAggregateInteval=4294967296\n",
          "EventAggregateInteval=\n", "EventAggregateInteval=2x\n"}) {
        SCOPED_TRACE(line);
        eventspy::reset();
        stopRequested = 0;
        EventAggregateInteval = 7;
        hold(2049, "pd:1", 802, 2);
        startAggregation(line);
        EXPECT_EQ(summaries(eventspy::waitForTraps(1)), (std::vector<Summary>{{802, 2049, 0}}));
        stopAggregation();
        EXPECT_EQ(EventAggregateInteval, 0u);
        dispatch(SM_CMD_UNLOAD);
    }
}

TEST_F(AggregateTest, AHugeIntervalHoldsTheEvents)
{
    hold(2049, "pd:1", 802, 2);
    hold(2050, "pd:2", 751, 1);
    startAggregation("EventAggregateInteval= 4294967295 \n");
    ASSERT_TRUE(waitUntil([] { return eventspy::wakeUps() >= 3; }));
    stopAggregation();
    EXPECT_EQ(EventAggregateInteval, 4294967295u);
    EXPECT_TRUE(eventspy::traps().empty());
    EXPECT_EQ(getNumberofEvents(), 2u);
}

TEST_F(AggregateTest, AStopRequestedBeforeTheStartEndsTheThreadWithoutAPass)
{
    hold(2049, "pd:1", 802, 2);
    stopRequested = 1;
    startAggregation("EventAggregateInteval=5\n");
    stopAggregation();
    EXPECT_EQ(EventAggregateInteval, 5u);
    EXPECT_TRUE(eventspy::traps().empty());
    EXPECT_EQ(eventspy::wakeUps(), 0u);
    EXPECT_EQ(getNumberofEvents(), 1u);
}

} // namespace
