// Tests of instance.cc: decoding scalar and table instance names against a
// group definition, and the Set-type check.
#include <gtest/gtest.h>

#include <cstdint>

#include "mib/mibdef.h"
#include "mpi/mpi.h"
#include "mpi/oid_testing.h"

namespace {

using kelp::testing::TestOid;

const TestOid kRoot{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20};

// Registration order: the root scalars first, the controller entry fourth.
const SMMibGroupDef &rootGroup()
{
    return *kelpMibDefinition[0];
}
const SMMibGroupDef &controllerEntry()
{
    return *kelpMibDefinition[3];
}

TEST(TableIndex1Test, ControllerCellWithRowZeroIsNoSuchName)
{
    TestOid name = kRoot.then({130, 1, 1, 2, 0});
    const SMMibColumnDef *column = nullptr;
    uint32_t index = 77;
    ASSERT_EQ(controllerEntry().arcCount, 13u);
    EXPECT_EQ(MPIMibGetTableIndex1(name.get(), &controllerEntry(), &column, &index), 2u);
    // The column is stored before the index is tested.
    EXPECT_EQ(column, &controllerEntry().columns[2]);
    EXPECT_EQ(index, 0u);
}

TEST(TableIndex1Test, ControllerColumnBeyondItsFiftyFiveIsNoSuchName)
{
    TestOid name = kRoot.then({130, 1, 1, 56, 1});
    const SMMibColumnDef *column = nullptr;
    uint32_t index = 77;
    EXPECT_EQ(MPIMibGetTableIndex1(name.get(), &controllerEntry(), &column, &index), 2u);
    EXPECT_EQ(column, nullptr);
    EXPECT_EQ(index, 77u);
}

TEST(TableIndex1Test, ControllerColumnTwoOfRowOneDecodes)
{
    TestOid name = kRoot.then({130, 1, 1, 2, 1});
    const SMMibColumnDef *column = nullptr;
    uint32_t index = 0;
    EXPECT_EQ(MPIMibGetTableIndex1(name.get(), &controllerEntry(), &column, &index), 0u);
    EXPECT_EQ(column, &controllerEntry().columns[2]);
    EXPECT_EQ(column->column, 2u);
    EXPECT_EQ(index, 1u);
}

TEST(TableIndex1Test, OnlyTheEntryArcOfThePrefixIsCompared)
{
    const struct {
        const char *what;
        TestOid name;
        uint32_t status;
    } cases[] = {
        {"last column", kRoot.then({130, 1, 1, 55, 4}), 0},
        {"other table, same entry arc", kRoot.then({130, 9, 1, 3, 4}), 0},
        {"foreign prefix, same length", TestOid{9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 1, 3, 4}, 0},
        {"entry arc differs", kRoot.then({130, 1, 2, 3, 4}), 2},
        {"column 0", kRoot.then({130, 1, 1, 0, 4}), 2},
        {"one arc short", kRoot.then({130, 1, 1, 3}), 2},
        {"one arc long", kRoot.then({130, 1, 1, 3, 4, 5}), 2},
        {"empty name", TestOid{}, 2},
    };
    for (auto c : cases) {
        SCOPED_TRACE(c.what);
        const SMMibColumnDef *column = nullptr;
        uint32_t index = 0;
        EXPECT_EQ(MPIMibGetTableIndex1(c.name.get(), &controllerEntry(), &column, &index),
                  c.status);
    }
}

TEST(TableIndex1Test, NullArgumentsAnswer5)
{
    TestOid name = kRoot.then({130, 1, 1, 2, 1});
    const SMMibColumnDef *column = nullptr;
    uint32_t index = 0;
    EXPECT_EQ(MPIMibGetTableIndex1(nullptr, &controllerEntry(), &column, &index), 5u);
    EXPECT_EQ(MPIMibGetTableIndex1(name.get(), nullptr, &column, &index), 5u);
    EXPECT_EQ(MPIMibGetTableIndex1(name.get(), &controllerEntry(), nullptr, &index), 5u);
    EXPECT_EQ(MPIMibGetTableIndex1(name.get(), &controllerEntry(), &column, nullptr), 5u);
}

// A two-arc table entry 7.1 with three integer columns.
const SMMibColumnDef kColumns[4] = {{}, {1, 1, 2, 0, 0, 5}, {2, 1, 2, 0, 0, 5}, {3, 1, 2, 0, 0, 5}};
const uint32_t kEntryArcs[2] = {7, 1};
const SMMibGroupDef kSmallTable{0, nullptr, 0, 2, kEntryArcs, 1, 0, &kColumns[1], 3, 0, kColumns};

TEST(TableIndex2Test, DecodesTheLastTwoArcsAsIndexes)
{
    TestOid name{7, 1, 3, 10, 20};
    const SMMibColumnDef *column = nullptr;
    uint32_t i1 = 0, i2 = 0;
    EXPECT_EQ(MPIMibGetTableIndex2(name.get(), &kSmallTable, &column, &i1, &i2), 0u);
    EXPECT_EQ(column, &kColumns[3]);
    EXPECT_EQ(i1, 10u);
    EXPECT_EQ(i2, 20u);
}

TEST(TableIndex2Test, TestsEachIndexInTurn)
{
    const SMMibColumnDef *column = nullptr;
    uint32_t i1 = 55, i2 = 66;
    TestOid firstZero{7, 1, 2, 0, 20};
    EXPECT_EQ(MPIMibGetTableIndex2(firstZero.get(), &kSmallTable, &column, &i1, &i2), 2u);
    EXPECT_EQ(i1, 0u);
    EXPECT_EQ(i2, 66u) << "a later index is not stored after an earlier one failed";
    TestOid secondZero{7, 1, 2, 10, 0};
    EXPECT_EQ(MPIMibGetTableIndex2(secondZero.get(), &kSmallTable, &column, &i1, &i2), 2u);
    EXPECT_EQ(i1, 10u);
    EXPECT_EQ(i2, 0u);
    TestOid wrongLength{7, 1, 2, 10};
    EXPECT_EQ(MPIMibGetTableIndex2(wrongLength.get(), &kSmallTable, &column, &i1, &i2), 2u);
}

TEST(TableIndex3Test, DecodesTheLastThreeArcsAsIndexes)
{
    TestOid name{7, 1, 1, 4, 5, 6};
    const SMMibColumnDef *column = nullptr;
    uint32_t i1 = 0, i2 = 0, i3 = 0;
    EXPECT_EQ(MPIMibGetTableIndex3(name.get(), &kSmallTable, &column, &i1, &i2, &i3), 0u);
    EXPECT_EQ(column, &kColumns[1]);
    EXPECT_EQ(i1, 4u);
    EXPECT_EQ(i2, 5u);
    EXPECT_EQ(i3, 6u);
    TestOid lastZero{7, 1, 1, 4, 5, 0};
    EXPECT_EQ(MPIMibGetTableIndex3(lastZero.get(), &kSmallTable, &column, &i1, &i2, &i3), 2u);
    TestOid entryDiffers{7, 2, 1, 4, 5, 6};
    EXPECT_EQ(MPIMibGetTableIndex3(entryDiffers.get(), &kSmallTable, &column, &i1, &i2, &i3), 2u);
    EXPECT_EQ(MPIMibGetTableIndex3(name.get(), &kSmallTable, &column, &i1, &i2, nullptr), 5u);
}

TEST(ScalarColumnTest, DecodesGroupColumnZero)
{
    const struct {
        const char *what;
        TestOid name;
        uint32_t status;
        uint32_t column;
    } cases[] = {
        {"vendor", kRoot.then({3, 0}), 0, 3},
        {"first", kRoot.then({1, 0}), 0, 1},
        {"last", kRoot.then({5, 0}), 0, 5},
        {"instance not 0", kRoot.then({3, 1}), 2, 0},
        {"column 0", kRoot.then({0, 0}), 2, 0},
        {"beyond the columns", kRoot.then({6, 0}), 2, 0},
        {"no instance arc", kRoot.then({3}), 2, 0},
        {"one arc too many", kRoot.then({3, 0, 0}), 2, 0},
        {"prefix not compared", TestOid{2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 4, 0}, 0, 4},
    };
    for (auto c : cases) {
        SCOPED_TRACE(c.what);
        const SMMibColumnDef *column = nullptr;
        EXPECT_EQ(MPIMibGetScalarColumn(c.name.get(), &rootGroup(), &column), c.status);
        if (c.status == 0) {
            EXPECT_EQ(column, &rootGroup().columns[c.column]);
        } else {
            EXPECT_EQ(column, nullptr);
        }
    }
}

TEST(ScalarColumnTest, NullArgumentsAnswer5)
{
    TestOid name = kRoot.then({3, 0});
    const SMMibColumnDef *column = nullptr;
    EXPECT_EQ(MPIMibGetScalarColumn(nullptr, &rootGroup(), &column), 5u);
    EXPECT_EQ(MPIMibGetScalarColumn(name.get(), nullptr, &column), 5u);
    EXPECT_EQ(MPIMibGetScalarColumn(name.get(), &rootGroup(), nullptr), 5u);
}

TEST(CheckSetValueTest, ReadOnlyColumnIsNoSuchNameWritableChecksTheType)
{
    const SMMibColumnDef &readOnly = controllerEntry().columns[2];      // access 1
    const SMMibColumnDef &writableInt = controllerEntry().columns[48];  // access 7
    const SMMibColumnDef &writableText = controllerEntry().columns[45]; // access 3
    SMSnmpValue integer{{}, SM_ASN_INTEGER, 1, nullptr};
    SMSnmpValue text{{}, SM_ASN_OCTET_STRING, 0, nullptr};
    EXPECT_EQ(MPIMibCheckSetValue(&text, &readOnly), 2u);
    EXPECT_EQ(MPIMibCheckSetValue(&integer, &writableInt), 0u);
    EXPECT_EQ(MPIMibCheckSetValue(&text, &writableInt), 3u);
    EXPECT_EQ(MPIMibCheckSetValue(&text, &writableText), 0u);
    EXPECT_EQ(MPIMibCheckSetValue(&integer, &writableText), 3u);
    EXPECT_EQ(MPIMibCheckSetValue(nullptr, &writableText), 5u);
    EXPECT_EQ(MPIMibCheckSetValue(&integer, nullptr), 5u);
}

} // namespace
