// GetNext resolution: the fixed walk over scalars, groups and tables, and
// its special ends.
#include <cstddef>

#include <algorithm>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "datastore/model_store.h"
#include "frame/state.h"
#include "mib/registry.h"
#include "mib/resolve.h"
#include "platform/vcsupt.h"
#include "store/build.h"
#include "testing/model_fixture.h"
#include "testing/request.h"
#include "testing/test_spy.h"

namespace {

using testmodel::object;
using testmodel::serve;

std::string controllers(uint32_t count)
{
    std::string text;
    for (uint32_t id = 1; id <= count; id++) {
        text += object(id, "adapters", 0,
                       {{"Nexus", std::to_string(id)}, {"Name", "Ctrl " + std::to_string(id)}});
    }
    return text;
}

class GetNextTest : public ModelTest {
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        initWalkTable();
        g_SNMPRefreshMinutes = 5;
    }
    void build(const std::string &items)
    {
        serve(items);
        ASSERT_EQ(buildAll(), 0);
    }
    // GetNext of root.<below>: the status and the reply's name below the root.
    std::pair<int32_t, std::string> next(std::initializer_list<uint32_t> below,
                                         bool underRoot = true)
    {
        last = std::make_unique<Exchange>(below, underRoot);
        const int32_t status = getNextValue(&last->request, &last->reply);
        return {status, last->name()};
    }
    std::unique_ptr<Exchange> last;
};

TEST_F(GetNextTest, BeforeTheRootTheFirstObjectIsTheVersion)
{
    EXPECT_EQ(next({1, 3, 6, 1}, false), std::make_pair(0, std::string("1.0")));
    EXPECT_EQ(last->text(), "5.2.0");
    EXPECT_EQ(next({}), std::make_pair(0, std::string("1.0")));
}

TEST_F(GetNextTest, TheScalarsFollowEachOther)
{
    using R = std::pair<int32_t, std::string>;
    EXPECT_EQ(next({1}), R(0, "1.0"));
    EXPECT_EQ(next({1, 0}), R(0, "2.0"));
    EXPECT_EQ(next({4, 0}), R(0, "5.0"));
    EXPECT_EQ(next({5}), R(0, "5.0"));
    EXPECT_EQ(next({5, 0}), R(0, "100.1.0"));
    EXPECT_EQ(next({100}), R(0, "100.1.0"));
    EXPECT_EQ(next({100, 1}), R(0, "100.1.0"));
    EXPECT_EQ(next({100, 1, 0}), R(0, "100.2.0"));
    EXPECT_EQ(next({100, 3, 0}), R(0, "110.3.0"));
    EXPECT_EQ(next({100, 4}), R(2, "")) << "a column after the group's last ends the walk";
    EXPECT_EQ(next({110}), R(0, "110.3.0"));
    EXPECT_EQ(next({110, 6, 0}), R(0, "110.11.0"));
    EXPECT_EQ(next({110, 12}), R(0, "110.12.0"));
    EXPECT_EQ(next({110, 14, 0}), R(0, "110.15.0"));
}

TEST_F(GetNextTest, GlobalColumnsWithoutValuesEndTheWalk)
{
    EXPECT_EQ(next({110, 7, 0}).first, 2);
    EXPECT_EQ(next({110, 1}).first, 2);
    EXPECT_EQ(next({110, 16}).first, 2);
}

TEST_F(GetNextTest, AfterTheGlobalGroupComesTheFirstControllerRow)
{
    build(controllers(2));
    EXPECT_EQ(next({110, 15, 0}), std::make_pair(0, std::string("130.1.1.1.1")));
    EXPECT_EQ(last->reply.value, 1u);
}

TEST_F(GetNextTest, WithNoObjectsTheWalkPassesEveryTableAndEnds)
{
    build("");
    EXPECT_EQ(next({110, 15, 0}).first, 2);
}

TEST_F(GetNextTest, TheGroupArcAloneEndsTheWalk)
{
    build(controllers(1));
    EXPECT_EQ(next({130}).first, 2);
    EXPECT_EQ(next({140}).first, 2);
    EXPECT_EQ(next({130, 19}).first, 2);
    EXPECT_EQ(next({140, 9}).first, 5);
    EXPECT_EQ(next({7}).first, 2);
}

