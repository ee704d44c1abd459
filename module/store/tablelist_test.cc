// The table list: every live list has its staging list, and the two
// whole-list operations touch exactly the heads they should.
#include "store/tablelist.h"

#include <cstring>
#include <set>

#include <gtest/gtest.h>

namespace {

TEST(TableList, NineteenDistinctPairsPlusTheSpareHead)
{
    std::set<ObjList *> heads;
    for (const TableListPair &pair : kTableListPairs) {
        heads.insert(pair.live);
        heads.insert(pair.staging);
    }
    heads.insert(&spareListNew);
    EXPECT_EQ(heads.size(), 39u);
    EXPECT_EQ(kTableListPairs[0].live, &ctrlList);
    EXPECT_EQ(kTableListPairs[0].staging, &ctrlListNew);
    EXPECT_EQ(kTableListPairs[18].live, &nvmeList);
    EXPECT_EQ(kTableListPairs[18].staging, &nvmeListNew);
}

TEST(TableList, FreeStagingListsFreesStagingAndSpareButNotLive)
{
    initAllLists();
    initList(&spareListNew);
    ASSERT_EQ(InsertList(&ctrlList, 1, 0, strdup("c")), 0);
    ASSERT_EQ(InsertList(&ctrlListNew, 2, 0, strdup("d")), 0);
    ASSERT_EQ(InsertList(&nvmeListNew, 3, 0, strdup("e")), 0);
    ASSERT_EQ(InsertList(&spareListNew, 4, 0, strdup("f")), 0);
    freeStagingLists();
    EXPECT_EQ(ctrlListNew.length, 0u);
    EXPECT_EQ(nvmeListNew.length, 0u);
    EXPECT_EQ(spareListNew.length, 0u);
    EXPECT_EQ(ctrlList.length, 1u);
    freeList(&ctrlList);
}

TEST(TableList, InitAllListsEmptiesLiveAndStagingHeadsWithoutFreeing)
{
    ObjNode node{1, 1, 0, nullptr, nullptr};
    adList = ObjList{1, &node, &node};
    vdPartListNew = ObjList{1, &node, &node};
    initAllLists();
    EXPECT_EQ(adList.length, 0u);
    EXPECT_EQ(adList.head, nullptr);
    EXPECT_EQ(vdPartListNew.head, nullptr);
    EXPECT_EQ(node.objId, 1u); // untouched: nothing was freed
}

struct Step {
    ObjList *list;
};

// Every pair but the last, for the checks below.
constexpr Step kAllButNvme[] = {
    {&ctrlList},  {&chanList},      {&adList},         {&tapeList},       {&enclList},
    {&fanList},   {&psuList},       {&tempList},       {&emmList},        {&battList},
    {&vdList},    {&adLogConnList}, {&adEnclConnList}, {&adChanConnList}, {&vdPartList},
    {&cacheList}, {&cacheDiskList}, {&cachePoolList}};
constexpr Step kEveryList[] = {
    {&ctrlList},  {&chanList},      {&adList},         {&tapeList},       {&enclList},
    {&fanList},   {&psuList},       {&tempList},       {&emmList},        {&battList},
    {&vdList},    {&adLogConnList}, {&adEnclConnList}, {&adChanConnList}, {&vdPartList},
    {&cacheList}, {&cacheDiskList}, {&cachePoolList},  {&nvmeList}};
constexpr Step kOneTwice[] = {
    {&ctrlList},  {&chanList},      {&adList},         {&tapeList},       {&enclList},
    {&fanList},   {&psuList},       {&tempList},       {&emmList},        {&battList},
    {&vdList},    {&adLogConnList}, {&adEnclConnList}, {&adChanConnList}, {&vdPartList},
    {&cacheList}, {&cacheDiskList}, {&cachePoolList},  {&cachePoolList}};

// Checked when the tests run: g++ does not compare the lists' addresses at
// compile time in a sanitizer build.
TEST(TableList, TheBuildTableCheckWantsEveryListOnce)
{
    EXPECT_TRUE(eachListOnce(kEveryList, std::size(kEveryList), &Step::list, false));
    EXPECT_FALSE(eachListOnce(kEveryList, std::size(kEveryList), &Step::list, true))
        << "live lists where staging lists belong";
    EXPECT_FALSE(eachListOnce(kAllButNvme, std::size(kAllButNvme), &Step::list, false));
    EXPECT_FALSE(eachListOnce(kOneTwice, std::size(kOneTwice), &Step::list, false));
}

} // namespace
