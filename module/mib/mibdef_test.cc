// Tests of mibdef.cc: the registered MIB definition, checked against the
// registration table, written out here independently of the rows in mibdef.cc.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "mib/mibdef.h"

namespace {

std::string dotted(const uint32_t *arcs, uint32_t count)
{
    std::string text;
    for (uint32_t i = 0; i < count; ++i)
        text += (i ? "." : "") + std::to_string(arcs[i]);
    return text;
}

const SMMibGroupDef &group(size_t g)
{
    return *kelpMibDefinition[g];
}

struct ExpectedGroup {
    const char *oid;
    bool table;
    uint32_t columns;
    int strings;       // string columns, counted by hand from the table
    int integerLimits; // integer columns with a limit
    int writable;
};

// clang-format off
const ExpectedGroup kExpected[] = {
    {"1.3.6.1.4.1.61234.20571.1.20",          false,  5,  4,  1, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.100",      false,  4,  4,  0, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.110",      false, 15,  5,  9, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.1.1",  true,  55, 16, 14, 4},
    {"1.3.6.1.4.1.61234.20571.1.20.130.2.1",  true,  12,  3,  7, 1},
    {"1.3.6.1.4.1.61234.20571.1.20.130.3.1",  true,  30, 17,  8, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.4.1",  true,  34, 12,  8, 3},
    {"1.3.6.1.4.1.61234.20571.1.20.130.5.1",  true,   7,  3,  1, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.6.1",  true,   7,  3,  1, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.7.1",  true,  18, 12,  5, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.8.1",  true,   5,  2,  1, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.9.1",  true,  12,  6,  5, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.10.1", true,   5,  2,  1, 1},
    {"1.3.6.1.4.1.61234.20571.1.20.130.11.1", true,  14,  4,  5, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.12.1", true,   5,  2,  1, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.13.1", true,  14,  7,  6, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.14.1", true,   5,  2,  1, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.15.1", true,  14,  3,  5, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.130.16.1", true,   5,  2,  1, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.140.1.1",  true,  22,  3, 10, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.140.3.1",  true,   7,  3,  1, 0},
    {"1.3.6.1.4.1.61234.20571.1.20.200",      false,  8,  5,  2, 0},
};
// clang-format on

TEST(MibDefinitionTest, RootConstantsNameTheServedSubtree)
{
    EXPECT_EQ(dotted(kelpMibRootArcs, kelpMibRootLength), "1.3.6.1.4.1.61234.20571.1.20");
    EXPECT_EQ(kelpMibGroupCount, 22u);
}

TEST(MibDefinitionTest, HoldsTwentyTwoGroupsThenANullPointer)
{
    for (size_t g = 0; g < kelpMibGroupCount; ++g)
        EXPECT_NE(kelpMibDefinition[g], nullptr) << g;
    EXPECT_EQ(kelpMibDefinition[kelpMibGroupCount], nullptr);
}

TEST(MibDefinitionTest, GroupsAreRegisteredInTableOrderWithTheirOidsAndShapes)
{
    ASSERT_EQ(std::size(kExpected), kelpMibGroupCount);
    for (size_t g = 0; g < kelpMibGroupCount; ++g) {
        const ExpectedGroup &e = kExpected[g];
        const SMMibGroupDef &def = group(g);
        SCOPED_TRACE(e.oid);
        EXPECT_EQ(dotted(def.arcs, def.arcCount), e.oid);
        EXPECT_EQ(def.columnCount, e.columns);
        EXPECT_EQ(def.indexCount, e.table ? 1u : 0u);
        EXPECT_EQ(def.indexColumn != nullptr, e.table);
        EXPECT_EQ(def.reserved0, 0u);
        EXPECT_EQ(def.reserved16, 0u);
        EXPECT_EQ(def.reserved36, 0u);
        EXPECT_EQ(def.reserved52, 0u);
    }
}

TEST(MibDefinitionTest, EntryZeroOfEveryColumnArrayIsAllZeros)
{
    const SMMibColumnDef zero{};
    for (size_t g = 0; g < kelpMibGroupCount; ++g) {
        ASSERT_NE(group(g).columns, nullptr) << g;
        EXPECT_EQ(std::memcmp(&group(g).columns[0], &zero, sizeof zero), 0) << kExpected[g].oid;
    }
}

TEST(MibDefinitionTest, TableIndexColumnIsASeparateCopyOfColumnOne)
{
    for (size_t g = 0; g < kelpMibGroupCount; ++g) {
        if (!kExpected[g].table)
            continue;
        SCOPED_TRACE(kExpected[g].oid);
        const SMMibGroupDef &def = group(g);
        ASSERT_NE(def.indexColumn, nullptr);
        EXPECT_NE(def.indexColumn, &def.columns[1]);
        EXPECT_EQ(std::memcmp(def.indexColumn, &def.columns[1], sizeof(SMMibColumnDef)), 0);
        EXPECT_EQ(def.indexColumn->column, 1u);
        EXPECT_EQ(def.indexColumn->asnType, 2u);
    }
}

TEST(MibDefinitionTest, ColumnsAreNumberedByPositionWithConsistentKinds)
{
    for (size_t g = 0; g < kelpMibGroupCount; ++g) {
        const ExpectedGroup &e = kExpected[g];
        const SMMibGroupDef &def = group(g);
        int strings = 0, integerLimits = 0, writable = 0;
        for (uint32_t c = 1; c <= def.columnCount; ++c) {
            const SMMibColumnDef &col = def.columns[c];
            SCOPED_TRACE(std::string(e.oid) + " column " + std::to_string(c));
            EXPECT_EQ(col.column, c);
            if (col.valueClass == 5) {
                ++strings;
                EXPECT_EQ(col.asnType, 4u);
                EXPECT_EQ(col.hasLimit, 1u) << "every string column has a largest length";
                EXPECT_TRUE(col.access == 1 || col.access == 3) << col.access;
            } else {
                EXPECT_EQ(col.valueClass, 1u);
                EXPECT_EQ(col.asnType, 2u);
                EXPECT_TRUE(col.access == 5 || col.access == 7) << col.access;
                integerLimits += col.hasLimit == 1;
            }
            writable += (col.access & 2) != 0;
        }
        SCOPED_TRACE(e.oid);
        EXPECT_EQ(strings, e.strings);
        EXPECT_EQ(integerLimits, e.integerLimits);
        EXPECT_EQ(writable, e.writable);
    }
}

struct ExpectedColumn {
    size_t group; // position in the registration order
    uint32_t column;
    uint32_t valueClass, asnType, hasLimit, limit, access;
};

// clang-format off
const ExpectedColumn kSampleColumns[] = {
    // root scalars
    {0, 1, 5, 4, 1, 32, 1}, {0, 2, 1, 2, 1, 4, 5}, {0, 3, 5, 4, 1, 32, 1},
    {0, 4, 5, 4, 1, 64, 1}, {0, 5, 5, 4, 1, 128, 1},
    // information group 100
    {1, 1, 5, 4, 1, 255, 1}, {1, 4, 5, 4, 1, 255, 1},
    // global group 110
    {2, 1, 1, 2, 1, 5, 5}, {2, 3, 1, 2, 0, 0, 5}, {2, 4, 1, 2, 1, 10000, 5},
    {2, 7, 5, 4, 1, 255, 1}, {2, 9, 1, 2, 1, 2, 5}, {2, 12, 5, 4, 1, 255, 1},
    {2, 13, 1, 2, 1, 6, 5}, {2, 15, 1, 2, 1, 2, 5},
    // controllers 130.1
    {3, 1, 1, 2, 1, 255, 5}, {3, 2, 5, 4, 1, 255, 1}, {3, 7, 1, 2, 0, 0, 5},
    {3, 18, 1, 2, 1, 1, 5}, {3, 25, 1, 2, 1, 21, 5}, {3, 44, 5, 4, 1, 255, 1},
    {3, 45, 5, 4, 1, 255, 3}, {3, 48, 1, 2, 0, 0, 7}, {3, 52, 1, 2, 1, 3, 7},
    {3, 53, 1, 2, 1, 4, 7}, {3, 55, 1, 2, 0, 0, 5},
    // channels 130.2
    {4, 7, 1, 2, 1, 6, 7}, {4, 10, 5, 4, 1, 255, 1}, {4, 11, 1, 2, 1, 8, 5},
    {4, 12, 1, 2, 0, 0, 5},
    // enclosures 130.3
    {5, 15, 5, 4, 1, 255, 1}, {5, 16, 1, 2, 1, 8, 5}, {5, 29, 5, 4, 1, 255, 1},
    {5, 30, 1, 2, 0, 0, 5},
    // array disks 130.4
    {6, 1, 1, 2, 1, 1000000000, 5}, {6, 4, 1, 2, 1, 41, 5}, {6, 22, 1, 2, 1, 99, 5},
    {6, 28, 1, 2, 0, 0, 7}, {6, 29, 1, 2, 0, 0, 5}, {6, 30, 1, 2, 0, 0, 7},
    {6, 31, 1, 2, 1, 2, 7}, {6, 34, 5, 4, 1, 255, 1},
    // 130.5 and 130.6
    {7, 1, 1, 2, 1, 1000000000, 5}, {7, 6, 5, 4, 1, 255, 1}, {7, 7, 1, 2, 0, 0, 5},
    {8, 4, 5, 4, 1, 255, 1}, {8, 5, 1, 2, 0, 0, 5},
    // fans 130.7 and 130.8
    {9, 4, 1, 2, 1, 21, 5}, {9, 13, 5, 4, 1, 255, 1}, {9, 17, 1, 2, 0, 0, 5},
    {9, 18, 5, 4, 1, 255, 1}, {10, 1, 1, 2, 1, 255, 5}, {10, 5, 1, 2, 0, 0, 5},
    // power supplies 130.9 and 130.10
    {11, 9, 1, 2, 1, 6, 5}, {11, 11, 1, 2, 0, 0, 5}, {11, 12, 5, 4, 1, 255, 1},
    {12, 4, 5, 4, 1, 255, 1}, {12, 5, 1, 2, 0, 0, 7},
    // temperature probes 130.11 and 130.12
    {13, 13, 1, 2, 1, 6, 5}, {13, 14, 5, 4, 1, 255, 1}, {14, 3, 1, 2, 0, 0, 5},
    // EMMs 130.13 and 130.14
    {15, 7, 1, 2, 1, 2, 5}, {15, 9, 5, 4, 1, 255, 1}, {15, 13, 1, 2, 0, 0, 5},
    {16, 2, 5, 4, 1, 255, 1},
    // batteries 130.15 and 130.16
    {17, 4, 1, 2, 1, 37, 5}, {17, 9, 5, 4, 1, 255, 1}, {17, 12, 1, 2, 1, 5, 5},
    {17, 14, 1, 2, 0, 0, 5}, {18, 1, 1, 2, 1, 255, 5},
    // virtual disks 140.1 and 140.3
    {19, 1, 1, 2, 1, 100000000, 5}, {19, 13, 1, 2, 1, 23, 5}, {19, 14, 1, 2, 0, 0, 5},
    {19, 21, 5, 4, 1, 255, 1}, {19, 22, 1, 2, 1, 4, 5},
    {20, 1, 1, 2, 1, 1000000000, 5}, {20, 2, 5, 4, 1, 255, 1},
    // trap variables 200
    {21, 1, 1, 2, 0, 0, 5}, {21, 2, 5, 4, 1, 64, 1}, {21, 3, 5, 4, 1, 255, 1},
    {21, 4, 5, 4, 1, 255, 1}, {21, 5, 5, 4, 1, 64, 1}, {21, 6, 5, 4, 1, 64, 1},
    {21, 7, 1, 2, 1, 6, 5}, {21, 8, 1, 2, 1, 6, 5},
};
// clang-format on

TEST(MibDefinitionTest, SampleColumnsHaveTheirExactRecords)
{
    for (const ExpectedColumn &e : kSampleColumns) {
        SCOPED_TRACE(std::string(kExpected[e.group].oid) + " column " + std::to_string(e.column));
        ASSERT_LE(e.column, group(e.group).columnCount);
        const SMMibColumnDef &col = group(e.group).columns[e.column];
        EXPECT_EQ(col.column, e.column);
        EXPECT_EQ(col.valueClass, e.valueClass);
        EXPECT_EQ(col.asnType, e.asnType);
        EXPECT_EQ(col.hasLimit, e.hasLimit);
        EXPECT_EQ(col.limit, e.limit);
        EXPECT_EQ(col.access, e.access);
    }
}

TEST(MibDefinitionTest, EachGroupHasItsOwn64ByteZeroFrameworkArea)
{
    std::set<uintptr_t> starts;
    for (size_t g = 0; g < kelpMibGroupCount; ++g) {
        const auto *area = static_cast<const unsigned char *>(group(g).frameworkArea);
        ASSERT_NE(area, nullptr) << g;
        for (int i = 0; i < 64; ++i)
            EXPECT_EQ(area[i], 0) << kExpected[g].oid << " byte " << i;
        starts.insert(reinterpret_cast<uintptr_t>(area));
    }
    ASSERT_EQ(starts.size(), kelpMibGroupCount);
    for (auto it = starts.begin(); std::next(it) != starts.end(); ++it)
        EXPECT_GE(*std::next(it) - *it, 64u) << "framework areas overlap";
}

} // namespace
