// LiveModelMaker and findChanges: ids stay with their objects across scans,
// kept components go "missing" instead of away, and each difference becomes
// the event a storage service raises for it.
#include "datastore/live/changes.h"

#include <gtest/gtest.h>

#include "datastore/live/live_model.h"
#include "datastore/live/scan.h"

namespace kelp::live {
namespace {

LiveObject object(std::string type, std::string nexus, std::optional<size_t> parent,
                  ds::Attributes attributes)
{
    return LiveObject{std::move(type), std::move(nexus), parent, std::move(attributes)};
}

// A controller, a channel, an enclosure with a fan, a power supply and a
// probe, two disks and an array over them.
LiveScan machine()
{
    LiveScan s;
    s.storage = {{"ready", "1"}};
    s.objects.push_back(object("adapters", "0", {}, {{"Name", "HBA"}, {"ObjStatus", "2"}}));
    s.objects.push_back(object("bus", "0\\0", 0, {{"ObjStatus", "2"}}));
    s.objects.push_back(object("enclosures", "0\\0\\0", 1, {{"ObjStatus", "2"}}));
    s.objects.push_back(
        object("fans", "0\\0\\0\\1\\0", 2, {{"ObjState", "1"}, {"ObjStatus", "2"}}));
    s.objects.push_back(
        object("psupplies", "0\\0\\0\\2\\0", 2, {{"ObjState", "1"}, {"ObjStatus", "2"}}));
    s.objects.push_back(object("tempprobes", "0\\0\\0\\3\\0", 2,
                               {{"ObjState", "1"},
                                {"ObjStatus", "2"},
                                {"CurrentTemp", "30"},
                                {"MaxWarning", "50"},
                                {"MaxError", "60"}}));
    s.objects.push_back(
        object("arraydisks", "0\\0\\0\\0", 2, {{"ObjState", "4"}, {"ObjStatus", "2"}}));
    s.objects.push_back(
        object("arraydisks", "0\\0\\0\\1", 2, {{"ObjState", "4"}, {"ObjStatus", "2"}}));
    s.objects.push_back(
        object("vdisks", "0\\128\\0", 0, {{"Name", "md0"}, {"ObjState", "4"}, {"ObjStatus", "2"}}));
    s.links = {{8, 6}, {8, 7}};
    return s;
}

void setAttr(LiveScan *s, const std::string &type, const std::string &nexus,
             const std::string &name, const std::string &value)
{
    auto pos = s->find(type, nexus);
    ASSERT_TRUE(pos);
    for (auto &[key, v] : s->objects[*pos].attributes) {
        if (key == name) {
            v = value;
            return;
        }
    }
    s->objects[*pos].attributes.emplace_back(name, value);
}

class ChangesTest : public ::testing::Test {
  protected:
    std::shared_ptr<const ds::Model> build(const LiveScan &scan)
    {
        const ds::ModelData before = last ? last->data() : ds::ModelData();
        ds::ModelData data = maker.make(scan, last ? &before : nullptr, "live test");
        std::string error;
        auto model = ds::Model::build(std::move(data), &error);
        EXPECT_TRUE(model) << error;
        return model;
    }
    // The events from the last model to the one of `scan`.
    std::vector<uint32_t> eventsTo(const LiveScan &scan, bool *setChanged = nullptr)
    {
        auto before = last;
        last = build(scan);
        ChangeSet set = findChanges(*before, *last);
        if (setChanged)
            *setChanged = set.setChanged;
        std::vector<uint32_t> events;
        for (const Change &c : set.changes)
            events.push_back(c.event);
        return events;
    }
    void SetUp() override { last = build(machine()); }

