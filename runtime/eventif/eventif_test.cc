// The event interface as the plug-in's event monitor reads it: events in the
// order queued, heap copies released with vcsif32_freeData or reclaimed at the
// next read, rescans kept well-formed, and the extended SNMP message
// preference read from the ini store.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "eventif/event_queue.h"
#include "eventif/reader.h"
#include "eventif/rescan_gate.h"
#include "kelp/runtime.h"
#include "queue.h"
#include "support/env_testing.h"
#include "vcsif.h"

namespace {

using namespace std::chrono_literals;

// An event text from vcsif32_getEvent, released with vcsif32_freeData.
using EventText = std::unique_ptr<char, decltype(&vcsif32_freeData)>;

EventText getEvent(uint32_t count)
{
    return EventText(vcsif32_getEvent(count), &vcsif32_freeData);
}

class EventIfTest : public ::testing::Test {
  protected:
    void SetUp() override { kelp::ev::clearEvents(); }
    void TearDown() override
    {
        kelpRuntimeHoldEvents(0);
        kelp::ev::clearEvents();
    }
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

TEST_F(EventIfTest, HeldEventsStayQueuedUntilReleased)
{
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", nullptr));
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>2</EventID>", nullptr));
    char *first = vcsif32_getEvent(1);
    ASSERT_NE(first, nullptr);
    kelpRuntimeHoldEvents(1);
    EXPECT_EQ(getEvent(1), nullptr);
    EXPECT_EQ(kelpRuntimeQueuedEvents(), 1u) << "a held event is still counted as queued";
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 0u) << "the reader was done with its last text";
    kelpRuntimeHoldEvents(0);
    EventText second = getEvent(1);
    ASSERT_NE(second, nullptr);
    EXPECT_STREQ(second.get(), "<EventID>2</EventID>");
}

TEST_F(EventIfTest, WhileEventsAreHeldASwapDoesNotWaitForTheReader)
{
    vcsif32_noCmdQ(); // a reader present: a swap would wait for it to lock
    kelpRuntimeHoldEvents(1);
    bool swapped = false;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kelp::ev::swapUnderRescan([&] { swapped = true; }), kelp::ev::GateOutcome::kNoReader);
    EXPECT_TRUE(swapped);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(kelpRuntimeQueuedEvents(), 0u) << "and no rescan events are queued for it";
    kelpRuntimeHoldEvents(0);
}

TEST_F(EventIfTest, FreeDataReleasesEventTexts)
{
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", nullptr));
    char *text = vcsif32_getEvent(1);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 1u);
    // Under LeakSanitizer a text that vcsif32_freeData did not release fails
    // the run.
    vcsif32_freeData(text);
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 0u);
}

// The plug-in's monitor does not release the text of an event it blocks.
TEST_F(EventIfTest, ATextStillHeldIsReclaimedWhenTheReaderAsksAgain)
{
    for (const char *xml : {"<EventID>1</EventID>", "<EventID>2</EventID>"})
        ASSERT_TRUE(kelp::ev::queueEvent(xml, nullptr));
    ASSERT_NE(vcsif32_getEvent(1), nullptr); // never released by the reader
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 1u);
    char *second = vcsif32_getEvent(1);
    ASSERT_NE(second, nullptr);
    EXPECT_STREQ(second, "<EventID>2</EventID>");
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 1u);
    ASSERT_EQ(vcsif32_getEvent(1), nullptr); // an empty read reclaims too
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 0u);
}

TEST_F(EventIfTest, ManyUnreleasedTextsNeverPileUp)
{
    for (int i = 0; i < 500; ++i)
        ASSERT_TRUE(kelp::ev::queueEvent("<EventID>" + std::to_string(i) + "</EventID>", nullptr));
    for (int i = 0; i < 500; ++i) {
        ASSERT_NE(vcsif32_getEvent(1), nullptr) << i;
        ASSERT_EQ(kelp::ev::outstandingEventTexts(), 1u) << i;
    }
    EXPECT_EQ(vcsif32_getEvent(1), nullptr);
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 0u);
}

TEST_F(EventIfTest, AReadOfAnotherCountKeepsTheHeldText)
{
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", nullptr));
    char *text = vcsif32_getEvent(1);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(vcsif32_getEvent(2), nullptr);
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 1u);
    EXPECT_STREQ(text, "<EventID>1</EventID>");
    vcsif32_freeData(text);
}

