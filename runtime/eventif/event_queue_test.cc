// The event queue's rules: what a valid event is, the size and count bounds,
// and that a refused event leaves the queue as it was.
#include "eventif/event_queue.h"

#include <gtest/gtest.h>

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
