// The event queue's rules: what a valid event is, the size and count bounds,
// and that a refused event leaves the queue as it was.
#include "eventif/event_queue.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

class EventQueueTest : public ::testing::Test {
  protected:
    void SetUp() override { kelp::ev::clearEvents(); }
    void TearDown() override { kelp::ev::clearEvents(); }
};

TEST_F(EventQueueTest, AcceptsTextsWithADecimalEventId)
{
    const char *good[] = {
        "<EventID>2048</EventID>",
        "<EventID>0</EventID>",
        "<EventID>4294967295</EventID>",
        "<EventID> 2048\n</EventID>",
        "<event><ObjType>773</ObjType><EventID>2100</EventID></event>",
    };
    size_t queued = 0;
    for (const char *xml : good) {
        std::string error;
        EXPECT_TRUE(kelp::ev::queueEvent(xml, &error)) << xml << ": " << error;
        EXPECT_EQ(kelp::ev::queuedEvents(), ++queued);
    }
}

TEST_F(EventQueueTest, RefusesTextsWithoutADecimalEventIdAndQueuesNothing)
{
    struct Case {
        std::string xml;
        const char *message;
    } cases[] = {
        {"", "no EventID"},
        {"<ObjType>773</ObjType>", "no EventID"},
        {"<EventID>2048", "no EventID"}, // not closed
        {"<EventIDs>1</EventIDs>", "no EventID"},
        {"<EventID></EventID>", "not a decimal number"},
        {"<EventID/>", "not a decimal number"},
        {"<EventID>abc</EventID>", "not a decimal number"},
        {"<EventID>-1</EventID>", "not a decimal number"},
        {"<EventID>+1</EventID>", "not a decimal number"},
        {"<EventID>0x10</EventID>", "not a decimal number"},
        {"<EventID>12 34</EventID>", "not a decimal number"},
        {"<EventID>4294967296</EventID>", "not a decimal number"},
        {"<EventID>99999999999999999999999</EventID>", "not a decimal number"},
        {std::string("<EventID>1</EventID>\0<x/>", 25), "NUL"},
    };
    for (const auto &c : cases) {
        std::string error;
        EXPECT_FALSE(kelp::ev::queueEvent(c.xml, &error)) << c.xml;
        EXPECT_NE(error.find(c.message), std::string::npos) << c.xml << ": " << error;
    }
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
}

TEST_F(EventQueueTest, RefusesTextsOver16KiB)
{
    const std::string head = "<EventID>1</EventID><Parm01>";
    const std::string tail = "</Parm01>";
    std::string fits =
        head + std::string(kelp::ev::kMaxEventBytes - head.size() - tail.size(), 'x') + tail;
    ASSERT_EQ(fits.size(), kelp::ev::kMaxEventBytes);
    std::string error;
    EXPECT_TRUE(kelp::ev::queueEvent(fits, &error)) << error;

    std::string over = head + std::string(kelp::ev::kMaxEventBytes, 'x') + tail;
    EXPECT_FALSE(kelp::ev::queueEvent(over, &error));
    EXPECT_NE(error.find("more than 16384"), std::string::npos) << error;
    EXPECT_EQ(kelp::ev::queuedEvents(), 1u);
}

TEST_F(EventQueueTest, FullQueueRefusesAndKeepsWhatItHolds)
{
    for (size_t i = 0; i < kelp::ev::kMaxQueuedEvents; ++i)
        ASSERT_TRUE(kelp::ev::queueEvent("<EventID>" + std::to_string(i) + "</EventID>", nullptr));
    std::string error;
    EXPECT_FALSE(kelp::ev::queueEvent("<EventID>1</EventID>", &error));
    EXPECT_NE(error.find("full"), std::string::npos) << error;
    EXPECT_EQ(kelp::ev::queuedEvents(), kelp::ev::kMaxQueuedEvents);
    EXPECT_EQ(kelp::ev::takeOldestEvent(), "<EventID>0</EventID>");
    EXPECT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", &error)) << error;
}