// Freeing any of these would abort the run (a stack or inner pointer), free
// a block the test frees again, or free the text the reader holds now.
TEST_F(EventIfTest, FreeDataIgnoresWhatItDidNotHandOutOrNoLongerHolds)
{
    for (const char *xml : {"<EventID>1</EventID>", "<EventID>2</EventID>"})
        ASSERT_TRUE(kelp::ev::queueEvent(xml, nullptr));
    char *first = vcsif32_getEvent(1);
    ASSERT_NE(first, nullptr);
    char local[32] = "<EventID>1</EventID>";
    auto *block = static_cast<char *>(std::malloc(32));
    ASSERT_NE(block, nullptr);
    vcsif32_freeData(local);
    vcsif32_freeData(block);
    vcsif32_freeData(first + 3);
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 1u);
    EXPECT_STREQ(first, "<EventID>1</EventID>");
    std::free(block);

    char *second = vcsif32_getEvent(1); // reclaims first
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first); // made before first was freed
    vcsif32_freeData(first);  // reclaimed already
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 1u);
    EXPECT_STREQ(second, "<EventID>2</EventID>");
    vcsif32_freeData(second);
    vcsif32_freeData(second); // released already
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 0u);
}

// A child that exits holding a text: under LeakSanitizer the runtime's own
// release at unload is what keeps the child's exit status 0.
TEST_F(EventIfTest, ATextStillHeldWhenTheRuntimeUnloadsIsReleased)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>1</EventID>", nullptr));
    EXPECT_EXIT(
        {
            if (vcsif32_getEvent(1) == nullptr)
                std::exit(2);
            std::exit(kelp::ev::outstandingEventTexts() == 1 ? 0 : 3);
        },
        ::testing::ExitedWithCode(0), "");
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

// The runtime's warnings, collected while a RescanTest runs.
std::vector<std::string> g_warnings;

void collectWarning(int /*level*/, const char *line)
{
    g_warnings.emplace_back(line);
}

class RescanTest : public EventIfTest {
  protected:
    void SetUp() override
    {
        EventIfTest::SetUp();
        g_warnings.clear();
        kelpRuntimeSetLog(collectWarning);
        kelpRuntimeSetTimeScale(1);
        kelpRuntimeSetRescanTimeout(0);
        unsetenv("KELP_RESCAN_TIMEOUT");
    }
    void TearDown() override
    {
        kelpRuntimeSetLog(nullptr);
        kelpRuntimeSetTimeScale(0);
        kelpRuntimeSetRescanTimeout(0);
        EventIfTest::TearDown();
    }

    static void queue(std::initializer_list<const char *> texts)
    {
        for (const char *xml : texts)
            ASSERT_TRUE(kelp::ev::queueEvent(xml, nullptr)) << xml;
    }

    // The next event's text, or "<none>".
    static std::string next()
    {
        EventText text = getEvent(1);
        return text != nullptr ? std::string(text.get()) : std::string("<none>");
    }

    // Hands out a lone 3061 and waits past a rescan time-out of `seconds`
    // (scaled as the runtime scales it).
    static void startAndWaitPast(double seconds)
    {
        queue({kStarted});
        ASSERT_EQ(next(), kStarted);
        std::this_thread::sleep_for(
            std::chrono::duration<double>(seconds / kelpRuntimeTimeScale()) + 50ms);
    }

    static bool warned(const std::string &part)
    {
        for (const std::string &line : g_warnings) {
            if (line.find(part) != std::string::npos)
                return true;
        }
        return false;
    }

    ScopedEnv savedTimeout_{"KELP_RESCAN_TIMEOUT"};
    static constexpr const char *kStarted = "<EventID>3061</EventID>";
    static constexpr const char *kCompleted = "<EventID>3060</EventID>";
};

TEST_F(RescanTest, ALoneStartedGetsACompletedAfterTheTimeOutAndNotBefore)
{
    kelpRuntimeSetRescanTimeout(3600);
    queue({kStarted});
    ASSERT_EQ(next(), kStarted);
    EXPECT_TRUE(kelp::ev::rescanOpen());
    EXPECT_EQ(next(), "<none>");
    EXPECT_TRUE(g_warnings.empty());

    // A change of the time-out applies to the rescan already open.
    kelpRuntimeSetRescanTimeout(0.02);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(next(), kCompleted);
    EXPECT_FALSE(kelp::ev::rescanOpen());
    ASSERT_EQ(g_warnings.size(), 1u);
    EXPECT_TRUE(warned("no rescan completed event (3060) followed the rescan started event "
                       "(3061)"))
        << g_warnings[0];
    EXPECT_EQ(next(), "<none>"); // one completed, not one per read
}