    LiveModelMaker maker;
    std::shared_ptr<const ds::Model> last;
};

TEST_F(ChangesTest, NothingChangedNothingQueued)
{
    bool setChanged = true;
    EXPECT_TRUE(eventsTo(machine(), &setChanged).empty());
    EXPECT_FALSE(setChanged);
}

TEST_F(ChangesTest, IdsStayWithTheirObjects)
{
    const auto first = last;
    LiveScan s = machine();
    // A new disk listed first takes a new id; the others keep theirs.
    s.objects.insert(s.objects.begin() + 6, object("arraydisks", "0\\0\\0\\5", 2,
                                                   {{"ObjState", "1"}, {"ObjStatus", "2"}}));
    s.links = {{9, 7}, {9, 8}};
    eventsTo(s);
    for (const char *nexus : {"0\\0\\0\\0", "0\\0\\0\\1"}) {
        auto a = first->findByNexus("arraydisks", nexus);
        auto b = last->findByNexus("arraydisks", nexus);
        ASSERT_TRUE(a && b);
        EXPECT_EQ(first->idOf(*a), last->idOf(*b)) << nexus;
    }
    auto added = last->findByNexus("arraydisks", "0\\0\\0\\5");
    ASSERT_TRUE(added);
    EXPECT_GT(last->idOf(*added), 9u);
}

TEST_F(ChangesTest, DiskRemovedAndInserted)
{
    LiveScan s = machine();
    s.objects.erase(s.objects.begin() + 7);
    s.links = {{7, 6}};
    bool setChanged = false;
    EXPECT_EQ(eventsTo(s, &setChanged), (std::vector<uint32_t>{kDiskRemoved}));
    EXPECT_TRUE(setChanged);
    EXPECT_FALSE(last->findByNexus("arraydisks", "0\\0\\0\\1")) << "disks that leave disappear";
    EXPECT_EQ(eventsTo(machine(), &setChanged), (std::vector<uint32_t>{kDiskInserted}));
    EXPECT_TRUE(setChanged);
}

TEST_F(ChangesTest, MemberFailsArrayDegradesRebuildsAndRecovers)
{
    LiveScan s = machine();
    setAttr(&s, "arraydisks", "0\\0\\0\\1", "ObjState", "2");
    setAttr(&s, "arraydisks", "0\\0\\0\\1", "ObjStatus", "4");
    setAttr(&s, "vdisks", "0\\128\\0", "ObjState", "32");
    setAttr(&s, "vdisks", "0\\128\\0", "ObjStatus", "3");
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kDiskFailed, kArrayDegraded}));

    setAttr(&s, "arraydisks", "0\\0\\0\\1", "ObjState", "64");
    setAttr(&s, "arraydisks", "0\\0\\0\\1", "ObjStatus", "2");
    setAttr(&s, "arraydisks", "0\\0\\0\\1", "RebuildProgress", "3");
    setAttr(&s, "vdisks", "0\\128\\0", "ObjState", "64");
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kRebuildStarted}));
    setAttr(&s, "arraydisks", "0\\0\\0\\1", "RebuildProgress", "9");
    EXPECT_TRUE(eventsTo(s).empty()) << "no step passed";
    setAttr(&s, "arraydisks", "0\\0\\0\\1", "RebuildProgress", "42");
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kRebuildProgress}));
    EXPECT_EQ(eventsTo(machine()), (std::vector<uint32_t>{kRebuildCompleted, kArrayOptimal}));
}

TEST_F(ChangesTest, ADiskGoesOfflineAndComesBackOnline)
{
    LiveScan s = machine();
    setAttr(&s, "arraydisks", "0\\0\\0\\0", "ObjState", "8");
    setAttr(&s, "arraydisks", "0\\0\\0\\0", "ObjStatus", "4");
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kDiskOffline}));
    EXPECT_EQ(eventsTo(s), std::vector<uint32_t>{}) << "still offline";
    EXPECT_EQ(eventsTo(machine()), (std::vector<uint32_t>{kDiskOnline}));
    // Offline, then failed: the failure alone.
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kDiskOffline}));
    setAttr(&s, "arraydisks", "0\\0\\0\\0", "ObjState", "2");
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kDiskFailed}));
}

TEST_F(ChangesTest, ADiskThatPredictsItsFailureRaisesItOnce)
{
    LiveScan s = machine();
    std::string mask(40, '0');
    setAttr(&s, "arraydisks", "0\\0\\0\\1", "AttributesMask", mask);
    EXPECT_EQ(eventsTo(s), std::vector<uint32_t>{}) << "a mask with no bit set";
    mask[kPredictedFailureBit] = '1';
    setAttr(&s, "arraydisks", "0\\0\\0\\1", "AttributesMask", mask);
    setAttr(&s, "arraydisks", "0\\0\\0\\1", "ObjStatus", "3");
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kDiskPredictedFailure}));
    EXPECT_EQ(eventsTo(s), std::vector<uint32_t>{}) << "still predicting it";
    // Cleared (the disk was replaced by one of the same name, or its log
    // was reset), then predicted again: raised again.
    mask[kPredictedFailureBit] = '0';
    setAttr(&s, "arraydisks", "0\\0\\0\\1", "AttributesMask", mask);
    EXPECT_EQ(eventsTo(s), std::vector<uint32_t>{});
    mask[kPredictedFailureBit] = '1';
    setAttr(&s, "arraydisks", "0\\0\\0\\1", "AttributesMask", mask);
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kDiskPredictedFailure}));
}

