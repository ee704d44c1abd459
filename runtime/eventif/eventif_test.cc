// The event interface as the plug-in's event monitor reads it: events in the
// order queued, heap copies released with vcsif32_freeData, and the extended
// SNMP message preference read from the ini store.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "eventif/event_queue.h"
#include "kelp/runtime.h"
#include "queue.h"
#include "vcsif.h"

namespace {

// An event text from vcsif32_getEvent, released with vcsif32_freeData.
using EventText = std::unique_ptr<char, decltype(&vcsif32_freeData)>;

EventText getEvent(uint32_t count)
{
    return EventText(vcsif32_getEvent(count), &vcsif32_freeData);
}

class EventIfTest : public ::testing::Test {
  protected:
    void SetUp() override { kelp::ev::clearEvents(); }
    void TearDown() override { kelp::ev::clearEvents(); }
};

TEST_F(EventIfTest, EmptyQueueAnswersNull)
{
    vcsif32_yesEventQ();
    vcsif32_noCmdQ();
    EXPECT_EQ(getEvent(1), nullptr);
    vcsif32_freeData(nullptr);
}

TEST_F(EventIfTest, EventsComeOutOldestFirst)
{
    const char *events[] = {"<EventID>2048</EventID><Parm01>first</Parm01>",
                            "<EventID>753</EventID>", "<EventID>2048</EventID><x>third</x>"};
    for (const char *xml : events)
        ASSERT_TRUE(kelp::ev::queueEvent(xml, nullptr));
    vcsif32_yesEventQ();
    for (const char *xml : events) {
        EventText text = getEvent(1);
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text.get(), xml);
    }
    EXPECT_EQ(getEvent(1), nullptr);
}

TEST_F(EventIfTest, EventsQueuedBeforeTheReaderSwitchesOnAreKept)
{
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", nullptr));
    vcsif32_yesEventQ();
    EXPECT_TRUE(kelp::ev::readerSwitchedOn());
    EventText text = getEvent(1);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text.get(), "<EventID>1</EventID>");
}

TEST_F(EventIfTest, CountsOtherThanOneAnswerNullAndTakeNothing)
{
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", nullptr));
    for (uint32_t count : {0u, 2u, 10u, 0xFFFFFFFFu})
        EXPECT_EQ(getEvent(count), nullptr) << count;
    EXPECT_EQ(kelp::ev::queuedEvents(), 1u);
}

TEST_F(EventIfTest, FreeDataReleasesEventTextsAndHeapBlocks)
{
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", nullptr));
    // Under LeakSanitizer a text that vcsif32_freeData did not release fails
    // the run.
    vcsif32_freeData(vcsif32_getEvent(1));
    vcsif32_freeData(static_cast<char *>(std::malloc(8)));
}

TEST_F(EventIfTest, ConcurrentWritersAndAReaderLoseAndDuplicateNothing)
{
    constexpr int kWriters = 4, kEach = 500;
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([w] {
            for (int i = 0; i < kEach; ++i) {
                std::string xml = "<EventID>" + std::to_string(w * kEach + i) + "</EventID>";
                ASSERT_TRUE(kelp::ev::queueEvent(xml, nullptr));
            }
        });
    }
    std::set<std::string> seen;
    std::vector<int> lastOfWriter(kWriters, -1);
    while (seen.size() < kWriters * kEach) {
        EventText text = getEvent(1);
        if (text == nullptr) {
            std::this_thread::yield();
            continue;
        }
        std::string xml = text.get();
        EXPECT_TRUE(seen.insert(xml).second) << xml;
        int n = std::stoi(xml.substr(9));
        // Each writer's events come out in the order it queued them.
        const auto writer = static_cast<size_t>(n / kEach);
        EXPECT_GT(n % kEach, lastOfWriter[writer]);
        lastOfWriter[writer] = n % kEach;
    }
    for (auto &t : writers)
        t.join();
    EXPECT_EQ(getEvent(1), nullptr);
}

// The plug-in's event monitor reads in a loop and checks between reads
// whether it is asked to stop; a read of an empty queue answers at once, so
// a stop is never held up by a read waiting for an event.
TEST_F(EventIfTest, AReaderLoopSeesItsStopWhileTheQueueIsEmpty)
{
    std::atomic<bool> stop{false};
    std::atomic<int> emptyReads{0};
    std::vector<std::string> read;
    std::thread monitor([&] {
        while (!stop.load()) {
            EventText text = getEvent(1);
            if (text == nullptr)
                emptyReads.fetch_add(1);
            else
                read.emplace_back(text.get());
            std::this_thread::yield();
        }
    });
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", nullptr));
    while (kelp::ev::queuedEvents() != 0 || emptyReads.load() < 3)
        std::this_thread::yield();
    stop.store(true);
    monitor.join(); // hangs, and the test run fails on its time limit, if a read blocked
    EXPECT_EQ(read, (std::vector<std::string>{"<EventID>1</EventID>"}));
}

class MessagePreferenceTest : public ::testing::Test {
  protected:
    void SetUp() override { kelpRuntimeSetIniPath(""); } // the in-memory store
    void TearDown() override { kelpRuntimeSetIniPath(nullptr); }
};

TEST_F(MessagePreferenceTest, IsOnOnlyForExactlyOn)
{
    struct Case {
        const char *value;
        uint32_t flag;
    } cases[] = {{"On", 1},
                 {"on", 0},
                 {"ON", 0},
                 {"On ", 0},
                 {"Off", 0},
                 {"", 0},
                 {"On and on and on and on", 0}};
    for (const auto &c : cases) {
        ASSERT_EQ(SSSetPrivateIniValue("vcsipe", "ExtendedSNMPMessages", c.value), 0u);
        uint32_t flag = 99;
        EXPECT_EQ(geteemisnmpmsgpref(&flag), 0u);
        EXPECT_EQ(flag, c.flag) << '"' << c.value << '"';
    }
}

TEST_F(MessagePreferenceTest, IsReadFromTheIniFile)
{
    std::string pattern = ::testing::TempDir() + "kelp_pref_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    const std::string path = pattern + "/kelp.ini";
    kelpRuntimeSetIniPath(path.c_str());
    uint32_t flag = 99;
    std::ofstream(path) << "[vcsipe]\nextendedsnmpmessages=On\n"; // names ignore case
    EXPECT_EQ(geteemisnmpmsgpref(&flag), 0u);
    EXPECT_EQ(flag, 1u);
    std::ofstream(path) << "[general]\nExtendedSNMPMessages=On\n"; // another section
    EXPECT_EQ(geteemisnmpmsgpref(&flag), 0u);
    EXPECT_EQ(flag, 0u);
    std::ofstream(path) << "[VCSIPE]\nExtendedSNMPMessages = \"On\"\n";
    EXPECT_EQ(geteemisnmpmsgpref(&flag), 0u);
    EXPECT_EQ(flag, 1u);
    kelpRuntimeSetIniPath(nullptr);
    std::filesystem::remove_all(pattern);
}

TEST_F(MessagePreferenceTest, MissingKeyIsOffAndNullAnswers5)
{
    uint32_t flag = 99;
    ASSERT_EQ(SSSetPrivateIniValue("vcsipe", "ExtendedSNMPMessages", "On"), 0u);
    kelpRuntimeSetIniPath("/nonexistent-dir/kelp.ini"); // a store without the key
    EXPECT_EQ(geteemisnmpmsgpref(&flag), 0u);
    EXPECT_EQ(flag, 0u);
    EXPECT_EQ(geteemisnmpmsgpref(nullptr), 5u);
}

} // namespace