TEST_F(RescanTest, TheRuntimesCompletedComesBeforeEventsQueuedMeanwhile)
{
    kelpRuntimeSetRescanTimeout(0.02);
    startAndWaitPast(0.02);
    queue({"<EventID>2048</EventID>"});
    EXPECT_EQ(next(), kCompleted);
    EXPECT_EQ(next(), "<EventID>2048</EventID>");
}

TEST_F(RescanTest, ALateCompletedAfterTheRuntimesIsDropped)
{
    kelpRuntimeSetRescanTimeout(0.02);
    startAndWaitPast(0.02);
    ASSERT_EQ(next(), kCompleted);
    queue({kCompleted, "<EventID>7</EventID>"});
    EXPECT_EQ(next(), "<EventID>7</EventID>");
    ASSERT_EQ(g_warnings.size(), 2u);
    EXPECT_TRUE(warned("dropped a late rescan completed event (3060)")) << g_warnings[1];
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
}

TEST_F(RescanTest, AStrayCompletedIsDropped)
{
    queue({kCompleted, kCompleted, "<EventID>1</EventID>"});
    EXPECT_EQ(next(), "<EventID>1</EventID>");
    EXPECT_EQ(g_warnings.size(), 2u);
    EXPECT_TRUE(warned("dropped a rescan completed event (3060) that follows no rescan started "
                       "event (3061)"));
    // Only a stray one: nothing is handed out in its place.
    queue({kCompleted});
    EXPECT_EQ(next(), "<none>");
    EXPECT_EQ(kelp::ev::queuedEvents(), 0u);
}

TEST_F(RescanTest, StartedThenCompletedPassUntouched)
{
    const char *started = "<EventID>3061</EventID><Parm01>scan &amp; more</Parm01>";
    const char *completed = "<event><EventID> 3060 </EventID><ObjType>769</ObjType></event>";
    for (int round = 0; round < 3; ++round) {
        queue({started, "<EventID>2048</EventID>", completed});
        EXPECT_EQ(next(), started);
        EXPECT_EQ(next(), "<EventID>2048</EventID>");
        EXPECT_EQ(next(), completed);
    }
    EXPECT_FALSE(kelp::ev::rescanOpen());
    EXPECT_TRUE(g_warnings.empty());
}

// The second started is dropped: the plug-in would take it for a rescan of
// its own after the first, which no completed would end.
TEST_F(RescanTest, TwoStartedThenOneCompletedCloseTheRescan)
{
    queue({kStarted, kStarted, kCompleted, kCompleted});
    EXPECT_EQ(next(), kStarted);
    EXPECT_TRUE(kelp::ev::rescanOpen());
    EXPECT_EQ(next(), kCompleted);
    EXPECT_FALSE(kelp::ev::rescanOpen());
    EXPECT_EQ(next(), "<none>"); // the second completed closes nothing
    ASSERT_EQ(g_warnings.size(), 2u);
    EXPECT_NE(g_warnings[0].find("dropped a rescan started event (3061) while a rescan is open"),
              std::string::npos)
        << g_warnings[0];
}

TEST_F(RescanTest, TheDefaultTimeOutIsDividedByTheTimeScale)
{
    kelpRuntimeSetTimeScale(1000); // 30 s become 30 ms
    startAndWaitPast(30);
    EXPECT_EQ(next(), kCompleted);
}

TEST_F(RescanTest, TheEnvironmentSetsTheTimeOut)
{
    setenv("KELP_RESCAN_TIMEOUT", "0.02", 1);
    startAndWaitPast(0.02);
    EXPECT_EQ(next(), kCompleted);

    // Longer than the default: at a time scale of 100 the default would be
    // 0.3 s, this 36 s.
    kelpRuntimeSetTimeScale(100);
    setenv("KELP_RESCAN_TIMEOUT", "3600", 1);
    startAndWaitPast(30);
    EXPECT_EQ(next(), "<none>");
    EXPECT_TRUE(kelp::ev::rescanOpen());
}

TEST_F(RescanTest, TheHostsTimeOutWinsOverTheEnvironment)
{
    setenv("KELP_RESCAN_TIMEOUT", "0.02", 1);
    kelpRuntimeSetRescanTimeout(3600);
    startAndWaitPast(0.02);
    EXPECT_EQ(next(), "<none>");
    kelpRuntimeSetRescanTimeout(-1); // forgotten: the environment's applies
    EXPECT_EQ(next(), kCompleted);
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
