// The aggregation maps: first occurrences, repeats by event number and nexus,
// first-seen order, clearing, and the cut of long texts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "queue.h"

namespace {

class EventMapsTest : public ::testing::Test {
  protected:
    void SetUp() override { freeEventMaps(); }
    void TearDown() override { freeEventMaps(); }
};

struct Held {
    uint32_t eventId = 0, count = 0, trapId = 0;
    std::string text;
};

Held readAt(uint32_t position, uint32_t *status)
{
    Held h;
    char text[QUEUE_EVENT_TEXT_SIZE];
    std::memset(text, 'z', sizeof text);
    *status = readQEventMaps(&h.eventId, &h.count, text, &h.trapId, position);
    if (*status == 0)
        h.text = text;
    return h;
}

TEST_F(EventMapsTest, FirstOccurrenceAnswers0AndARepeatAnswers1WithCount2)
{
    EXPECT_EQ(InsertEventinQueue(2048, "0:1:2", "msg", "<EventID>2048</EventID>", 1004), 0u);
    EXPECT_EQ(getNumberofEvents(), 1u);
    EXPECT_EQ(InsertEventinQueue(2048, "0:1:2", "msg", "<EventID>2048</EventID>", 1004), 1u);
    EXPECT_EQ(getNumberofEvents(), 1u);
    uint32_t status;
    Held h = readAt(0, &status);
    ASSERT_EQ(status, 0u);
    EXPECT_EQ(h.eventId, 2048u);
    EXPECT_EQ(h.count, 2u);
    EXPECT_EQ(h.trapId, 1004u);
    EXPECT_EQ(h.text, "<EventID>2048</EventID>");
}

TEST_F(EventMapsTest, OtherNexusOrOtherNumberIsANewEvent)
{
    EXPECT_EQ(InsertEventinQueue(2048, "0:1:2", "m", "t", 1), 0u);
    EXPECT_EQ(InsertEventinQueue(2048, "0:1:3", "m", "t", 1), 0u);
    EXPECT_EQ(InsertEventinQueue(2049, "0:1:2", "m", "t", 1), 0u);
    EXPECT_EQ(getNumberofEvents(), 3u);
}

TEST_F(EventMapsTest, EventsAreReadInTheOrderFirstSeen)
{
    InsertEventinQueue(30, "c", "m", "third", 3);
    InsertEventinQueue(10, "a", "m", "first", 1);
    InsertEventinQueue(30, "c", "m", "third again", 3);
    InsertEventinQueue(20, "b", "m", "second", 2);
    InsertEventinQueue(30, "c", "m", "third again", 3);
    uint32_t status;
    Held h0 = readAt(0, &status), h1 = readAt(1, &status), h2 = readAt(2, &status);
    EXPECT_EQ(h0.eventId, 30u);
    EXPECT_EQ(h0.count, 3u);
    EXPECT_EQ(h0.text, "third"); // the first occurrence's text
    EXPECT_EQ(h1.eventId, 10u);
    EXPECT_EQ(h1.count, 1u);
    EXPECT_EQ(h2.eventId, 20u);
    readAt(3, &status);
    EXPECT_EQ(status, 2u);
}

TEST_F(EventMapsTest, FreeEventMapsEmptiesTheMaps)
{
    InsertEventinQueue(1, "n", "m", "t", 1);
    InsertEventinQueue(1, "n", "m", "t", 1);
    freeEventMaps();
    EXPECT_EQ(getNumberofEvents(), 0u);
    uint32_t status;
    readAt(0, &status);
    EXPECT_EQ(status, 2u);
    EXPECT_EQ(InsertEventinQueue(1, "n", "m", "t", 1), 0u); // a first occurrence again
}

TEST_F(EventMapsTest, LongTextIsCutToTheBufferWithItsNul)
{
    std::string text(QUEUE_EVENT_TEXT_SIZE + 100, 'x');
    InsertEventinQueue(7, "n", "m", text.c_str(), 1);
    uint32_t status;
    Held h = readAt(0, &status);
    ASSERT_EQ(status, 0u);
    EXPECT_EQ(h.text, std::string(QUEUE_EVENT_TEXT_SIZE - 1, 'x'));
}

TEST_F(EventMapsTest, NullNexusIsTheEmptyNexus)
{
    EXPECT_EQ(InsertEventinQueue(5, nullptr, nullptr, nullptr, 1), 0u);
    EXPECT_EQ(InsertEventinQueue(5, "", "m", "t", 1), 1u);
    uint32_t status;
    Held h = readAt(0, &status);
    EXPECT_EQ(h.text, "");
    EXPECT_EQ(h.count, 2u);
}

} // namespace
