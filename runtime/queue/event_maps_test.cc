// The aggregation maps: first occurrences, repeats by event number, nexus and
// trap number, first-seen order, clearing, the cut of long texts, and the bounds on what
// they hold.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "queue.h"
#include "queue/event_maps.h"

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

TEST_F(EventMapsTest, OtherTrapNumberIsANewEvent)
{
    // An event sent as an extra trap first and then as its main trap: the
    // main trap is a first occurrence too, and each counts its own repeats.
    EXPECT_EQ(InsertEventinQueue(2164, "0", "m", "extra", 101), 0u);
    EXPECT_EQ(InsertEventinQueue(2164, "0", "m", "main", 753), 0u);
    EXPECT_EQ(getNumberofEvents(), 2u);
    EXPECT_EQ(InsertEventinQueue(2164, "0", "m", "extra again", 101), 1u);
    EXPECT_EQ(InsertEventinQueue(2164, "0", "m", "main again", 753), 1u);
    EXPECT_EQ(InsertEventinQueue(2164, "0", "m", "main again", 753), 1u);
    EXPECT_EQ(getNumberofEvents(), 2u);
    uint32_t status;
    const Held extra = readAt(0, &status), main = readAt(1, &status);
    EXPECT_EQ(extra.trapId, 101u);
    EXPECT_EQ(extra.count, 2u);
    EXPECT_EQ(extra.text, "extra");
    EXPECT_EQ(main.trapId, 753u);
    EXPECT_EQ(main.count, 3u);
    EXPECT_EQ(main.text, "main");
}

