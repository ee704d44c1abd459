// Behaviour of the object lists: append-only indices, holes, removal from
// staging lists, look-ups and the debug dump.
#include "store/objlist.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "testing/debug_capture.h"

namespace {

char *dupText(const char *text)
{
    return strdup(text);
}

class ObjListTest : public ::testing::Test {
  protected:
    void SetUp() override { initList(&list); }
    void TearDown() override { freeList(&list); }

    void append(uint32_t objId, const char *nexus)
    {
        ASSERT_EQ(InsertList(&list, objId, 0, nexus ? dupText(nexus) : nullptr), 0);
    }

    ObjList list{};
};

TEST_F(ObjListTest, AppendedNodesTakeTheNewLengthAsIndex)
{
    append(11, "a");
    append(12, "b");
    append(13, "c");
    EXPECT_EQ(list.length, 3u);
    EXPECT_EQ(getNodeByIndex(&list, 1)->objId, 11u);
    EXPECT_EQ(getNodeByIndex(&list, 2)->index, 2u);
    EXPECT_EQ(getNodeByIndex(&list, 3)->index, 3u);
}

TEST_F(ObjListTest, GetNodeByIndexZeroAndPastLengthAreNull)
{
    append(11, "a");
    append(12, "b");
    EXPECT_EQ(getNodeByIndex(&list, 0), nullptr);
    EXPECT_EQ(getNodeByIndex(&list, list.length + 1), nullptr);
    EXPECT_EQ(getNodeByIndex(&list, list.length), list.tail);
}

TEST_F(ObjListTest, AHoleKeepsLengthAndLaterIndicesDoNotShift)
{
    append(11, "a");
    append(12, "b");
    append(13, "c");
    getNodeByIndex(&list, 2)->objId = 0;
    EXPECT_EQ(list.length, 3u);
    ObjNode *third = getNodeByIndex(&list, 3);
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third->index, 3u);
    EXPECT_EQ(third->objId, 13u);
    EXPECT_STREQ(getNodeByIndex(&list, 2)->nexusId, "b");
}

TEST_F(ObjListTest, RemovingTheOnlyNodeEmptiesTheListAndTheNextAppendIsIndexOne)
{
    append(11, "a");
    ObjNode *removed = removeByNexus(&list, "a");
    ASSERT_NE(removed, nullptr);
    EXPECT_EQ(removed->objId, 11u);
    freeNode(removed);
    EXPECT_EQ(list.length, 0u);
    EXPECT_EQ(list.head, nullptr);

    append(21, "z");
    EXPECT_EQ(list.length, 1u);
    EXPECT_EQ(list.head, list.tail);
    EXPECT_EQ(list.head->index, 1u);
    EXPECT_EQ(list.head->next, nullptr);
}

TEST_F(ObjListTest, RemovingAMiddleNodeKeepsTheOtherIndices)
{
    append(11, "a");
    append(12, "b");
    append(13, "c");
    ObjNode *removed = removeByNexus(&list, "b");
    ASSERT_NE(removed, nullptr);
    freeNode(removed);
    EXPECT_EQ(list.length, 2u);
    EXPECT_EQ(list.head->index, 1u);
    EXPECT_EQ(list.head->next->index, 3u);
    EXPECT_EQ(list.tail->index, 3u);
}

TEST_F(ObjListTest, RemovingTheLastNodeMovesTailToItsPredecessor)
{
    append(11, "a");
    append(12, "b");
    ObjNode *removed = removeByNexus(&list, "b");
    ASSERT_NE(removed, nullptr);
    freeNode(removed);
    EXPECT_EQ(list.tail, list.head);
    append(13, "c");
    EXPECT_EQ(list.head->next, list.tail);
    EXPECT_EQ(list.tail->index, 2u);
}

TEST_F(ObjListTest, RemovingTheFirstNodeMovesHead)
{
    append(11, "a");
    append(12, "b");
    ObjNode *removed = removeByNexus(&list, "a");
    ASSERT_NE(removed, nullptr);
    freeNode(removed);
    EXPECT_EQ(list.head->objId, 12u);
    EXPECT_EQ(list.head, list.tail);
}

