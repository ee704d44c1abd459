// The live source's thread: a burst of device events, however many, is one
// rescan; a rescan that finds a disk gone queues the rescan pair and the
// disk's event in one step; loads are refused while it serves.
#include "datastore/live/live_source.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <regex>
#include <thread>

#include "datastore/live/machine_testing.h"
#include "datastore/model_store.h"
#include "eventif/event_queue.h"
#include "kelp/runtime.h"

namespace kelp::live {
namespace {

using namespace std::chrono_literals;

bool waitUntil(const std::function<bool()> &done, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

class LiveSourceTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ds::resetForTesting();
        ev::clearEvents();
        ASSERT_EQ(pipe2(events, O_NONBLOCK | O_CLOEXEC), 0);
        testing::writeSasServer(tree, 30);
        std::string error;
        ASSERT_TRUE(startLive({tree.root(), 3600, false, events[0]}, &error)) << error;
    }
    void TearDown() override
    {
        stopLive();
        ds::resetForTesting();
        ev::clearEvents();
        close(events[0]);
        close(events[1]);
    }
    void send(int n)
    {
        for (int i = 0; i < n; ++i)
            ASSERT_EQ(write(events[1], "e", 1), 1);
    }

    testing::TempTree tree;
    int events[2] = {-1, -1};
};

TEST_F(LiveSourceTest, AStormOfDeviceEventsIsOneRescan)
{
    ASSERT_EQ(liveStatus().scans, 1u);
    for (int wave = 0; wave < 10; ++wave) {
        send(500);
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_TRUE(waitUntil([] { return liveStatus().scans >= 2; }, 10s));
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(liveStatus().scans, 2u) << "5,000 events in one burst";
    send(1);
    EXPECT_TRUE(waitUntil([] { return liveStatus().scans == 3; }, 10s)) << "a later event";
}

TEST_F(LiveSourceTest, AGoneDiskQueuesThePairThenItsEvent)
{
    ASSERT_EQ(ev::queuedEvents(), 0u);
    ASSERT_EQ(::unlink((tree.root() + "/sys/class/scsi_device/0:0:3:0").c_str()), 0);
    send(1);
    ASSERT_TRUE(waitUntil([] { return ev::queuedEvents() >= 3; }, 10s));
    auto first = ev::takeOldestEvent();
    auto second = ev::takeOldestEvent();
    auto third = ev::takeOldestEvent();
    ASSERT_TRUE(first && second && third);
    EXPECT_EQ(ev::eventNumber(*first), 3061u);
    EXPECT_EQ(ev::eventNumber(*second), 3060u);
    EXPECT_EQ(ev::eventNumber(*third), 2049u);
    EXPECT_NE(third->find("<Nexus>0\\0\\0\\3</Nexus>"), std::string::npos) << *third;
    EXPECT_NE(third->find("<Parm01>0:0:3</Parm01>"), std::string::npos) << *third;
    EXPECT_NE(third->find("<ObjType>772</ObjType>"), std::string::npos) << *third;
}

std::vector<std::pair<int, std::string>> g_activity;
std::mutex g_activityMutex;

void collectActivity(int level, const char *line)
{
    std::lock_guard lock(g_activityMutex);
    g_activity.emplace_back(level, line);
}

std::vector<std::pair<int, std::string>> activity()
{
    std::lock_guard lock(g_activityMutex);
    return g_activity;
}

TEST_F(LiveSourceTest, EachRescanIsOneLineSayingWhyHowLongAndWhatChanged)
{
    g_activity.clear();
    kelpRuntimeSetActivityLog(collectActivity);
    send(1);
    ASSERT_TRUE(waitUntil([] { return activity().size() == 1; }, 10s));
    ASSERT_EQ(::unlink((tree.root() + "/sys/class/scsi_device/0:0:3:0").c_str()), 0);
    ASSERT_TRUE(requestLiveRescan());
    ASSERT_TRUE(waitUntil([] { return activity().size() == 2; }, 10s));
    kelpRuntimeSetActivityLog(nullptr);
    const auto lines = activity();
    EXPECT_EQ(lines[0].first, KELP_RUNTIME_LOG_INFO);
    EXPECT_TRUE(std::regex_match(
        lines[0].second,
        std::regex(R"(live rescan \(test device events\): \d+\.\d ms; nothing changed)")))
        << lines[0].second;
    EXPECT_EQ(lines[1].first, KELP_RUNTIME_LOG_NOTICE);
    EXPECT_TRUE(std::regex_match(lines[1].second,
                                 std::regex(R"(live rescan \(asked\): \d+\.\d ms; arraydisks )"
                                            R"((\d+) -> (\d+); events 3061, 3060, 2049 queued)")))
        << lines[1].second;
}

TEST_F(LiveSourceTest, LoadsAndChangesAreRefusedWhileLive)
{
    std::string error;
    EXPECT_FALSE(ds::loadModelText("<storage ready=\"1\"/>", "test", &error));
    EXPECT_NE(error.find("live source"), std::string::npos) << error;
    EXPECT_FALSE(ds::setReady(false, &error));
    EXPECT_TRUE(ds::liveServed());
    EXPECT_FALSE(startLive({tree.root(), 1, false, -1}, &error)) << "one at a time";
}

// A block device whose "change" uevent is harmless to raise (loop, ram,
// zram), when this process may raise it; empty otherwise.
std::string harmlessUeventFile()
{
    DIR *dir = opendir("/sys/block");
    if (dir == nullptr)
        return {};
    std::string found;
    while (const dirent *entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.rfind("loop", 0) != 0 && name.rfind("ram", 0) != 0 && name.rfind("zram", 0) != 0)
            continue;
        const std::string file = "/sys/block/" + name + "/uevent";
        if (access(file.c_str(), W_OK) == 0) {
            found = file;
            break;
        }
    }
    closedir(dir);
    return found;
}

// The real path: the kernel's uevent on netlink, heard through libudev
// (udevd's rebroadcast where udevd runs, the kernel's own message where it
// does not), starts a rescan long before the period would.
TEST(LiveSourceOnThisMachine, AKernelUeventStartsARescan)
{
    const std::string uevent = harmlessUeventFile();
    if (uevent.empty())
        GTEST_SKIP() << "no loop, ram or zram device whose uevent this user may raise";
    ds::resetForTesting();
    ev::clearEvents();
    std::string error;
    ASSERT_TRUE(startLive({"/", 3600, true, -1}, &error)) << error;
    const LiveStatus before = liveStatus();
    EXPECT_TRUE(before.udev) << "device events are heard at the system root";
    EXPECT_TRUE(before.events == "udev" || before.events == "kernel") << before.events;
    ASSERT_EQ(before.scans, 1u);
    {
        const int fd = ::open(uevent.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0) << uevent;
        EXPECT_EQ(write(fd, "change", 6), 6) << uevent;
        close(fd);
    }
    EXPECT_TRUE(waitUntil([] { return liveStatus().scans >= 2; }, 10s))
        << "a change of " << uevent << " heard through " << before.events;
    stopLive();
    ds::resetForTesting();
    ev::clearEvents();
}

} // namespace
} // namespace kelp::live
