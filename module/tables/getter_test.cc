// The generic column reader: the kinds, failure policies and log lines that
// the controller table does not use, and the compile-time table checks.
#include "tables/getter.h"

#include <array>
#include <string>

#include <gtest/gtest.h>

#include "testing/debug_capture.h"
#include "testing/model_fixture.h"

namespace {

using namespace tables;
using enum ColumnKind;
using testmodel::object;
using testmodel::serve;

constexpr uint32_t kUntouched = 0xEEEE;

class ColumnReaderTest : public ModelTest {
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        serve(object(1, "fans", 0,
                     {{"Nexus", "f0"},
                      {"State", "0"},
                      {"State64", "12"},
                      {"Mask", "01x"},
                      {"Protocol", "5"},
                      {"Status", "2"}}));
    }

    // Reads `row` for object 1, row index 4, into a fresh reply.
    int32_t read(const ColumnRow &row)
    {
        reply = SMSnmpValue{};
        reply.type = 0x55;
        reply.value = kUntouched;
        reply.buffer = buffer.data();
        return readColumn(Cell{1, 4, row.column, &reply}, row);
    }

    SMSnmpValue reply{};
    std::array<char, 1024> buffer{};
};

TEST_F(ColumnReaderTest, ZeroLeavesTheLowestBitNumberUnwrittenWhereTheTableSaysSo)
{
    ASSERT_EQ(read({1, "State", kLowestBitOrUnset}), 0);
    EXPECT_EQ(reply.type, static_cast<uint32_t>(SM_ASN_INTEGER));
    EXPECT_EQ(reply.value, kUntouched);
    EXPECT_EQ(reply.buffer, nullptr);
    ASSERT_EQ(read({1, "State64", kLowestBitOrUnset}), 0);
    EXPECT_EQ(reply.value, 3u);
    ASSERT_EQ(read({1, "State", kLowestBit}), 0);
    EXPECT_EQ(reply.value, 0u);
}

TEST_F(ColumnReaderTest, AMaskCharacterChoosesAmongThreeAnswers)
{
    const MaskAnswer answer{7, 8, 9};
    const std::array<std::pair<uint32_t, uint32_t>, 4> cases = {
        {{0, 8}, {1, 7}, {2, 9}, {3, 9}}}; // '0', '1', 'x', past the text
    for (const auto &[position, expected] : cases) {
        ASSERT_EQ(read({1, "Mask", kMaskChar, {.number = position, .mask = answer}}), 0);
        EXPECT_EQ(reply.value, expected) << "position " << position;
    }
}

TEST_F(ColumnReaderTest, AMapCanSendUnlistedNumbersToOneAnswer)
{
    static constexpr ValuePair pairs[] = {{5, 6}};
    static constexpr ValueMap keep{pairs, true, 0};
    static constexpr ValueMap others{pairs, false, 0};
    ASSERT_EQ(read({1, "Protocol", kMapped, {.map = &keep}}), 0);
    EXPECT_EQ(reply.value, 6u);
    ASSERT_EQ(read({1, "Status", kMapped, {.map = &keep}}), 0);
    EXPECT_EQ(reply.value, 2u);
    ASSERT_EQ(read({1, "Status", kMapped, {.map = &others}}), 0);
    EXPECT_EQ(reply.value, 0u);
}

TEST_F(ColumnReaderTest, FailurePoliciesAnswer99WithOrWithoutTheFailure)
{
    EXPECT_EQ(read({1, "Missing", kInteger}), 2);
    EXPECT_EQ(reply.value, kUntouched);
    EXPECT_EQ(read({1, "Missing", kPlusOne, {.failure = OnFailure::kAnswer99}}), 0);
    EXPECT_EQ(reply.value, 99u);
    EXPECT_EQ(reply.type, static_cast<uint32_t>(SM_ASN_INTEGER));
    EXPECT_EQ(read({1, "Missing", kShiftRight, {.failure = OnFailure::kAnswer99AndFail}}), 2);
    EXPECT_EQ(reply.value, 99u);
}

TEST_F(ColumnReaderTest, ARowPrintsItsLinesAroundTheRead)
{
    const ColumnRow row{
        1,
        "Status",
        kPlusOne,
        {.before = "t: Retrieving X\n", .after = "t: X: %d\n", .failed = "t: no X\n"}};
    const ColumnRow missing{1, "Missing", kPlusOne, row.extra};
    DebugCapture capture;
    ASSERT_EQ(read(row), 0);
    EXPECT_EQ(read(missing), 2);
    EXPECT_EQ(capture.text(), "t: Retrieving X\nt: X: 3\nt: Retrieving X\nt: no X\n");
}

TEST_F(ColumnReaderTest, ConstantsAndTheRowIndexNeedNoAttribute)
{
    ASSERT_EQ(read({1, nullptr, kConstInteger, {.number = 5}}), 0);
    EXPECT_EQ(reply.value, 5u);
    ASSERT_EQ(read({1, nullptr, kRowIndex}), 0);
    EXPECT_EQ(reply.value, 4u);
    EXPECT_EQ(reply.buffer, nullptr);
}

TEST_F(ColumnReaderTest, TextWithoutAReplyBufferIsNoSuchNameRatherThanACrash)
{
    reply = SMSnmpValue{};
    const Cell cell{1, 1, 2, &reply};
    EXPECT_EQ(readColumn(cell, {2, "Nexus", kText}), 2);
    EXPECT_EQ(readColumn(cell, {2, nullptr, kConstText, {.text = "VORN"}}), 2);
}

TEST_F(ColumnReaderTest, ASpecialRowWithoutItsFunctionIsNoSuchName)
{
    EXPECT_EQ(read({1, "State", kSpecial}), 2);
    EXPECT_EQ(reply.value, kUntouched);
}

TEST(ColumnTableCheck, RejectsTablesTheReaderCannotServe)
{
    constexpr ColumnRow descending[] = {{2, "A", kInteger}, {1, "B", kInteger}};
    constexpr ColumnRow twice[] = {{1, "A", kInteger}, {1, "B", kInteger}};
    constexpr ColumnRow noAttribute[] = {{1, nullptr, kText}};
    constexpr ColumnRow noMap[] = {{1, "A", kMapped}};
    constexpr ColumnRow wideShift[] = {{1, "A", kShiftRight, {.number = 64}}};
    constexpr ColumnRow textAs99[] = {{1, "A", kText, {.failure = OnFailure::kAnswer99}}};
    constexpr ColumnRow wrongFormat[] = {{1, "A", kInteger, {.after = "A: %s\n"}}};
    constexpr ColumnRow fine[] = {{1, nullptr, kRowIndex}, {3, "A", kText, {.after = "A: %s\n"}}};
    static_assert(!validColumns(descending));
    static_assert(!validColumns(twice));
    static_assert(!validColumns(noAttribute));
    static_assert(!validColumns(noMap));
    static_assert(!validColumns(wideShift));
    static_assert(!validColumns(textAs99));
    static_assert(!validColumns(wrongFormat));
    static_assert(validColumns(fine));
    SUCCEED();
}

} // namespace