TEST_F(ObjListTest, RemoveByNexusTakesTheFirstMatchOnlyAndAnswersNullWithoutOne)
{
    append(11, "a");
    append(12, "a");
    ObjNode *removed = removeByNexus(&list, "a");
    ASSERT_NE(removed, nullptr);
    EXPECT_EQ(removed->objId, 11u);
    freeNode(removed);
    EXPECT_EQ(removeByNexus(&list, "x"), nullptr);
    EXPECT_EQ(list.length, 1u);
}

TEST_F(ObjListTest, FindByNexusSkipsNodesWithoutNexus)
{
    append(11, nullptr);
    append(12, "a");
    ObjNode *found = findByNexus(&list, "a");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->objId, 12u);
    EXPECT_EQ(findByNexus(&list, "b"), nullptr);
}

TEST_F(ObjListTest, FindByObjIdAnswersTheFirstMatchAndNullForANullList)
{
    append(11, "a");
    append(12, "b");
    append(12, "c");
    EXPECT_STREQ(findByObjId(&list, 12)->nexusId, "b");
    EXPECT_EQ(findByObjId(&list, 99), nullptr);
    EXPECT_EQ(findByObjId(nullptr, 12), nullptr);
}

TEST_F(ObjListTest, FreeListOnAnEmptyListOnlyResetsIt)
{
    list.tail = reinterpret_cast<ObjNode *>(&list); // stale tail of an emptied list
    freeList(&list);
    EXPECT_EQ(list.length, 0u);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(list.tail, nullptr);
}

TEST_F(ObjListTest, InsertListCopyOwnsAnEightyByteCopy)
{
    char nexus[] = "0\\1\\2";
    ASSERT_EQ(insertListCopy(&list, 5, 6, nexus), 0);
    nexus[0] = 'X';
    EXPECT_STREQ(list.head->nexusId, "0\\1\\2");
    EXPECT_EQ(list.head->subObjId, 6u);
    EXPECT_NE(list.head->nexusId, nexus);
}

TEST_F(ObjListTest, AppendListCopyContinuesTheDestinationIndicesAndLeavesTheSource)
{
    append(11, "a");
    ObjList source{};
    initList(&source);
    ASSERT_EQ(InsertList(&source, 21, 31, dupText("x")), 0);
    ASSERT_EQ(InsertList(&source, 22, 32, nullptr), 0);
    ASSERT_EQ(appendListCopy(&list, &source), 0);
    EXPECT_EQ(list.length, 3u);
    EXPECT_EQ(getNodeByIndex(&list, 2)->objId, 21u);
    EXPECT_EQ(getNodeByIndex(&list, 2)->subObjId, 31u);
    EXPECT_STREQ(getNodeByIndex(&list, 2)->nexusId, "x");
    EXPECT_EQ(getNodeByIndex(&list, 3)->nexusId, nullptr);
    EXPECT_EQ(getNodeByIndex(&list, 3)->index, 3u);
    EXPECT_EQ(source.length, 2u);
    EXPECT_NE(getNodeByIndex(&list, 2)->nexusId, source.head->nexusId);
    freeList(&source);
}

TEST_F(ObjListTest, DumpListPrintsEveryNode)
{
    ASSERT_EQ(InsertList(&list, 7, 8, dupText("n1")), 0);
    ASSERT_EQ(InsertList(&list, 9, 0, nullptr), 0);
    DebugCapture capture;
    dumpList(&list);
    EXPECT_EQ(capture.text(), "dumpList: entry\n"
                              "dumpList: Dump data in table ---- \n"
                              "dumpList: Length of table - 2\n"
                              "7:8::n1 \n"
                              "9:0::NULL \n"
                              "End Dbg: Dump data in table ---- \n");
}

// ---- Look-ups that remember ------------------------------------------------------

// A list of `count` nodes with ids 1000 + position and nexus "n<position>".
void fill(ObjList *list, uint32_t count)
{
    for (uint32_t position = 1; position <= count; position++) {
        const std::string nexus = "n" + std::to_string(position);
        ASSERT_EQ(InsertList(list, 1000 + position, 0, dupText(nexus.c_str())), 0);
    }
}

