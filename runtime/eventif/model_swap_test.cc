// Model swaps under the rescan lock, against a stand-in for the plug-in: a
// monitor thread that reads an event per tick and signals 3061 and 3060, and
// a rescan thread that takes the tables' lock at 3061 and waits holding it
// for 3060, as the plug-in's threads do.
#include "eventif/model_swap.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "control/commands.h"
#include "datastore/model.h"
#include "datastore/model_store.h"
#include "datastore/model_testing.h"
#include "eventif/event_queue.h"
#include "eventif/reader.h"
#include "eventif/rescan_gate.h"
#include "vcsif.h"
#include "vcsupt.h"

namespace kelp::ev {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The test model with `from` replaced by `to` once.
std::string edited(const std::string &from, const std::string &to)
{
    std::string text = ds::testing::kTestModel;
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

std::shared_ptr<const ds::Model> build(const std::string &text)
{
    ds::ModelData data;
    std::string error;
    EXPECT_TRUE(ds::parseModelText(text, "test", &data, &error)) << error;
    auto model = ds::Model::build(std::move(data), &error);
    EXPECT_NE(model, nullptr) << error;
    return model;
}

const std::string kBase = ds::testing::kTestModel;
// Id 5 names another enclosure.
const std::string kMoved =
    edited("<Nexus>0\\0\\0</Nexus><Name>Backplane", "<Nexus>0\\0\\9</Nexus><Name>Backplane");
// Only a value differs: every id names the same object.
const std::string kSame = edited("<Name>Backplane", "<Name>Front bay");

TEST(IdsChangeOwner, ComparesWhatEachIdNames)
{
    const auto base = build(kBase);
    const struct {
        const char *what;
        std::shared_ptr<const ds::Model> before, after;
        bool changes;
    } cases[] = {
        {"no model before", nullptr, base, false},
        {"no model after", base, nullptr, true},
        {"the same model", base, base, false},
        {"another value", base, build(kSame), false},
        {"another nexus under an id", base, build(kMoved), true},
        {"another type under an id", base,
         build(edited(R"(<object id="80" type="Tape">)", R"(<object id="80" type="fans">)")), true},
        {"an object gone", base,
         build(edited(R"(<object id="70" type="fans" parent="5"><Nexus>0\0\0\f</Nexus></object>)",
                      "")),
         true},
        {"an object come", base,
         build(edited(
             "<link a=\"20\"",
             R"(<object id="71" type="fans" parent="5"><Nexus>0\0\0\g</Nexus></object><link a="20")")),
         false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(idsChangeOwner(c.before.get(), c.after.get()), c.changes) << c.what;
}

std::string servedOrigin()
{
    const auto model = ds::servedModel();
    return model ? model->data().origins.at(0) : std::string("none");
}

// The plug-in's two threads, reading every few milliseconds.
class StandIn {
  public:
    // With `firstReadAfter`, the monitor starts as the plug-in's does: it
    // says it starts reading (vcsif32_noCmdQ), and reads that long after;
    // the constructor does not wait for the first read then.
    // A rebuild takes `rebuild`, under the lock.
    explicit StandIn(bool locks, std::chrono::milliseconds tick = 5ms,
                     std::chrono::milliseconds firstReadAfter = 0ms,
                     std::chrono::milliseconds rebuild = 0ms)
        : locks_(locks), tick_(tick), rebuild_(rebuild)
    {
        if (firstReadAfter > 0ms)
            vcsif32_noCmdQ();
        monitor_ = std::thread([this, firstReadAfter] {
            std::this_thread::sleep_for(firstReadAfter);
            monitor();
        });
        if (locks_)
            rescan_ = std::thread([this] { rescan(); });
        while (firstReadAfter == 0ms && reads_.load() == 0)
            std::this_thread::sleep_for(1ms);
    }
    ~StandIn()
    {
        stop_.store(true);
        monitor_.join();
        if (rescan_.joinable())
            rescan_.join();
        SMEventDestroy(started_);
        SMEventDestroy(completed_);
        SMMutexDestroy(tables_);
    }

    // Event ids handed out so far.
    std::vector<uint32_t> handedOut()
    {
        std::lock_guard lock(m_);
        return ids_;
    }
    // The model served when the tables were locked, and when rebuilt.
    std::vector<std::pair<std::string, std::string>> rescans()
    {
        std::lock_guard lock(m_);
        return rescans_;
    }
    bool waitForRescans(size_t n)
    {
        for (auto end = Clock::now() + 5s; Clock::now() < end; std::this_thread::sleep_for(1ms)) {
            if (rescans().size() >= n)
                return true;
        }
        return false;
    }

  private:
    void monitor()
    {
        while (!stop_.load()) {
            char *text = readNextEvent();
            reads_.fetch_add(1);
            if (text != nullptr) {
                const uint32_t id = eventNumber(text).value_or(0);
                {
                    std::lock_guard lock(m_);
                    ids_.push_back(id);
                }
                if (id == ctl::kRescanStartedEvent)
                    SMEventSet(started_);
                else if (id == ctl::kRescanCompletedEvent)
                    SMEventSet(completed_);
                releaseEventText(text);
            }
            std::this_thread::sleep_for(tick_);
        }
    }
    void rescan()
    {
        while (!stop_.load()) {
            if (SMEventWait(started_, 10) != 0)
                continue;
            SMMutexLock(tables_, SM_WAIT_FOREVER);
            const std::string lockedUnder = servedOrigin();
            while (SMEventWait(completed_, 10) != 0 && !stop_.load()) {
            }
            {
                std::lock_guard lock(m_);
                rescans_.emplace_back(lockedUnder, servedOrigin());
            }
            std::this_thread::sleep_for(rebuild_);
            SMMutexUnLock(tables_);
        }
    }

    const bool locks_;
    const std::chrono::milliseconds tick_;
    const std::chrono::milliseconds rebuild_;
    SMEventHandle started_ = SMEventCreate(0, 0, nullptr);
    SMEventHandle completed_ = SMEventCreate(0, 0, nullptr);
    SMMutexHandle tables_ = SMMutexCreate(0);
    std::atomic<bool> stop_{false};
    std::atomic<int> reads_{0};
    std::mutex m_;
    std::vector<uint32_t> ids_;
    std::vector<std::pair<std::string, std::string>> rescans_;
    std::thread monitor_, rescan_;
};

class ModelSwap : public ::testing::Test {
  protected:
    void SetUp() override
    {
        // The gate's bounds are scaled: 4 s would become 200 ms; they stay 1 s.
        setenv("KELP_TIME_SCALE", "20", 1);
        clearEvents();
        ds::resetForTesting();
        load(kBase, "before");
    }
    void TearDown() override
    {
        clearEvents();
        ds::resetForTesting();
        unsetenv("KELP_TIME_SCALE");
    }
    static void load(const std::string &text, const std::string &origin)
    {
        std::string error;
        ASSERT_TRUE(ds::loadModelText(text, origin, &error)) << error;
    }
    static void queueBacklog(int n)
    {
        std::string error;
        for (int i = 0; i < n; ++i)
            ASSERT_TRUE(queueEvent(ctl::eventXml(2000, {}, {}, {}), &error)) << error;
    }
};

TEST_F(ModelSwap, IdsThatMoveAreSwappedUnderTheLockAheadOfTheEventsWaiting)
{
    StandIn plugIn(true);
    queueBacklog(20);
    // The stand-in may read a waiting event or two before the load starts
    // (more on a slow machine): the pair must come before those still
    // waiting then.
    const size_t readBefore = plugIn.handedOut().size();
    load(kMoved, "after");
    ASSERT_TRUE(plugIn.waitForRescans(1));
    // Locked while the old model was served, rebuilt from the new one.
    EXPECT_EQ(plugIn.rescans().front(), (std::pair<std::string, std::string>("before", "after")));
    const std::vector<uint32_t> ids = plugIn.handedOut();
    const auto started = std::find(ids.begin(), ids.end(), ctl::kRescanStartedEvent);
    ASSERT_NE(started, ids.end());
    const size_t at = size_t(started - ids.begin());
    EXPECT_LE(at, readBefore + 2) << "the pair came behind the events waiting at the load";
    for (size_t i = 0; i < at; ++i)
        EXPECT_EQ(ids[i], 2000u);
    ASSERT_GT(ids.size(), at + 1);
    EXPECT_EQ(ids[at + 1], ctl::kRescanCompletedEvent);
}

TEST_F(ModelSwap, IdsThatStayAreSwappedAtOnce)
{
    StandIn plugIn(true);
    queueBacklog(3);
    load(kSame, "after");
    EXPECT_EQ(servedOrigin(), "after");
    std::this_thread::sleep_for(100ms);
    for (uint32_t id : plugIn.handedOut())
        EXPECT_EQ(id, 2000u);
    EXPECT_TRUE(plugIn.rescans().empty());
}

TEST_F(ModelSwap, AnOpenRescanTakesTheSwapWithoutAnotherPair)
{
    // Reads far apart, so that the load comes between the pair's two
    // events even on a slow machine (or under a sanitizer).
    StandIn plugIn(true, 500ms);
    std::string error;
    ASSERT_TRUE(ctl::queueRescanEvents(&error)) << error;
    // The pair is one event a read apart: wait for the 3061 only, then give
    // the stand-in's rescan thread the moment it needs to lock its tables.
    for (auto end = Clock::now() + 2s; !rescanOpen() && Clock::now() < end;)
        std::this_thread::yield();
    ASSERT_TRUE(rescanOpen());
    std::this_thread::sleep_for(100ms);
    load(kMoved, "after");
    ASSERT_TRUE(plugIn.waitForRescans(1));
    EXPECT_EQ(plugIn.rescans().front(), (std::pair<std::string, std::string>("before", "after")));
    EXPECT_EQ(plugIn.handedOut(),
              (std::vector<uint32_t>{ctl::kRescanStartedEvent, ctl::kRescanCompletedEvent}));
}

TEST_F(ModelSwap, ASwapBeforeTheLastOnesCompletedEventKeepsThatEventToCome)
{
    // The reader reads every 50 ms: the second load comes while the first
    // one's 3060 waits for the reader's next read.
    StandIn plugIn(true, 50ms);
    load(kMoved, "after");
    load(kBase, "again");
    const auto loaded = Clock::now();
    ASSERT_TRUE(plugIn.waitForRescans(1));
    // Closed by the gate's 3060 at the next read, long before the rescan
    // time-out would close it (1.5 s here).
    EXPECT_LT(Clock::now() - loaded, 500ms);
    EXPECT_FALSE(rescanOpen());
    EXPECT_EQ(plugIn.rescans().front(), (std::pair<std::string, std::string>("before", "again")));
    EXPECT_EQ(plugIn.handedOut(),
              (std::vector<uint32_t>{ctl::kRescanStartedEvent, ctl::kRescanCompletedEvent}));
}

// A load right after the plug-in started, before its monitor's first read:
// swapped at once, the tables it had just built from the old model would
// answer other objects' values until some later rescan.
TEST_F(ModelSwap, AReaderThatIsStartingTakesTheSwapAtItsFirstRead)
{
    StandIn plugIn(true, 5ms, 60ms);
    load(kMoved, "after");
    ASSERT_TRUE(plugIn.waitForRescans(1));
    EXPECT_EQ(plugIn.rescans().front(), (std::pair<std::string, std::string>("before", "after")));
    EXPECT_EQ(plugIn.handedOut(),
              (std::vector<uint32_t>{ctl::kRescanStartedEvent, ctl::kRescanCompletedEvent}));
}

TEST_F(ModelSwap, WithoutAReaderTheSwapIsMadeAtOnce)
{
    const auto start = Clock::now();
    load(kMoved, "after");
    EXPECT_LT(Clock::now() - start, 100ms);
    EXPECT_EQ(servedOrigin(), "after");
    EXPECT_EQ(queuedEvents(), 0u);
}

TEST_F(ModelSwap, AReaderThatNeverLocksHoldsTheSwapForTheBoundOnly)
{
    StandIn plugIn(false);
    const auto start = Clock::now();
    load(kMoved, "after");
    const auto took = Clock::now() - start;
    EXPECT_GE(took, 950ms); // kMachineFloorMs, above kGateWaitMs / 20
    EXPECT_LT(took, 2s);
    EXPECT_EQ(servedOrigin(), "after");
    // The reader is handed the 3060 that closes the gate's rescan next.
    for (auto end = Clock::now() + 2s; plugIn.handedOut().size() < 2 && Clock::now() < end;)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(plugIn.handedOut(),
              (std::vector<uint32_t>{ctl::kRescanStartedEvent, ctl::kRescanCompletedEvent}));
}

// The plug-in's rescan events are flags, not counts: a 3061 handed out
// while its rescan thread is still rebuilding for the one before is taken
// together with that one, and a 3060 after it would then be left set, so
// that the next rescan rebuilds at once, before a swap. A 3060 waits until
// its rescan's lock is taken.
TEST_F(ModelSwap, RescansThatComeFasterThanTheReaderRebuildsStayPaired)
{
    StandIn plugIn(true, 30ms, 0ms, 100ms);
    std::string error;
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(ctl::queueRescanEvents(&error)) << error;
    EXPECT_TRUE(plugIn.waitForRescans(3));
    for (auto end = Clock::now() + 5s; queuedEvents() > 0 && Clock::now() < end;)
        std::this_thread::sleep_for(1ms);
    // The last 3060 has been handed out and taken.
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(plugIn.rescans().size(), 3u);
    const size_t before = plugIn.rescans().size();
    load(kMoved, "after");
    ASSERT_TRUE(plugIn.waitForRescans(before + 1));
    EXPECT_EQ(plugIn.rescans().back(), (std::pair<std::string, std::string>("before", "after")));
}

} // namespace
} // namespace kelp::ev