TEST_F(GetNextTest, ATableArcLeadsToItsFirstCell)
{
    build(controllers(1));
    EXPECT_EQ(next({130, 1}), std::make_pair(0, std::string("130.1.1.1.1")));
}

TEST_F(GetNextTest, ColumnsAreWalkedRowByRow)
{
    build(controllers(3));
    EXPECT_EQ(next({130, 1, 1, 1, 1}), std::make_pair(0, std::string("130.1.1.1.2")));
    EXPECT_EQ(next({130, 1, 1, 2, 3}), std::make_pair(0, std::string("130.1.1.3.1")));
    EXPECT_EQ(next({130, 1, 1, 2}), std::make_pair(0, std::string("130.1.1.2.1")));
    EXPECT_EQ(last->text(), "Ctrl 1");
}

// Column 69 fails without "AttributesMask" (99, result 2) and column 70
// without "CtrlPICapable": the walk goes on with the same record, which must
// still carry the caller's buffer for the text of column 71.
TEST_F(GetNextTest, AFailedNumberCandidateLeavesTheBufferForTheNextTextCell)
{
    build(
        object(1, "adapters", 0, {{"Nexus", "0"}, {"Name", "Ctrl 0"}, {"PersonalityState", "1"}}));
    EXPECT_EQ(next({130, 1, 1, 69, 0}), std::make_pair(0, std::string("130.1.1.71.1")));
    EXPECT_EQ(last->text(), "RAID");
}

// A failed candidate may leave the reply without the caller's buffer. Array
// disk column 48 fails without "PCIeSSDDeviceWriteStatus" after putting "No"
// in a buffer of its own; the walk frees it, and column 49 writes its number
// into the caller's buffer.
TEST_F(GetNextTest, AFailedCandidateWithABufferOfItsOwnGivesTheCallersBack)
{
    build(
        object(1, "arraydisks", 0, {{"Nexus", "0\\1\\4"}, {"RemainingRatedWriteEndurance", "97"}}));
    kelp::testspy::reset();
    EXPECT_EQ(next({130, 4, 1, 47, 1}), std::make_pair(0, std::string("130.4.1.49.1")));
    EXPECT_EQ(last->reply.buffer, last->replyBuffer);
    EXPECT_EQ(last->text(), "97");
    EXPECT_EQ(kelp::testspy::spy().allocations, 1);
    EXPECT_EQ(kelp::testspy::spy().frees, 1);
}

// Column 49 answers "Not Applicable" in a buffer of its own too: the one of
// the failed column 48 before it is freed, not lost, and the answer's buffer
// passes to the caller.
TEST_F(GetNextTest, ABufferOfItsOwnAfterAFailedOneIsTheOnlyOneLeft)
{
    build(object(1, "arraydisks", 0, {{"Nexus", "0\\1\\4"}}));
    kelp::testspy::reset();
    EXPECT_EQ(next({130, 4, 1, 47, 1}), std::make_pair(0, std::string("130.4.1.49.1")));
    EXPECT_EQ(last->text(), "Not Applicable");
    ASSERT_NE(last->reply.buffer, last->replyBuffer);
    EXPECT_EQ(kelp::testspy::spy().allocations, 2);
    EXPECT_EQ(kelp::testspy::spy().frees, 1);
}

// Column 42 reads the power state into the reply, which drops the buffer,
// then fails without "MediaType"; column 43 fails without its attribute; the
// text of column 44 still has the caller's buffer to go into.
TEST_F(GetNextTest, AFailedCandidateThatDroppedTheBufferGivesTheCallersBack)
{
    build(object(1, "arraydisks", 0,
                 {{"Nexus", "0\\1\\4"}, {"PDPowerState", "1"}, {"ModelNumber", "M"}}));
    EXPECT_EQ(next({130, 4, 1, 41, 1}), std::make_pair(0, std::string("130.4.1.44.1")));
    EXPECT_EQ(last->reply.buffer, last->replyBuffer);
    EXPECT_EQ(last->text(), "M");
}

TEST_F(GetNextTest, AnEntryArcAboveOneEndsTheWalk)
{
    build(controllers(1));
    EXPECT_EQ(next({130, 1, 2}).first, 2);
}

