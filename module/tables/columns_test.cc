// The generic column reader: the kinds, failure answers and log lines that
// the controller table does not use, the table routine's log lines, and the
// compile-time table checks.
#include "tables/columns.h"

#include <array>
#include <string>

#include <gtest/gtest.h>

#include "platform/evtmsg.h"
#include "platform/vcsupt.h"
#include "store/build.h"
#include "store/tablelist.h"
#include "testing/debug_capture.h"
#include "testing/model_fixture.h"
#include "testing/test_spy.h"

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

    // Reads `column` for object 1, row index 4, into a fresh reply.
    int32_t read(const ColumnSpec &column)
    {
        reply = SMSnmpValue{};
        reply.type = 0x55;
        reply.value = kUntouched;
        reply.buffer = buffer.data();
        return readColumn(Cell{1, 0, 4, column.column, &reply}, column);
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

TEST_F(ColumnReaderTest, AFailedReadAnswersItsNumberWithOrWithoutTheFailure)
{
    EXPECT_EQ(read({1, "Missing", kInteger}), 2);
    EXPECT_EQ(reply.value, kUntouched);
    struct Case {
        OnFailure failure;
        int32_t result;
        uint32_t value;
    };
    const Case cases[] = {{kNotApplicableInstead, 0, 99},
                          {kNotApplicableAndFailure, 2, 99},
                          {kZeroInstead, 0, 0},
                          {kZeroAndFailure, 2, 0},
                          {{true, 7, true}, 0, 7}};
    for (const Case &c : cases) {
        EXPECT_EQ(read({1, "Missing", kShiftRight, {.failure = c.failure}}), c.result);
        EXPECT_EQ(reply.type, static_cast<uint32_t>(SM_ASN_INTEGER));
        EXPECT_EQ(reply.value, c.value);
        EXPECT_EQ(reply.buffer, buffer.data()) << "a failed read keeps the caller's buffer";
    }
}

TEST_F(ColumnReaderTest, AnAssociatedNumberIsReadFromTheFirstAssociatedObject)
{
    // Fan 1 sits below adapter 2; fan 3 has no adapter.
    serve(object(2, "adapters", 0, {{"Nexus", "0"}, {"TargetID", "7"}}) +
          object(1, "fans", 2, {{"Nexus", "0\\0\\0\\1\\0"}}) +
          object(3, "fans", 0, {{"Nexus", "f3"}}));
    const ColumnSpec target{1, "TargetID", kAssociatedNumber, {.association = "adapters"}};
    ASSERT_EQ(read(target), 0);
    EXPECT_EQ(reply.type, static_cast<uint32_t>(SM_ASN_INTEGER));
    EXPECT_EQ(reply.value, 7u);
    EXPECT_EQ(reply.buffer, buffer.data()) << "nothing was read into the reply";
    EXPECT_EQ(read({1, "Missing", kAssociatedNumber, {.association = "adapters"}}), 2);
    EXPECT_EQ(reply.value, kUntouched);
    reply = SMSnmpValue{};
    reply.value = kUntouched;
    reply.buffer = buffer.data();
    EXPECT_EQ(readColumn(Cell{3, 0, 1, 1, &reply}, target), 2);
    EXPECT_EQ(reply.value, kUntouched);
    EXPECT_EQ(reply.buffer, buffer.data());
}

TEST_F(ColumnReaderTest, WideKindsNameTheirPieceOfTheNumber)
{
    // State64 is 12: low 32 bits 12, shifted right by 2 gives 3, masked
    // with 4 gives 4, and the zero kind answers 0 after a good read.
    const std::pair<ColumnSpec, uint32_t> cases[] = {
        {{1, "State64", kLow32Bits}, 12},
        {{1, "State64", kShiftRight, {.number = 2}}, 3},
        {{1, "State64", kLowBits, {.number = 4}}, 4},
        {{1, "State64", kZeroAfterRead}, 0},
    };
    for (const auto &[column, expected] : cases) {
        ASSERT_EQ(read(column), 0);
        EXPECT_EQ(reply.value, expected);
        EXPECT_EQ(reply.buffer, nullptr) << "read into the reply, as the extraction does";
    }
    EXPECT_EQ(read({1, "Missing", kZeroAfterRead}), 2) << "the read must succeed";
    EXPECT_EQ(reply.value, kUntouched);
}

TEST_F(ColumnReaderTest, ADisplayNameIsTheLocationServicesThirdText)
{
    char location1[EVTMSG_TEXT_SIZE], location2[EVTMSG_TEXT_SIZE], name[EVTMSG_TEXT_SIZE],
        detail[EVTMSG_TEXT_SIZE];
    const auto status = static_cast<int32_t>(
        evtmsg_getObjLocationStrings(777, "f0", ",", "en", location1, location2, name, detail, 0));
    EXPECT_EQ(read({2, nullptr, kDisplayName, {.number = 777}}), status);
    EXPECT_EQ(reply.type, static_cast<uint32_t>(SM_ASN_OCTET_STRING));
    EXPECT_EQ(std::string(buffer.data(), reply.value), name);
}

TEST_F(ColumnReaderTest, AnOwnTextGoesToTheCallerInANewBufferOfTheHostsSize)
{
    reply = SMSnmpValue{};
    reply.value = kUntouched;
    reply.buffer = buffer.data();
    buffer.fill('Z');
    const Cell cell{1, 0, 1, 2, &reply};
    kelp::testspy::reset();
    ASSERT_EQ(answerOwnText(cell, "Not Available"), 0);
    EXPECT_EQ(kelp::testspy::spy().lastAllocSize, kOwnBufferSize);
    EXPECT_GE(kOwnBufferSize, buffer.size()) << "as large as the host's buffer";
    ASSERT_NE(reply.buffer, buffer.data());
    EXPECT_EQ(reply.type, static_cast<uint32_t>(SM_ASN_OCTET_STRING));
    EXPECT_EQ(reply.value, 13u);
    EXPECT_STREQ(static_cast<const char *>(reply.buffer), "Not Available");
    EXPECT_EQ(buffer[0], 'Z') << "the caller's buffer is not written";
    SMFreeMem(reply.buffer);

    // A text longer than the buffer is cut to fit with its NUL.
    reply.buffer = buffer.data();
    ASSERT_EQ(answerOwnText(cell, std::string(2 * kOwnBufferSize, 'x')), 0);
    EXPECT_EQ(reply.value, kOwnBufferSize - 1);
    EXPECT_EQ(static_cast<const char *>(reply.buffer)[kOwnBufferSize - 1], '\0');
    SMFreeMem(reply.buffer);

    // Without memory the reply stays as it was.
    reply = SMSnmpValue{};
    reply.type = 0x55;
    reply.value = kUntouched;
    reply.buffer = buffer.data();
    kelp::testspy::spy().failAllocationsAfter = 0;
    EXPECT_EQ(answerOwnText(cell, "No"), 5);
    kelp::testspy::reset();
    EXPECT_EQ(reply.type, 0x55u);
    EXPECT_EQ(reply.value, kUntouched);
    EXPECT_EQ(reply.buffer, buffer.data());
}

TEST_F(ColumnReaderTest, ARowPrintsItsLinesAroundTheRead)
{
    const ColumnSpec row{
        1,
        "Status",
        kPlusOne,
        {.before = "t: Retrieving X\n", .after = "t: X: %d\n", .failed = "t: no X\n"}};
    const ColumnSpec missing{1, "Missing", kPlusOne, row.extra};
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
    const Cell cell{1, 0, 1, 2, &reply};
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
    constexpr ColumnSpec descending[] = {{2, "A", kInteger}, {1, "B", kInteger}};
    constexpr ColumnSpec twice[] = {{1, "A", kInteger}, {1, "B", kInteger}};
    constexpr ColumnSpec noAttribute[] = {{1, nullptr, kText}};
    constexpr ColumnSpec noMap[] = {{1, "A", kMapped}};
    constexpr ColumnSpec wideShift[] = {{1, "A", kShiftRight, {.number = 64}}};
    constexpr ColumnSpec textAs99[] = {{1, "A", kText, {.failure = kNotApplicableInstead}}};
    constexpr ColumnSpec successWithoutAnswer[] = {
        {1, "A", kInteger, {.failure = {false, 0, true}}}};
    constexpr ColumnSpec nameWithoutType[] = {{2, nullptr, kDisplayName}};
    constexpr ColumnSpec noAssociation[] = {{1, "A", kAssociatedNumber}};
    constexpr ColumnSpec strayAssociation[] = {{1, "A", kInteger, {.association = "adapters"}}};
    constexpr ColumnSpec wrongFormat[] = {{1, "A", kInteger, {.after = "A: %s\n"}}};
    constexpr ColumnSpec fine[] = {{1, nullptr, kRowIndex},
                                   {3, "A", kText, {.after = "A: %s\n"}},
                                   {4, "B", kAssociatedNumber, {.association = "adapters"}}};
    static_assert(!validColumns(descending));
    static_assert(!validColumns(twice));
    static_assert(!validColumns(noAttribute));
    static_assert(!validColumns(noMap));
    static_assert(!validColumns(wideShift));
    static_assert(!validColumns(textAs99));
    static_assert(!validColumns(successWithoutAnswer));
    static_assert(!validColumns(nameWithoutType));
    static_assert(!validColumns(noAssociation));
    static_assert(!validColumns(strayAssociation));
    static_assert(!validColumns(wrongFormat));
    static_assert(validColumns(fine));
    SUCCEED();
}

// ---- The table routine --------------------------------------------------------

constexpr ColumnSpec kFanColumns[] = {{1, nullptr, kRowIndex}, {3, "Status", kPlusOne}};

TEST_F(ColumnReaderTest, ATablePrintsItsEntryIdAndExitLinesOnEveryReturn)
{
    ASSERT_EQ(buildTable(&fanList, "fans"), 0);
    const TableSpec table{.list = &fanList,
                          .columns = kFanColumns,
                          .entry = {"t\n", "t: Entry\n"},
                          .idLine = "t: curr ID = %d\n",
                          .exitLine = "t: Exit\n"};
    const std::pair<std::vector<uint32_t>, int32_t> cases[] = {
        {{1, 3, 1}, 0}, // a cell
        {{1, 2, 1}, 2}, // a column the table does not have
        {{1, 3, 9}, 2}, // a row it does not have
    };
    for (const auto &[arcs, result] : cases) {
        std::vector<uint32_t> name{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 7};
        name.insert(name.end(), arcs.begin(), arcs.end());
        SMSnmpValue request{};
        request.name = SMSnmpOID{static_cast<uint32_t>(name.size()), 0, name.data()};
        reply = SMSnmpValue{};
        reply.buffer = buffer.data();
        DebugCapture capture;
        EXPECT_EQ(answerTableCell(table, &request, &reply, 12), result);
        EXPECT_EQ(capture.text(), "t\nt: Entry\nt: curr ID = 1\nt: Exit\n");
    }
}

TEST_F(ColumnReaderTest, ANameEndingBeforeTheEntryArcShowsNoId)
{
    ASSERT_EQ(buildTable(&fanList, "fans"), 0);
    const TableSpec table{
        .list = &fanList, .columns = kFanColumns, .idLine = "t: curr ID = %d\n", .exitLine = "x\n"};
    std::vector<uint32_t> name{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 7};
    SMSnmpValue request{};
    request.name = SMSnmpOID{static_cast<uint32_t>(name.size()), 0, name.data()};
    DebugCapture capture;
    EXPECT_EQ(answerTableCell(table, &request, &reply, 12), 2);
    EXPECT_EQ(capture.text(), "x\n");
}

// ---- Partner kinds of the connection tables --------------------------------------

class PartnerTest : public ModelTest {
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        // Fan 5 belongs to controller 2 (the second controller row).
        serve(object(1, "adapters", 0, {{"Nexus", "0"}, {"Name", "First"}}) +
              object(2, "adapters", 0, {{"Nexus", "1"}, {"Name", "Vorn RX-240"}}) +
              object(5, "fans", 2, {{"Nexus", "1\\0\\0\\1\\0"}}));
        ASSERT_EQ(buildTable(&ctrlList, "adapters"), 0);
    }
    int32_t read(const ColumnSpec &column)
    {
        reply = SMSnmpValue{};
        reply.type = 0x55;
        reply.value = kUntouched;
        reply.buffer = buffer.data();
        return readColumn(Cell{5, 0, 1, column.column, &reply}, column);
    }
    SMSnmpValue reply{};
    std::array<char, 1024> buffer{};
};

