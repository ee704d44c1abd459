// The plug-in loaded in-process and driven through its dispatch, with the
// runtime's event queue behind it: a rescan left open no longer wedges its
// requests for good, and blocked events and rescans leave no event text
// behind.
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "eventif/event_queue.h"
#include "eventif/reader.h"
#include "kelp/runtime.h"
#include "pluginhost.h"

namespace {

using namespace std::chrono_literals;

std::mutex g_warningsMutex;
std::vector<std::string> g_warnings; // guarded by g_warningsMutex

void collectWarning(int /*level*/, const char *line)
{
    std::lock_guard lock(g_warningsMutex);
    g_warnings.emplace_back(line);
}

size_t warningsWith(const std::string &part)
{
    std::lock_guard lock(g_warningsMutex);
    return static_cast<size_t>(
        std::count_if(g_warnings.begin(), g_warnings.end(), [&](const std::string &line) {
            return line.find(part) != std::string::npos;
        }));
}

class PluginEventsTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        char pattern[] = "/tmp/kelp-events-XXXXXX";
        dir_ = mkdtemp(pattern);
        setenv("KELP_INI", (dir_ + "/kelp.ini").c_str(), 1);
        setenv("KELP_MODEL", KELP_SAMPLE_MODEL, 1);
        unsetenv("KELP_DEBUG_FILE");
        unsetenv("KELP_RESCAN_TIMEOUT");
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(dir_); }

    void SetUp() override
    {
        kelp::ev::clearEvents();
        std::lock_guard lock(g_warningsMutex);
        g_warnings.clear();
        kelpRuntimeSetLog(collectWarning);
    }
    void TearDown() override
    {
        if (host.isOpen())
            stop();
        kelpRuntimeSetLog(nullptr);
        kelpRuntimeSetTimeScale(0);
        kelpRuntimeSetRescanTimeout(0);
        kelp::ev::clearEvents();
    }

    // Loads the plug-in with this ini file, starts its threads and waits
    // until its tables are built.
    void start(const std::string &ini)
    {
        std::ofstream(dir_ + "/kelp.ini") << ini;
        ASSERT_TRUE(host.open(KELP_PLUGIN_PATH)) << host.error();
        void *services[SM_SERVICE_COUNT] = {};
        ASSERT_EQ(host.load(services, 1), 0u);
        uint32_t used = 0;
        ASSERT_EQ(host.call(SM_CMD_START_MONITOR, nullptr, 0, nullptr, 0, &used), 0u);
        ASSERT_TRUE(waitFor([&] { return getFirstScalar() == 0; }, 60s));
    }

    void stop()
    {
        uint32_t used = 0;
        EXPECT_EQ(host.call(SM_CMD_STOP_MONITOR, nullptr, 0, nullptr, 0, &used), 0u);
        EXPECT_EQ(host.unload(), 0u);
        host.close();
    }

    // Get of the MIB's first scalar: 0 answered, 5 while the tables' lock
    // cannot be had within the plug-in's one-second lock time-out.
    uint32_t getFirstScalar()
    {
        uint32_t arcs[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 1, 0};
        uint32_t replyArcs[128];
        char buffer[1024];
        SMSnmpValue request{}, reply{};
        request.name = SMSnmpOID{12, 0, arcs};
        reply.name = SMSnmpOID{0, 0, replyArcs};
        reply.buffer = buffer;
        uint32_t used = 0;
        return host.call(SM_CMD_GET, &request, sizeof request, &reply, sizeof reply, &used);
    }

    // Polls until condition holds or bound passes; answers whether it held.
    template <class Condition> static bool waitFor(Condition condition, std::chrono::seconds bound)
    {
        const auto end = std::chrono::steady_clock::now() + bound;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            std::this_thread::sleep_for(5ms);
        }
        return true;
    }

    PluginHost host;
    static std::string dir_;
};
std::string PluginEventsTest::dir_;