TEST_F(ChangesTest, ArrayFails)
{
    LiveScan s = machine();
    setAttr(&s, "vdisks", "0\\128\\0", "ObjState", "2");
    setAttr(&s, "vdisks", "0\\128\\0", "ObjStatus", "4");
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kArrayFailed}));
}

TEST_F(ChangesTest, PulledPowerSupplyStaysAsMissingAndComesBack)
{
    LiveScan s = machine();
    s.objects.erase(s.objects.begin() + 4); // the power supply
    s.links = {{7, 5}, {7, 6}};
    bool setChanged = true;
    EXPECT_EQ(eventsTo(s, &setChanged), (std::vector<uint32_t>{kPowerSupplyRemoved}));
    EXPECT_FALSE(setChanged) << "the row stays";
    auto psu = last->findByNexus("psupplies", "0\\0\\0\\2\\0");
    ASSERT_TRUE(psu);
    EXPECT_EQ(last->attribute(*psu, "ObjState"), std::to_string(kStateMissing));
    EXPECT_EQ(last->attribute(*psu, "ObjStatus"), "3");
    EXPECT_TRUE(eventsTo(s).empty()) << "still missing: nothing new";
    EXPECT_EQ(eventsTo(machine()), (std::vector<uint32_t>{kPowerSupplyNormal}));
}

TEST_F(ChangesTest, FanFailsAndRecovers)
{
    LiveScan s = machine();
    setAttr(&s, "fans", "0\\0\\0\\1\\0", "ObjStatus", "4");
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kFanFailed}));
    EXPECT_EQ(eventsTo(machine()), (std::vector<uint32_t>{kFanNormal}));
}

TEST_F(ChangesTest, TemperatureWarningCriticalAndBack)
{
    LiveScan s = machine();
    setAttr(&s, "tempprobes", "0\\0\\0\\3\\0", "CurrentTemp", "55");
    setAttr(&s, "tempprobes", "0\\0\\0\\3\\0", "ObjStatus", "3");
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kTemperatureWarning}));
    setAttr(&s, "tempprobes", "0\\0\\0\\3\\0", "CurrentTemp", "65");
    setAttr(&s, "tempprobes", "0\\0\\0\\3\\0", "ObjStatus", "4");
    EXPECT_EQ(eventsTo(s), (std::vector<uint32_t>{kTemperatureCritical}));
    EXPECT_EQ(eventsTo(machine()), (std::vector<uint32_t>{kTemperatureNormal}));
}

TEST_F(ChangesTest, ALinkChangeIsASetChange)
{
    LiveScan s = machine();
    s.links = {{8, 6}};
    bool setChanged = false;
    EXPECT_TRUE(eventsTo(s, &setChanged).empty());
    EXPECT_TRUE(setChanged);
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

TEST_F(ChangesTest, AProbeThatGoesAwayRaisesNoTemperatureEvent)
{
    LiveScan s = machine();
    s.objects.erase(s.objects.begin() + 5); // the probe
    s.links = {{7, 5}, {7, 6}};
    EXPECT_TRUE(eventsTo(s).empty());
    auto probe = last->findByNexus("tempprobes", "0\\0\\0\\3\\0");
    ASSERT_TRUE(probe) << "kept as missing";
    EXPECT_EQ(last->attribute(*probe, "ObjState"), std::to_string(kStateMissing));
}

TEST_F(ChangesTest, AnEnclosureThatGoesAwayNamesItsController)
{
    LiveScan s = machine();
    // The enclosure and everything in it go.
    s.objects.resize(2);
    s.objects.push_back(
        object("vdisks", "0\\128\\0", 0, {{"Name", "md0"}, {"ObjState", "2"}, {"ObjStatus", "4"}}));
    s.links.clear();
    auto before = last;
    last = build(s);
    ChangeSet set = findChanges(*before, *last);
    bool found = false;
    for (const Change &c : set.changes) {
        if (c.event == kEnclosureGone) {
            found = true;
            EXPECT_EQ(c.parms, std::vector<std::string>{"0"});
        }
    }
    EXPECT_TRUE(found);
    EXPECT_TRUE(set.setChanged) << "its disks left";
}

} // namespace
} // namespace kelp::live
