// Row look-up from a request name, and the binding debug print.
#include "store/rowref.h"

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "testing/debug_capture.h"

namespace {

class RowRefTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        initList(&list);
        for (uint32_t id : {11u, 12u, 13u}) {
            ASSERT_EQ(InsertList(&list, id, 0, strdup("n")), 0);
        }
    }
    void TearDown() override { freeList(&list); }

    // root.130.1.1.column.row with the entry arc at position 12.
    int32_t parse(std::vector<uint32_t> tail, RowRef *out)
    {
        arcs = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 1, 1};
        arcs.insert(arcs.end(), tail.begin(), tail.end());
        SMSnmpValue request{};
        request.name = SMSnmpOID{static_cast<uint32_t>(arcs.size()), 0, arcs.data()};
        return parseRowIndex(12, &request, &list, out);
    }

    ObjList list{};
    std::vector<uint32_t> arcs;
};

TEST_F(RowRefTest, AnExistingRowGivesItsColumnIndexAndObject)
{
    RowRef row{};
    ASSERT_EQ(parse({2, 3}, &row), 0);
    EXPECT_EQ(row.column, 2u);
    EXPECT_EQ(row.rowIndex, 3u);
    EXPECT_EQ(row.objId, 13u);
}

TEST_F(RowRefTest, ArcsAfterTheRowAreIgnored)
{
    RowRef row{};
    ASSERT_EQ(parse({2, 1, 9, 9}, &row), 0);
    EXPECT_EQ(row.objId, 11u);
}

TEST_F(RowRefTest, ANameEndingAfterTheColumnIsNoSuchName)
{
    RowRef row{};
    EXPECT_EQ(parse({2}, &row), 2);
    EXPECT_EQ(row.column, 2u);
    EXPECT_EQ(parse({}, &row), 2);
}

TEST_F(RowRefTest, RowZeroAndRowsPastTheEndAreNoSuchName)
{
    RowRef row{};
    EXPECT_EQ(parse({2, 0}, &row), 2);
    EXPECT_EQ(parse({2, 4}, &row), 2);
    EXPECT_EQ(parse({2, 0xFFFFFFFF}, &row), 2);
}

TEST_F(RowRefTest, AHoleWithinTheListIsNoSuchName)
{
    getNodeByIndex(&list, 2)->objId = 0;
    RowRef row{};
    EXPECT_EQ(parse({2, 2}, &row), 2);
    EXPECT_EQ(parse({2, 3}, &row), 0);
}

TEST_F(RowRefTest, APositionAtTheTopOfTheRangeDoesNotWrap)
{
    uint32_t arcs1[] = {1, 2, 3};
    SMSnmpValue request{};
    request.name = SMSnmpOID{3, 0, arcs1};
    RowRef row{};
    EXPECT_EQ(parseRowIndex(0xFFFFFFFF, &request, &list, &row), 2);
    EXPECT_EQ(parseRowIndex(0xFFFFFFFE, &request, &list, &row), 2);
}

TEST(PrintSMSnmpVal, PrintsValueAndName)
{
    uint32_t arcs[] = {1, 3, 6};
    char text[] = "abc";
    SMSnmpValue value{};
    value.name = SMSnmpOID{3, 0, arcs};
    value.type = SM_ASN_OCTET_STRING;
    value.value = 3;
    value.buffer = text;
    DebugCapture capture;
    printSMSnmpVal(&value);
    value.type = SM_ASN_INTEGER;
    value.value = 0xFFFFFFFF;
    printSMSnmpVal(&value);
    value.type = 0x41;
    printSMSnmpVal(&value);
    EXPECT_EQ(capture.text(), "SMSnmpValue->value --- \nvalue = abc\nSMSnmpValue->name --- \n"
                              "1.3.6.\n"
                              "SMSnmpValue->value --- \nvalue = -1\nSMSnmpValue->name --- \n"
                              "1.3.6.\n"
                              "SMSnmpValue->value --- \nprintSMSnmpVal: Type 65 Unknown\n"
                              "SMSnmpValue->name --- \n1.3.6.\n");
}

} // namespace
