// The live rescan's log line: its cause and time always, the per-type
// counts that moved and the events queued when anything changed.
#include "datastore/live/rescan_line.h"

#include <gtest/gtest.h>

namespace kelp::live {
namespace {

size_t typeIndex(const char *name)
{
    return static_cast<size_t>(ds::objectTypeIndex(name));
}

TEST(RescanLine, NothingChangedSaysSo)
{
    RescanReport report;
    report.cause = "every 30 s";
    report.ms = 12.345;
    report.before[typeIndex("arraydisks")] = 4;
    report.after = report.before;
    EXPECT_FALSE(rescanChanged(report));
    EXPECT_EQ(rescanLine(report), "live rescan (every 30 s): 12.3 ms; nothing changed");
}

TEST(RescanLine, CountsThatMovedAndEventsAreNamed)
{
    struct Case {
        const char *type;
        size_t before, after;
        std::vector<uint32_t> events;
        std::string queueError;
        std::string line;
    };
    const Case cases[] = {
        {"arraydisks",
         4,
         3,
         {3061, 3060, 2049},
         "",
         "live rescan (udev device events): 1.0 ms; arraydisks 4 -> 3; events 3061, 3060, "
         "2049 queued"},
        {"fans", 2, 2, {2150}, "", "live rescan (udev device events): 1.0 ms; event 2150 queued"},
        {"vdisks",
         0,
         1,
         {3061, 3060, 2053},
         "the queue is full",
         "live rescan (udev device events): 1.0 ms; vdisks 0 -> 1; events 3061, 3060, 2053 not "
         "queued: the queue is full"},
    };
    for (const Case &c : cases) {
        RescanReport report;
        report.cause = "udev device events";
        report.ms = 1;
        report.before[typeIndex(c.type)] = c.before;
        report.after[typeIndex(c.type)] = c.after;
        report.events = c.events;
        report.queueError = c.queueError;
        EXPECT_TRUE(rescanChanged(report));
        EXPECT_EQ(rescanLine(report), c.line);
    }
}

TEST(EventIdOf, ReadsTheNumberOrRefuses)
{
    uint32_t id = 0;
    EXPECT_TRUE(eventIdOf("<EventID>2049</EventID><Nexus>x</Nexus>", &id));
    EXPECT_EQ(id, 2049u);
    EXPECT_TRUE(eventIdOf("<EventID>4294967295</EventID>", &id));
    EXPECT_EQ(id, 4294967295u);
    EXPECT_FALSE(eventIdOf("<EventID>4294967296</EventID>", &id));
    EXPECT_FALSE(eventIdOf("<EventID></EventID>", &id));
    EXPECT_FALSE(eventIdOf("<EventID>", &id));
    EXPECT_FALSE(eventIdOf("", &id));
}

} // namespace
} // namespace kelp::live