TEST_F(PartnerTest, APartnerTextIsTheAssociatedObjectsAttribute)
{
    ASSERT_EQ(read({6, "Name", kPartnerText, {.association = "adapters"}}), 0);
    EXPECT_EQ(reply.type, static_cast<uint32_t>(SM_ASN_OCTET_STRING));
    EXPECT_EQ(std::string(buffer.data(), reply.value), "Vorn RX-240");
    DebugCapture capture;
    EXPECT_EQ(read({6, "Name", kPartnerText, {.failed = "t: none\n", .association = "enclosures"}}),
              2);
    EXPECT_EQ(reply.value, kUntouched);
    EXPECT_EQ(capture.text(), "t: none\n");
}

TEST_F(PartnerTest, APartnerRowIsThePartnersRowInItsOwnTable)
{
    ASSERT_EQ(read({7, "ObjID", kPartnerRow, {.association = "adapters", .partners = &ctrlList}}),
              0);
    EXPECT_EQ(reply.type, static_cast<uint32_t>(SM_ASN_INTEGER));
    EXPECT_EQ(reply.value, 2u);
    EXPECT_EQ(reply.buffer, buffer.data()) << "worked out, not read into the reply";

    DebugCapture capture;
    const ColumnExtra lines{.failed = "t: assocData is NULL\n",
                            .association = "adapters",
                            .partners = &enclList,
                            .notListed = "t: not in list\n"};
    EXPECT_EQ(read({7, "ObjID", kPartnerRow, lines}), 2) << "the enclosure list is empty";
    ColumnExtra noPartner = lines;
    noPartner.association = "enclosures";
    EXPECT_EQ(read({7, "ObjID", kPartnerRow, noPartner}), 2);
    EXPECT_EQ(capture.text(), "t: not in list\nt: assocData is NULL\n");
    EXPECT_EQ(reply.value, kUntouched);
    EXPECT_EQ(read({7, "ObjID", kPartnerRow, {.association = "adapters"}}), 2) << "no partner list";
}

TEST(ColumnTableCheck, PartnerColumnsNeedTheirKindAndPrintOnlyFailures)
{
    constexpr ColumnSpec noKind[] = {{1, "Name", kPartnerText}};
    constexpr ColumnSpec withAfter[] = {
        {1, "Name", kPartnerText, {.after = "x: %s\n", .association = "adapters"}}};
    constexpr ColumnSpec listedText[] = {
        {1, "Name", kPartnerText, {.association = "adapters", .notListed = "x\n"}}};
    constexpr ColumnSpec fine[] = {
        {1, "Name", kPartnerText, {.failed = "x\n", .association = "adapters"}},
        {2, "ObjID", kPartnerRow, {.association = "adapters", .notListed = "y\n"}}};
    static_assert(!validColumns(noKind));
    static_assert(!validColumns(withAfter));
    static_assert(!validColumns(listedText));
    static_assert(validColumns(fine));
    SUCCEED();
}

} // namespace