TEST_F(EventQueueTest, QueueOfLargeEventsRefusesPastItsByteBound)
{
    const std::string head = "<EventID>1</EventID><Parm01>";
    const std::string tail = "</Parm01>";
    const std::string largest =
        head + std::string(kelp::ev::kMaxEventBytes - head.size() - tail.size(), 'x') + tail;
    const size_t fit = kelp::ev::kMaxQueuedBytes / largest.size();
    ASSERT_LT(fit, kelp::ev::kMaxQueuedEvents) << "the byte bound is the one reached here";
    for (size_t i = 0; i < fit; ++i)
        ASSERT_TRUE(kelp::ev::queueEvent(largest, nullptr)) << i;
    std::string error;
    EXPECT_FALSE(kelp::ev::queueEvent(largest, &error));
    EXPECT_NE(error.find("event queue is full"), std::string::npos) << error;
    EXPECT_NE(error.find("bytes"), std::string::npos) << error;
    EXPECT_EQ(kelp::ev::queuedEvents(), fit);
    // Taking one out makes room for one again.
    ASSERT_TRUE(kelp::ev::takeOldestEvent());
    EXPECT_TRUE(kelp::ev::queueEvent(largest, &error)) << error;
    kelp::ev::clearEvents();
    EXPECT_TRUE(kelp::ev::queueEvent(largest, &error)) << error;
}

TEST_F(EventQueueTest, SeveralEventsAreQueuedAllOrNone)
{
    std::string error;
    EXPECT_TRUE(
        kelp::ev::queueEvents({"<EventID>3061</EventID>", "<EventID>3060</EventID>"}, &error))
        << error;
    EXPECT_FALSE(kelp::ev::queueEvents({"<EventID>1</EventID>", "<EventID>x</EventID>"}, &error));
    EXPECT_NE(error.find("not a decimal number"), std::string::npos) << error;
    EXPECT_EQ(kelp::ev::queuedEvents(), 2u);

    while (kelp::ev::queuedEvents() + 1 < kelp::ev::kMaxQueuedEvents)
        ASSERT_TRUE(kelp::ev::queueEvent("<EventID>7</EventID>", nullptr));
    EXPECT_FALSE(
        kelp::ev::queueEvents({"<EventID>3061</EventID>", "<EventID>3060</EventID>"}, &error));
    EXPECT_NE(error.find("event queue is full"), std::string::npos) << error;
    EXPECT_EQ(kelp::ev::queuedEvents(), kelp::ev::kMaxQueuedEvents - 1);
    EXPECT_EQ(kelp::ev::takeOldestEvent(), "<EventID>3061</EventID>");
    EXPECT_EQ(kelp::ev::takeOldestEvent(), "<EventID>3060</EventID>");
}

TEST_F(EventQueueTest, EventNumberReadsTheFirstEventIdAsTheQueueDoes)
{
    struct Case {
        const char *xml;
        std::optional<uint32_t> number;
    } cases[] = {
        {"<EventID>3061</EventID>", 3061},
        {"<EventID> 3060\n</EventID>", 3060},
        {"<event><ObjType>773</ObjType><EventID>0</EventID></event>", 0},
        {"<EventID>4294967295</EventID>", 4294967295u},
        {"<EventID>7</EventID><EventID>8</EventID>", 7},
        {"", std::nullopt},
        {"<EventIDs>1</EventIDs>", std::nullopt},
        {"<EventID>4294967296</EventID>", std::nullopt},
        {"<EventID>30 61</EventID>", std::nullopt},
        {"<EventID>&#51;</EventID>", std::nullopt},
    };
    for (const auto &c : cases)
        EXPECT_EQ(kelp::ev::eventNumber(c.xml), c.number) << c.xml;
}

TEST_F(EventQueueTest, ClearDropsEverything)
{
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", nullptr));
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>2</EventID>", nullptr));
    kelp::ev::clearEvents();
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
    EXPECT_EQ(kelp::ev::takeOldestEvent(), std::nullopt);
}

TEST_F(EventQueueTest, RequeuedEventComesOutFirstAgain)
{
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", nullptr));
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>2</EventID>", nullptr));
    auto first = kelp::ev::takeOldestEvent();
    ASSERT_TRUE(first);
    kelp::ev::requeueOldestEvent(*first);
    EXPECT_EQ(kelp::ev::takeOldestEvent(), "<EventID>1</EventID>");
    EXPECT_EQ(kelp::ev::takeOldestEvent(), "<EventID>2</EventID>");
}

} // namespace