TEST_F(GetNextTest, PastTheConnectionTableColumnBoundTheWalkEndsAfterTheRoot)
{
    build(controllers(1));
    const auto [status, name] = next({140, 3, 1, 7, 1});
    EXPECT_EQ(status, 2);
    EXPECT_EQ(name, "1.3.6.1.4.1.61234.20571.1.21");
    EXPECT_EQ(next({140, 3, 2}).second, "1.3.6.1.4.1.61234.20571.1.21");
}

TEST_F(GetNextTest, TheLastControllerCellLeadsPastTheUnservedTablesToTheEnd)
{
    build(controllers(1));
    EXPECT_EQ(next({130, 1, 1, 73, 1}).first, 2);
}

TEST_F(GetNextTest, ARequestWithHugeArcsDoesNotWrapIntoTheTable)
{
    build(controllers(2));
    const auto [status, name] = next({130, 1, 1, 0xFFFFFFFF, 0xFFFFFFFF});
    EXPECT_EQ(status, 2);
}

TEST_F(GetNextTest, EveryAnswerSortsAfterItsRequest)
{
    build(controllers(2));
    std::vector<uint32_t> current{1, 3, 6, 1};
    int32_t status = 0;
    int steps = 0;
    while (steps++ < 1000) {
        Exchange x{{}, false};
        x.requestArcs = current;
        x.request.name = SMSnmpOID{static_cast<uint32_t>(current.size()), 0, x.requestArcs.data()};
        status = getNextValue(&x.request, &x.reply);
        if (status != 0) {
            break;
        }
        const std::vector<uint32_t> answered(x.reply.name.arcs,
                                             x.reply.name.arcs + x.reply.name.count);
        ASSERT_LT(current, answered) << x.name();
        current = answered;
    }
    EXPECT_EQ(status, 2);
    EXPECT_GT(steps, 20);
}

// On the sample model, whose rows fill every served table.
TEST_F(GetNextTest, EveryPrefixOfAWalkedNameIsAnsweredInOrder)
{
    testmodel::serveSampleModel();
    std::vector<std::vector<uint32_t>> walked;
    std::vector<uint32_t> current{1, 3, 6, 1};
    for (int steps = 0; steps < 20000; steps++) {
        Exchange x{{}, false};
        x.requestArcs = current;
        x.request.name = SMSnmpOID{static_cast<uint32_t>(current.size()), 0, x.requestArcs.data()};
        if (getNextValue(&x.request, &x.reply) != 0) {
            break;
        }
        current.assign(x.reply.name.arcs, x.reply.name.arcs + x.reply.name.count);
        walked.push_back(current);
    }
    ASSERT_GT(walked.size(), 1000u);
    for (const uint32_t table : {1u, 2u, 3u, 4u, 17u, 18u}) {
        EXPECT_TRUE(std::any_of(walked.begin(), walked.end(),
                                [&](const auto &name) {
                                    return name.size() > 11 && name[10] == 130 && name[11] == table;
                                }))
            << "the walk reaches 130." << table;
    }
    for (const std::vector<uint32_t> &name : walked) {
        for (size_t length = 0; length <= name.size(); length++) {
            const std::vector<uint32_t> prefix(name.begin(),
                                               name.begin() + static_cast<std::ptrdiff_t>(length));
            Exchange get{{}, false};
            get.requestArcs = prefix;
            get.request.name = SMSnmpOID{static_cast<uint32_t>(length), 0,
                                         length == 0 ? nullptr : get.requestArcs.data()};
            const int32_t got = getValue(&get.request, &get.reply);
            EXPECT_TRUE(got == 0 || got == 2 || got == 3 || got == 5) << got;

            Exchange next{{}, false};
            next.requestArcs = prefix;
            next.request.name = SMSnmpOID{static_cast<uint32_t>(length), 0,
                                          length == 0 ? nullptr : next.requestArcs.data()};
            const int32_t status = getNextValue(&next.request, &next.reply);
            if (status == 0) {
                const std::vector<uint32_t> answered(next.reply.name.arcs,
                                                     next.reply.name.arcs + next.reply.name.count);
                EXPECT_LT(prefix, answered);
            } else {
                EXPECT_TRUE(status == 2 || status == 5) << status;
            }
        }
    }
}

} // namespace