TEST_F(PluginEventsTest, ALoneRescanStartWedgesRequestsOnlyUntilTheRuntimeCompletesIt)
{
    kelpRuntimeSetTimeScale(100);
    kelpRuntimeSetRescanTimeout(3600); // 36 s at this scale: longer than the wedge is watched
    start("");
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>3061</EventID>", nullptr));
    // The refresh thread holds the tables' lock until a 3060 comes.
    ASSERT_TRUE(waitFor([&] { return getFirstScalar() == 5; }, 30s));
    EXPECT_TRUE(kelp::ev::rescanOpen());
    EXPECT_EQ(getFirstScalar(), 5u);
    EXPECT_EQ(warningsWith("no rescan completed event"), 0u);

    kelpRuntimeSetRescanTimeout(1); // 10 ms: the next read completes the rescan
    EXPECT_TRUE(waitFor([&] { return getFirstScalar() == 0; }, 30s));
    EXPECT_FALSE(kelp::ev::rescanOpen());
    EXPECT_EQ(warningsWith("no rescan completed event (3060) followed the rescan started event "
                           "(3061)"),
              1u);

    // The late 3060 is dropped: it cannot end the next rescan early.
    ASSERT_TRUE(kelp::ev::queueEvent("<EventID>3060</EventID>", nullptr));
    EXPECT_TRUE(waitFor([] { return kelp::ev::queuedEvents() == 0; }, 30s));
    EXPECT_TRUE(
        waitFor([] { return warningsWith("dropped a late rescan completed event") == 1; }, 30s));
    EXPECT_EQ(getFirstScalar(), 0u);
}

// The monitor releases nothing of a blocked event; each rescan pair makes the
// refresh thread rebuild every table. Under LeakSanitizer whatever either
// leaves behind fails the run at exit; the count of texts still held checks
// the reclaim in every build.
TEST_F(PluginEventsTest, BlockedEventsAndRescansLeaveNoEventTextBehind)
{
    // The monitor reads an event every 4 ms here (a second, scaled). Read
    // every millisecond, a loaded machine's refresh thread could fall a
    // whole rescan pair behind the monitor, take the next 3061 after its
    // 3060 was read, and hold the tables until a 3060 that never came.
    constexpr int kRounds = 300;
    kelpRuntimeSetTimeScale(250);
    // Each 3060 follows its 3061 one read later; however slow the machine,
    // the runtime must not complete a rescan of its own.
    kelpRuntimeSetRescanTimeout(1e7);
    start("[vcsipe]\nBlockedAlerts=2050,2048\n");
    const std::string blocked = "<EventID>2048</EventID><ObjType>772</ObjType>"
                                "<Nexus>0\\0\\2</Nexus><ObjStatus>4</ObjStatus>"
                                "<Parm01>0:0:2</Parm01>";
    for (int i = 0; i < kRounds; ++i) {
        ASSERT_TRUE(kelp::ev::queueEvents(
            {blocked, "<EventID>3061</EventID>", "<EventID>3060</EventID>"}, nullptr));
    }
    ASSERT_TRUE(kelp::ev::queueEvent(blocked, nullptr)); // the last event read is blocked
    size_t mostHeld = 0;
    ASSERT_TRUE(waitFor(
        [&] {
            mostHeld = std::max(mostHeld, kelp::ev::outstandingEventTexts());
            return kelp::ev::queuedEvents() == 0;
        },
        300s));
    EXPECT_LE(mostHeld, 1u);
    // The monitor's next read, of an empty queue, reclaims the last blocked text.
    EXPECT_TRUE(waitFor([] { return kelp::ev::outstandingEventTexts() == 0; }, 30s));
    EXPECT_FALSE(kelp::ev::rescanOpen());
    // The last rebuild may still hold the lock on a loaded machine.
    EXPECT_TRUE(waitFor([&] { return getFirstScalar() == 0; }, 30s));
    stop();
    EXPECT_EQ(kelp::ev::outstandingEventTexts(), 0u);
    std::lock_guard lock(g_warningsMutex);
    std::string warnings;
    for (const std::string &warning : g_warnings) {
        warnings += warning + "\n";
    }
    EXPECT_TRUE(g_warnings.empty()) << warnings;
}

// Rescan events the ini file blocks take the monitor's blocked path too: it
// keeps their texts and signals no rescan.
TEST_F(PluginEventsTest, BlockedRescanEventsLeaveNoEventTextBehind)
{
    kelpRuntimeSetTimeScale(1000);
    kelpRuntimeSetRescanTimeout(1e7);
    start("[vcsipe]\nBlockedAlerts=3061,3060\n");
    for (int i = 0; i < 500; ++i) {
        ASSERT_TRUE(
            kelp::ev::queueEvents({"<EventID>3061</EventID>", "<EventID>3060</EventID>"}, nullptr));
    }
    size_t mostHeld = 0;
    ASSERT_TRUE(waitFor(
        [&] {
            mostHeld = std::max(mostHeld, kelp::ev::outstandingEventTexts());
            return kelp::ev::queuedEvents() == 0;
        },
        300s));
    EXPECT_LE(mostHeld, 1u);
    EXPECT_TRUE(waitFor([] { return kelp::ev::outstandingEventTexts() == 0; }, 30s));
    EXPECT_EQ(getFirstScalar(), 0u);
    stop();
}

} // namespace