TEST_F(ObjListTest, LookUpsInAnyOrderFindTheNodeAtThePosition)
{
    fill(&list, 300);
    for (const uint32_t position : {1u, 2u, 3u, 150u, 151u, 7u, 300u, 299u, 1u, 300u}) {
        const ObjNode *node = getNodeByIndex(&list, position);
        ASSERT_NE(node, nullptr) << position;
        EXPECT_EQ(node->objId, 1000 + position);
    }
    EXPECT_EQ(getNodeByIndex(&list, 301), nullptr);
}

TEST_F(ObjListTest, ALookUpAfterTheListWasFreedAndFilledAgainFindsTheNewNodes)
{
    fill(&list, 100);
    ASSERT_EQ(getNodeByIndex(&list, 90)->objId, 1090u);
    ASSERT_EQ(findByObjId(&list, 1080)->index, 80u);
    freeList(&list);
    for (uint32_t position = 1; position <= 100; position++) {
        ASSERT_EQ(InsertList(&list, 5000 + position, 0, nullptr), 0);
    }
    EXPECT_EQ(getNodeByIndex(&list, 95)->objId, 5095u);
    EXPECT_EQ(findByObjId(&list, 1080), nullptr);
    EXPECT_EQ(findByObjId(&list, 5080)->index, 80u);
}

TEST_F(ObjListTest, ALookUpAfterAnotherListWasUsedStartsFromItsOwnList)
{
    fill(&list, 100);
    ObjList other{};
    fill(&other, 100);
    EXPECT_EQ(getNodeByIndex(&list, 50), getNodeByIndex(&list, 50));
    const ObjNode *mine = getNodeByIndex(&list, 60);
    const ObjNode *theirs = getNodeByIndex(&other, 70);
    EXPECT_NE(mine, theirs);
    EXPECT_EQ(getNodeByIndex(&list, 80)->objId, 1080u);
    EXPECT_EQ(theirs->objId, 1070u);
    freeList(&other);
}

TEST_F(ObjListTest, AWalkGoesOnWhereItWasAfterEachLookUpOfTheFirstRow)
{
    fill(&list, 300);
    const uint64_t before = nodeStepsWalked();
    for (uint32_t row = 2; row <= 300; row++) {
        ASSERT_EQ(getNodeByIndex(&list, row)->objId, 1000 + row);
        ASSERT_EQ(getNodeByIndex(&list, 1)->objId, 1001u);
    }
    // One step a row; going back to the head each time would take about
    // 45,000.
    EXPECT_LE(nodeStepsWalked() - before, 300u);
    // And a walk that starts again from the first row still finds its rows.
    EXPECT_EQ(getNodeByIndex(&list, 1)->objId, 1001u);
    EXPECT_EQ(getNodeByIndex(&list, 2)->objId, 1002u);
    EXPECT_EQ(getNodeByIndex(&list, 150)->objId, 1150u);
}

TEST_F(ObjListTest, FindByObjIdOnALongListAnswersTheFirstMatch)
{
    fill(&list, 200);
    ASSERT_EQ(InsertList(&list, 1050, 0, nullptr), 0); // a second node with id 1050
    EXPECT_EQ(findByObjId(&list, 1050)->index, 50u);
    EXPECT_EQ(findByObjId(&list, 1200)->index, 200u);
    EXPECT_EQ(findByObjId(&list, 7), nullptr);
}

TEST_F(ObjListTest, FindByObjIdSeesIdsChangedInPlace)
{
    fill(&list, 200);
    ASSERT_EQ(findByObjId(&list, 1100)->index, 100u);
    // A merge changes ids in place and says so.
    getNodeByIndex(&list, 100)->objId = 0;
    getNodeByIndex(&list, 120)->objId = 1100;
    noteListChange();
    EXPECT_EQ(findByObjId(&list, 1100)->index, 120u);
    // Even without a word, a node whose id changed is not answered for it.
    getNodeByIndex(&list, 120)->objId = 42;
    EXPECT_EQ(findByObjId(&list, 1100), nullptr);
    EXPECT_EQ(findByObjId(&list, 42)->index, 120u);
}