TEST_F(EventMapsTest, ARepeatNeedsNumberNexusAndTrapNumberAllEqual)
{
    EXPECT_EQ(InsertEventinQueue(7, "a", "m", "t", 9), 0u);
    EXPECT_EQ(InsertEventinQueue(7, "a", "m", "t", 10), 0u);
    EXPECT_EQ(InsertEventinQueue(7, "b", "m", "t", 9), 0u);
    EXPECT_EQ(InsertEventinQueue(8, "a", "m", "t", 9), 0u);
    EXPECT_EQ(InsertEventinQueue(7, "a", "m", "t", 0xFFFFFFFFu), 0u);
    EXPECT_EQ(InsertEventinQueue(9, "a", "m", "t", 7), 0u) << "number and trap swapped";
    EXPECT_EQ(getNumberofEvents(), 6u);
    EXPECT_EQ(InsertEventinQueue(7, "a", "m", "other text", 9), 1u);
    EXPECT_EQ(InsertEventinQueue(7, "a", nullptr, nullptr, 10), 1u);
    EXPECT_EQ(getNumberofEvents(), 6u);
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

TEST_F(EventMapsTest, NullTextBufferAnswers5AndOtherOutputsMayBeNull)
{
    InsertEventinQueue(9, "n", "m", "text", 4);
    EXPECT_EQ(readQEventMaps(nullptr, nullptr, nullptr, nullptr, 0), 5u);
    char text[QUEUE_EVENT_TEXT_SIZE];
    EXPECT_EQ(readQEventMaps(nullptr, nullptr, text, nullptr, 0), 0u);
    EXPECT_STREQ(text, "text");
    EXPECT_EQ(readQEventMaps(nullptr, nullptr, text, nullptr, 0xFFFFFFFFu), 2u);
}

TEST_F(EventMapsTest, ThousandsOfDistinctEventsStopAtTheBoundAndAreSentInstead)
{
    using kelp::queue::kMaxHeldEvents;
    for (uint32_t i = 0; i < kMaxHeldEvents; ++i)
        ASSERT_EQ(InsertEventinQueue(1000 + i, "0:1", "m", "t", 7), 0u) << i;
    EXPECT_EQ(getNumberofEvents(), kMaxHeldEvents);

    // Full: new distinct events are answered 0 (sent now) and not held, so a
    // repeat of one is sent again rather than held back for good.
    for (uint32_t i = 0; i < 3 * kMaxHeldEvents; ++i)
        ASSERT_EQ(InsertEventinQueue(900000 + i, "0:1", "m", "t", 7), 0u) << i;
    EXPECT_EQ(InsertEventinQueue(900000, "0:1", "m", "t", 7), 0u);
    EXPECT_EQ(getNumberofEvents(), kMaxHeldEvents);

    // Held ones go on being counted, in their places.
    EXPECT_EQ(InsertEventinQueue(1000, "0:1", "m", "t", 7), 1u);
    EXPECT_EQ(InsertEventinQueue(1000 + kMaxHeldEvents - 1, "0:1", "m", "t", 7), 1u);
    uint32_t status;
    Held first = readAt(0, &status);
    EXPECT_EQ(first.eventId, 1000u);
    EXPECT_EQ(first.count, 2u);
    Held last = readAt(kMaxHeldEvents - 1, &status);
    ASSERT_EQ(status, 0u);
    EXPECT_EQ(last.eventId, 1000 + kMaxHeldEvents - 1);
    EXPECT_EQ(last.count, 2u);
    readAt(kMaxHeldEvents, &status);
    EXPECT_EQ(status, 2u);

    // A new period holds new events again.
    freeEventMaps();
    EXPECT_EQ(InsertEventinQueue(900000, "0:1", "m", "t", 7), 0u);
    EXPECT_EQ(InsertEventinQueue(900000, "0:1", "m", "t", 7), 1u);
    EXPECT_EQ(getNumberofEvents(), 1u);
}

TEST_F(EventMapsTest, ManyDistinctEventsAndRepeatsAreQuick)
{
    // Each insert is one look-up: a full map and many repeats take well
    // under a second even in a sanitizer build.
    using kelp::queue::kMaxHeldEvents;
    const std::string text(QUEUE_EVENT_TEXT_SIZE + 10, 'q');
    auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 10; ++round) {
        for (uint32_t i = 0; i < kMaxHeldEvents; ++i) {
            std::string nexus = "0:" + std::to_string(i);
            uint32_t answer = InsertEventinQueue(2048, nexus.c_str(), "m", text.c_str(), 1);
            ASSERT_EQ(answer, round == 0 ? 0u : 1u);
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(getNumberofEvents(), kMaxHeldEvents);
    uint32_t status;
    Held h = readAt(kMaxHeldEvents / 2, &status);
    EXPECT_EQ(h.count, 10u);
    EXPECT_EQ(h.text.size(), static_cast<size_t>(QUEUE_EVENT_TEXT_SIZE) - 1);
}

TEST_F(EventMapsTest, NexusOverTheLimitIsNeverHeld)
{
    using kelp::queue::kMaxNexusBytes;
    const std::string atLimit(kMaxNexusBytes, 'n');
    const std::string over(kMaxNexusBytes + 1, 'n');
    EXPECT_EQ(InsertEventinQueue(1, atLimit.c_str(), "m", "t", 1), 0u);
    EXPECT_EQ(InsertEventinQueue(1, atLimit.c_str(), "m", "t", 1), 1u);
    EXPECT_EQ(InsertEventinQueue(1, over.c_str(), "m", "t", 1), 0u);
    EXPECT_EQ(InsertEventinQueue(1, over.c_str(), "m", "t", 1), 0u);
    EXPECT_EQ(getNumberofEvents(), 1u);
}

TEST_F(EventMapsTest, SameNexusTextWithOtherNumbersAndNumbersWithPrefixNexusDiffer)
{
    // The key is the pair, not a concatenation of its parts.
    EXPECT_EQ(InsertEventinQueue(12, "3", "m", "t", 1), 0u);
    EXPECT_EQ(InsertEventinQueue(1, "23", "m", "t", 1), 0u);
    EXPECT_EQ(InsertEventinQueue(123, "", "m", "t", 1), 0u);
    EXPECT_EQ(InsertEventinQueue(12, "3 ", "m", "t", 1), 0u);
    EXPECT_EQ(getNumberofEvents(), 4u);
}

TEST_F(EventMapsTest, InsertersAndAReaderCountEveryRepeat)
{
    constexpr int kThreads = 4, kEach = 2000, kDistinct = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < kEach; ++i) {
                std::string nexus = "0:" + std::to_string(i % kDistinct);
                InsertEventinQueue(2048, nexus.c_str(), "m", "t", 1);
            }
        });
    }
    threads.emplace_back([] {
        char text[QUEUE_EVENT_TEXT_SIZE];
        for (int i = 0; i < 2000; ++i) {
            uint32_t n = getNumberofEvents();
            uint32_t count = 0;
            if (n > 0) {
                EXPECT_EQ(readQEventMaps(nullptr, &count, text, nullptr, n - 1), 0u);
                EXPECT_GE(count, 1u);
            }
        }
    });
    for (auto &t : threads)
        t.join();
    ASSERT_EQ(getNumberofEvents(), static_cast<uint32_t>(kDistinct));
    uint64_t total = 0;
    for (uint32_t i = 0; i < static_cast<uint32_t>(kDistinct); ++i) {
        uint32_t status;
        total += readAt(i, &status).count;
    }
    EXPECT_EQ(total, static_cast<uint64_t>(kThreads) * kEach);
}

} // namespace
