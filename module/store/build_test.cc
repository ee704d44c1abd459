// Building the tables from a served model, and rebuilding them with stable
// or fresh row indices.
#include "store/build.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "testing/debug_capture.h"
#include "testing/model_fixture.h"

namespace {

using testmodel::link;
using testmodel::object;
using testmodel::serve;

// A controller with a channel and an enclosure, the common top of the models
// below.
std::string top()
{
    return object(1, "adapters", 0, {{"Nexus", "0"}, {"Name", "Vorn RX-240"}}) +
           object(2, "bus", 1, {{"Nexus", "0\\0"}}) +
           object(3, "enclosures", 2, {{"Nexus", "0\\0\\1"}});
}

std::string disk(uint32_t id, uint32_t parent, const std::string &nexus)
{
    return object(id, "arraydisks", parent, {{"Nexus", nexus}});
}

void rebuild()
{
    rebuildAllStep1();
    rebuildAllStep2();
}

std::string nexusAt(ObjList *list, uint32_t row)
{
    const ObjNode *node = getNodeByIndex(list, row);
    return node == nullptr ? "<no row>" : node->nexusId == nullptr ? "<null>" : node->nexusId;
}

class BuildTest : public ModelTest {};

TEST_F(BuildTest, BuildAllFillsEveryTableFromTheModel)
{
    serve(top() + disk(10, 3, "0\\0\\1\\0") + disk(11, 2, "0\\0\\9") +
          object(20, "vdisks", 1, {{"Nexus", "v0"}}) + link(10, 20) + link(11, 20) +
          object(30, "fans", 3, {{"Nexus", "f0"}}) + object(31, "psupplies", 3, {{"Nexus", "p0"}}) +
          object(32, "tempprobes", 3, {{"Nexus", "t0"}}) +
          object(33, "emms", 3, {{"Nexus", "e0"}}) + object(34, "batteries", 1, {{"Nexus", "b0"}}) +
          object(35, "Tape", 2, {{"Nexus", "tp"}}) +
          object(36, "VDPartitionNode", 20, {{"Nexus", "vp"}}) +
          object(37, "Tidal Cache", 1, {{"Nexus", "c0"}}) +
          object(38, "Tidal Cache Pool", 1, {{"Nexus", "cp"}}) +
          object(39, "CacheLunNode", 38, {{"Nexus", "cl"}}) +
          object(40, "NVMeAdapter", 0, {{"Nexus", "nv"}}));
    EXPECT_EQ(buildAll(), 0);
    for (const TableListPair &pair : kTableListPairs) {
        EXPECT_EQ(pair.staging->length, 0u);
    }
    EXPECT_EQ(ctrlList.length, 1u);
    EXPECT_EQ(chanList.length, 1u);
    EXPECT_EQ(enclList.length, 1u);
    EXPECT_EQ(adList.length, 2u);
    EXPECT_EQ(vdList.length, 1u);
    EXPECT_EQ(adLogConnList.length, 2u);
    EXPECT_EQ(adEnclConnList.length, 1u);
    EXPECT_EQ(adChanConnList.length, 1u);
    for (ObjList *list : {&fanList, &psuList, &tempList, &emmList, &battList, &tapeList,
                          &vdPartList, &cacheList, &cachePoolList, &cacheDiskList, &nvmeList}) {
        EXPECT_EQ(list->length, 1u);
    }
    EXPECT_EQ(getNodeByIndex(&adList, 1)->objId, 10u);
    EXPECT_EQ(nexusAt(&adList, 2), "0\\0\\9");
}

TEST_F(BuildTest, ATypeWithoutObjectsBuildsAnEmptyTableWithoutAnExitLine)
{
    serve(top());
    DebugCapture capture;
    EXPECT_EQ(buildTable(&fanList, "fans"), 0);
    EXPECT_EQ(fanList.length, 0u);
    EXPECT_EQ(capture.text(), "buildTable: Entry\n");
}

// Rows pair the n-th "ObjID" of the list answer with its n-th "Nexus", so an
// object without a nexus must come last to be left out cleanly.
TEST_F(BuildTest, AnObjectWithoutNexusIsLeftOutWithoutALogLine)
{
    serve(top() + object(30, "fans", 3, {{"Nexus", "f0"}}) +
          object(31, "fans", 3, {{"Name", "no nexus"}}));
    DebugCapture capture;
    EXPECT_EQ(buildTable(&fanList, "fans"), 0);
    ASSERT_EQ(fanList.length, 1u);
    EXPECT_EQ(fanList.head->objId, 30u);
    EXPECT_EQ(capture.text(), "buildTable: Entry\n"
                              "buildTable: Get nexusId: f0 for objId: 30 \n"
                              "buildTable: Exit\n");
}

TEST_F(BuildTest, AVanishedObjectLeavesAHoleAndGetsItsRowBackInAStableTable)
{
    serve(top() + object(30, "fans", 3, {{"Nexus", "f0"}}) +
          object(31, "fans", 3, {{"Nexus", "f1"}}));
    ASSERT_EQ(buildAll(), 0);
    std::string error;
    ASSERT_TRUE(kelp::ds::removeObject(30, &error)) << error;
    rebuild();
    ASSERT_EQ(fanList.length, 2u);
    EXPECT_EQ(getNodeByIndex(&fanList, 1)->objId, 0u);
    EXPECT_EQ(nexusAt(&fanList, 1), "f0");
    EXPECT_EQ(getNodeByIndex(&fanList, 2)->objId, 31u);

    // It comes back under a new id with its old nexus.
    ASSERT_TRUE(kelp::ds::addObjects(object(32, "fans", 3, {{"Nexus", "f0"}}), &error)) << error;
    rebuild();
    ASSERT_EQ(fanList.length, 2u);
    EXPECT_EQ(getNodeByIndex(&fanList, 1)->objId, 32u);
    EXPECT_EQ(getNodeByIndex(&fanList, 2)->objId, 31u);
}

TEST_F(BuildTest, AReturningPairOfTheConnectionTableIsANewRow)
{
    serve(top() + disk(10, 3, "d0") + object(20, "vdisks", 1, {{"Nexus", "v0"}}) + link(10, 20));
    ASSERT_EQ(buildAll(), 0);
    ASSERT_EQ(adLogConnList.length, 1u);
    EXPECT_EQ(nexusAt(&adLogConnList, 1), "d0v0");
    EXPECT_EQ(adLogConnList.head->subObjId, 20u);

    std::string error;
    ASSERT_TRUE(kelp::ds::removeObject(20, &error)) << error;
    rebuild();
    ASSERT_EQ(adLogConnList.length, 1u);
    EXPECT_EQ(adLogConnList.head->objId, 0u);
    EXPECT_EQ(adLogConnList.head->subObjId, 0u);
    EXPECT_EQ(adLogConnList.head->nexusId, nullptr);

    ASSERT_TRUE(
        kelp::ds::addObjects(object(20, "vdisks", 1, {{"Nexus", "v0"}}) + link(10, 20), &error))
        << error;
    rebuild();
    ASSERT_EQ(adLogConnList.length, 2u);
    EXPECT_EQ(adLogConnList.head->objId, 0u);
    EXPECT_EQ(nexusAt(&adLogConnList, 2), "d0v0");
    EXPECT_EQ(getNodeByIndex(&adLogConnList, 2)->index, 2u);
}

TEST_F(BuildTest, TwoLiveRowsWithOneNexusLeaveTheSecondAHole)
{
    ObjList live{}, staging{};
    ASSERT_EQ(InsertList(&live, 1, 0, strdup("x")), 0);
    ASSERT_EQ(InsertList(&live, 2, 0, strdup("x")), 0);
    ASSERT_EQ(InsertList(&staging, 9, 0, strdup("x")), 0);
    EXPECT_EQ(rebuildTable(&live, &staging), 0);
    EXPECT_EQ(getNodeByIndex(&live, 1)->objId, 9u);
    EXPECT_EQ(getNodeByIndex(&live, 2)->objId, 0u);
    EXPECT_EQ(live.length, 2u);
    EXPECT_EQ(staging.length, 0u);
    freeList(&live);
    freeList(&staging);
}

TEST_F(BuildTest, RebuildTable2KeepsAHoleAHoleForGood)
{
    ObjList live{}, staging{};
    ASSERT_EQ(InsertList(&live, 1, 5, strdup("a")), 0);
    ASSERT_EQ(InsertList(&live, 2, 6, nullptr), 0);
    ASSERT_EQ(InsertList(&staging, 7, 8, strdup("a")), 0);
    ASSERT_EQ(InsertList(&staging, 9, 9, strdup("b")), 0);
    EXPECT_EQ(rebuildTable2(&live, &staging), 0);
    EXPECT_EQ(getNodeByIndex(&live, 1)->objId, 7u);
    EXPECT_EQ(getNodeByIndex(&live, 1)->subObjId, 8u);
    EXPECT_EQ(getNodeByIndex(&live, 2)->objId, 2u); // passed over, untouched
    EXPECT_EQ(nexusAt(&live, 3), "b");
    freeList(&live);
    freeList(&staging);
}

TEST_F(BuildTest, VirtualDisksWithAParentAreInNeitherTable)
{
    serve(top() + disk(10, 3, "d0") + object(20, "vdisks", 1, {{"Nexus", "span"}}) +
          object(21, "vdisks", 20, {{"Nexus", "part1"}, {"ParentVDID", "20"}}) +
          object(22, "vdisks", 20, {{"Nexus", "part2"}, {"ParentVDID", "20"}}) + link(10, 20) +
          link(10, 21));
    ASSERT_EQ(buildAll(), 0);
    ASSERT_EQ(vdList.length, 1u);
    EXPECT_EQ(vdList.head->objId, 20u);
    ASSERT_EQ(adLogConnList.length, 1u);
    EXPECT_EQ(adLogConnList.head->subObjId, 20u);
    rebuild();
    EXPECT_EQ(vdList.length, 1u);
    EXPECT_EQ(adLogConnList.length, 1u);
}

TEST_F(BuildTest, AnArrayDiskIsInExactlyOneOfTheEnclosureAndChannelTables)
{
    serve(top() + disk(10, 3, "in-enclosure") + disk(11, 2, "on-channel"));
    ASSERT_EQ(buildAll(), 0);
    ASSERT_EQ(adEnclConnList.length, 1u);
    EXPECT_EQ(adEnclConnList.head->objId, 10u);
    ASSERT_EQ(adChanConnList.length, 1u);
    EXPECT_EQ(adChanConnList.head->objId, 11u);
}

TEST_F(BuildTest, NexusesOfFortyAndFortyAreLoggedAndKeepTheDiskNexusAlone)
{
    const std::string diskNexus(40, 'd'), vdNexus(40, 'v');
    serve(top() + disk(10, 3, diskNexus) + object(20, "vdisks", 1, {{"Nexus", vdNexus}}) +
          link(10, 20));
    DebugCapture capture;
    ASSERT_EQ(buildAll(), 0);
    EXPECT_NE(capture.text().find("buildADLogConn(): nexusID assignment failed \n"),
              std::string::npos);
    EXPECT_EQ(nexusAt(&adLogConnList, 1), diskNexus);
}

TEST_F(BuildTest, NexusesOfFortyAndFortyOneAreCutToSeventyNine)
{
    const std::string diskNexus(40, 'd'), vdNexus(41, 'v');
    serve(top() + disk(10, 3, diskNexus) + object(20, "vdisks", 1, {{"Nexus", vdNexus}}) +
          link(10, 20));
    DebugCapture capture;
    ASSERT_EQ(buildAll(), 0);
    EXPECT_EQ(capture.text().find("nexusID assignment failed"), std::string::npos);
    EXPECT_EQ(nexusAt(&adLogConnList, 1), diskNexus + std::string(39, 'v'));
}

TEST_F(BuildTest, AnOverlongDiskNexusIsCutSafely)
{
    const std::string diskNexus(150, 'd');
    serve(top() + disk(10, 3, diskNexus) + object(20, "vdisks", 1, {{"Nexus", "v"}}) +
          link(10, 20));
    ASSERT_EQ(buildAll(), 0);
    EXPECT_EQ(nexusAt(&adLogConnList, 1), std::string(79, 'd'));
}

TEST_F(BuildTest, ArrayDisksAreRenumberedOnEveryRebuild)
{
    serve(top() + disk(10, 3, "d0") + disk(11, 3, "d1"));
    ASSERT_EQ(buildAll(), 0);
    std::string error;
    ASSERT_TRUE(kelp::ds::removeObject(10, &error)) << error;
    rebuild();
    ASSERT_EQ(adList.length, 1u);
    EXPECT_EQ(adList.head->objId, 11u);
    EXPECT_EQ(adList.head->index, 1u);
    EXPECT_EQ(adEnclConnList.length, 1u);
}

TEST_F(BuildTest, NewObjectsAreAppendedAfterTheStableRows)
{
    serve(top() + object(30, "fans", 3, {{"Nexus", "f0"}}));
    ASSERT_EQ(buildAll(), 0);
    std::string error;
    ASSERT_TRUE(kelp::ds::addObjects(object(31, "fans", 3, {{"Nexus", "f1"}}), &error)) << error;
    rebuild();
    ASSERT_EQ(fanList.length, 2u);
    EXPECT_EQ(nexusAt(&fanList, 2), "f1");
    for (const TableListPair &pair : kTableListPairs) {
        EXPECT_EQ(pair.staging->length, 0u);
    }
}

TEST_F(BuildTest, TheStepsPrintTheirLines)
{
    serve(top());
    DebugCapture capture;
    ASSERT_EQ(buildAll(), 0);
    rebuild();
    const std::string text = capture.text();
    for (const char *line :
         {"buildAll: Entry\n", "buildAll: Exit\n", "buildADLogConnTable: Entered\n",
          "buildADLogConnTable: exit\n", "rebuildAllStep1: Entered!!!!!@@@@@@@@$$$$$$$$$$$\n",
          "rebuildAllStep1: Exit!!!!####$$$$$!!!!\n",
          "rebuildAllStep2: Entered!!!!!@@@@@@@@$$$$$$$$$$$\n",
          "rebuildAllStep2: Exit!!!!####$$$$$!!!!\n", "rebuildTable: Entered\n",
          "rebuildTable(): Exit\n", "rebuildTable2(): Entered\n", "rebuildTable2(): Exit\n"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line;
    }
}

TEST(BuildTables, EveryListIsBuiltRebuiltAndMergedOnce)
{
    EXPECT_TRUE(buildTablesNameEveryListOnce());
}

} // namespace