TEST_F(ObjListTest, AWalkWithoutTheLockKeepsTheNodesFreedMeanwhileReadable)
{
    fill(&list, 5);
    ObjNode *third = getNodeByIndex(&list, 3);
    char *thirdNexus = third->nexusId;
    {
        const UnlockedListRead reading;
        // The refresh thread empties the list under the walk: what the walk
        // holds stays readable (ASan would report a read of freed memory).
        freeList(&list);
        EXPECT_EQ(list.length, 0u);
        EXPECT_EQ(third->index, 3u);
        EXPECT_NE(std::strlen(thirdNexus), 0u);
        EXPECT_EQ(third->next->index, 4u);
    }
    // The walk has ended; the next ones find the list empty.
    const UnlockedListRead again;
    EXPECT_EQ(findByNexus(&list, "n3"), nullptr);
}

TEST_F(ObjListTest, ANexusAMergeTakesOutStaysReadableUntilTheWalkEnds)
{
    fill(&list, 3);
    ObjNode *second = getNodeByIndex(&list, 2);
    char *text = second->nexusId;
    {
        const UnlockedListRead reading;
        // A merge makes the node a hole and releases its nexus, as
        // rebuildTable2 does, while a walk may be comparing that text.
        second->nexusId = nullptr;
        releaseNexus(text);
        EXPECT_STREQ(text, "n2"); // a use after free without the deferral
        EXPECT_EQ(rowOfNexusUnlocked(reading, &list, "n2"), 0u);
        EXPECT_EQ(rowOfNexusUnlocked(reading, &list, "n3"), 3u);
    }
}

TEST(ObjListConcurrency, WalksWithoutTheLockBesideRebuildsReadNoFreedMemory)
{
    ObjList live{};
    initList(&live);
    std::atomic<bool> stop{false};
    std::atomic<long> found{0};
    std::atomic<long> wrongRows{0};
    std::thread reader([&] {
        while (!stop) {
            const UnlockedListRead reading;
            const uint32_t row = rowOfNexusUnlocked(reading, &live, "0\\0\\7");
            if (row == 8) {
                found++;
            } else if (row != 0) {
                wrongRows++; // a node found before its index was set
            }
        }
    });
    // Rounds until the reader has walked beside them often enough, however
    // the threads are scheduled.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int round = 0;
         round < 2000 || (found.load() < 100 && std::chrono::steady_clock::now() < until);
         round++) {
        // A renumbered table: freed and built again, as a merge does.
        freeList(&live);
        for (uint32_t i = 0; i < 16; i++) {
            const std::string nexus = "0\\0\\" + std::to_string(i);
            ASSERT_EQ(InsertList(&live, i + 1, 0, strdup(nexus.c_str())), 0);
        }
    }
    stop = true;
    reader.join();
    freeList(&live);
    EXPECT_GT(found.load(), 0);
    EXPECT_EQ(wrongRows.load(), 0);
}

TEST_F(ObjListTest, RowOfNexusUnlockedAnswersTheFirstRowWithTheNexusOrZero)
{
    fill(&list, 5);
    ASSERT_EQ(InsertList(&list, 9, 0, nullptr), 0); // a hole of the disk pairs' table
    ASSERT_EQ(insertListCopy(&list, 10, 0, "n2"), 0);
    const UnlockedListRead reading;
    const struct {
        const char *nexus;
        uint32_t row;
    } cases[] = {{"n1", 1}, {"n2", 2}, {"n5", 5}, {"n6", 0}, {"", 0}, {"n", 0}};
    for (const auto &c : cases) {
        EXPECT_EQ(rowOfNexusUnlocked(reading, &list, c.nexus), c.row) << c.nexus;
    }
    ObjList empty{};
    initList(&empty);
    EXPECT_EQ(rowOfNexusUnlocked(reading, &empty, "n1"), 0u);
}

} // namespace
