// The array disk table through getAD: the plain columns, the columns it does
// not serve, missing and malformed attributes, the rows and names it refuses,
// its log lines, and the shipped sample model. The columns with rules are in
// ad_rules_test.cc, the name in ad_name_test.cc, the buffers in
// ad_buffer_test.cc.
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "store/build.h"
#include "store/xmlvalue.h"
#include "tables/ad_testing.h"
#include "testing/debug_capture.h"
#include "testing/model_fixture.h"

namespace {

using namespace adtest;
using testmodel::serve;

// Every attribute of a plain column, with a value unlike the others'.
const Attributes kPlainDisk = {
    {"Vendor", "HALDEN"},
    {"ObjState", "4"},
    {"ProductID", "HS0600S12"},
    {"DeviceSerialNumber", "HAL0000300"},
    {"Revision", "HV04"},
    {"Channel", "2"},
    {"Length", "600127266816"},
    {"ContiguousFree", "1200243695616"},
    {"TargetID", "3"},
    {"UsedSpace", "600126259200"},
    {"FreeSpace", "1007616"},
    {"BusProtocol", "8"},
    {"TreeStatus", "2"},
    {"ObjStatus", "4"},
    {"DeviceName", "/dev/sdb"},
    {"PartNo", "VN-2T41K"},
    {"SASAddress", "500F1E700000012C"},
    {"NegotiatedSpeed", "5"},
    {"CapableSpeed", "6"},
    {"ManufactureDay", "7"},
    {"ManufactureWeek", "21"},
    {"ManufactureYear", "2023"},
    {"MediaType", "1"},
    {"PDPowerState", "1"},
    {"DriveWriteCacheEnabled", "1"},
    {"ModelNumber", "Halden HS0600 600GB SAS"},
    {"DeviceLifeTimeRemaining", "255"},
    {"CurrentDriverVersion", "2.6.1"},
    {"PCIeSSDDeviceStatus", "1"},
    {"PdSectorSize", "4096"},
    {"PdPICapable", "1"},
    {"MaxLinkWidth", "4"},
    {"NegotiatedLinkWidth", "2"},
};

// ---- Plain columns ------------------------------------------------------------

TEST_F(AdTest, PlainColumnsAnswerTheirAttributes)
{
    serveDisk(kPlainDisk);
    const std::pair<uint32_t, uint32_t> numbers[] = {
        {1, 1},    {4, 3},  {10, 2},      {11, 572325}, {12, 1007616}, {13, 1144641}, {14, 614400},
        {15, 3},   {16, 0}, {17, 572325}, {18, 0},      {19, 0},       {20, 1007616}, {21, 8},
        {23, 3},   {24, 5}, {29, 5},      {30, 6},      {35, 2},       {42, 1},       {43, 1},
        {45, 255}, {47, 1}, {50, 4096},   {51, 1},      {52, 4},       {53, 2}};
    for (const auto &[column, value] : numbers) {
        expectNumber(column, value);
    }
    const std::pair<uint32_t, const char *> texts[] = {
        {3, "HALDEN"},    {6, "HS0600S12"},   {7, "HAL0000300"}, {8, "HV04"},
        {25, "/dev/sdb"}, {26, "0\\0\\0\\3"}, {27, "VN-2T41K"},  {28, "500F1E700000012C"},
        {32, "7"},        {33, "21"},         {34, "2023"},      {44, "Halden HS0600 600GB SAS"},
        {46, "2.6.1"}};
    for (const auto &[column, text] : texts) {
        expectText(column, text);
    }
}

TEST_F(AdTest, ColumnsOutsideTheTableAreNoSuchName)
{
    // A disk in an enclosure with every attribute a column reads: only the
    // columns the table does not serve are absent.
    Attributes attributes = kPlainDisk;
    attributes.insert(attributes.end(), {{"AttributesMask", mask({18})},
                                         {"PCIeSSDDeviceWriteStatus", "0"},
                                         {"RemainingRatedWriteEndurance", "97"}});
    serveTable(item(20, "enclosures", "0\\0\\0", {{"EnclosureID", "0"}}) +
               disk(1, "0\\0\\0\\3", attributes, 20));
    std::vector<uint32_t> absent = {0, 5, 37, 38, 39};
    for (uint32_t column = 54; column <= 80; column++) {
        absent.push_back(column);
    }
    EXPECT_EQ(absentColumns(0, 80), absent);
    for (uint32_t column : {0u, 5u, 37u, 38u, 39u, 54u, 55u, 73u, 1000u, 0xFFFFFFFFu}) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
        EXPECT_EQ(a.type, kUnsetType) << "column " << column;
    }
}

TEST_F(AdTest, MissingAttributesFailPlainColumnsAndGiveTheRulesAnswers)
{
    serveDisk({});
    struct Case {
        uint32_t column;
        int32_t result;
        uint32_t type;
        uint32_t value; // for type 2 answers
        const char *text;
    };
    const Case cases[] = {
        {1, 0, kInt, 1, ""},
        // The nexus is read into the reply before the mask is found missing.
        {2, 2, kStr, 0, "0\\0\\0\\3"},
        {16, 0, kInt, 0, ""},
        {26, 0, kStr, 0, "0\\0\\0\\3"},
        {35, 2, kInt, kUntouched + 1, ""}, // raised even though nothing was read
        {36, 2, kInt, 99, ""},
        {40, 2, kInt, 99, ""},
        {41, 2, kInt, 99, ""},
        {42, 0, kInt, 99, ""},
        {48, 2, kStr, 0, "No"},
        {49, 0, kStr, 0, "Not Applicable"},
    };
    for (const Case &c : cases) {
        const Answer a = get(c.column);
        EXPECT_EQ(a.result, c.result) << "column " << c.column;
        EXPECT_EQ(a.type, c.type) << "column " << c.column;
        if (c.type == kInt) {
            EXPECT_EQ(a.value, c.value) << "column " << c.column;
        } else {
            EXPECT_EQ(a.text, c.text) << "column " << c.column;
        }
    }
    for (uint32_t column : std::initializer_list<uint32_t>{
             3,  4,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15, 17, 18, 19, 20, 21, 22, 23,
             24, 25, 27, 28, 29, 30, 31, 32, 33, 34, 43, 44, 45, 46, 47, 50, 51, 52, 53}) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
}

TEST_F(AdTest, ObjStateIsTheLowestSetBitAndZeroLeavesTheNumberAsItWas)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"1", 1}, {"4", 3}, {"4096", 13}, {"12", 3}, {"4294967296", 33}};
    for (const auto &[state, expected] : cases) {
        SetUp();
        serveDisk({{"ObjState", state}});
        expectNumber(4, expected);
    }
    SetUp();
    serveDisk({{"ObjState", "0"}});
    const Answer a = get(4);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.type, kInt);
    EXPECT_EQ(a.value, kUntouched);
}

TEST_F(AdTest, SizesAreShiftedToMebibytesAndMaskedBelow)
{
    serveDisk({{"Length", "3145729"},
               {"ContiguousFree", "17592186044416"},
               {"UsedSpace", "1048575"},
               {"FreeSpace", "0"}});
    const std::pair<uint32_t, uint32_t> cases[] = {{11, 3}, {12, 1},       {13, 1u << 24}, {14, 0},
                                                   {17, 0}, {18, 0xFFFFF}, {19, 0},        {20, 0}};
    for (const auto &[column, expected] : cases) {
        expectNumber(column, expected);
    }
}

TEST_F(AdTest, BusProtocolFiveIsSixAndSixIsZero)
{
    const std::pair<const char *, uint32_t> cases[] = {{"0", 0}, {"1", 1}, {"2", 2},  {"3", 3},
                                                       {"4", 4}, {"5", 6}, {"6", 0},  {"7", 7},
                                                       {"8", 8}, {"9", 9}, {"10", 0}, {"99", 0}};
    for (const auto &[protocol, expected] : cases) {
        SetUp();
        serveDisk({{"BusProtocol", protocol}});
        expectNumber(21, expected);
    }
}

// ---- Malformed values --------------------------------------------------------------

// Empty texts and texts that are not numbers convert as the value extraction
// converts them (a number's digits up to the first other character, so none
// give 0): the cell exists.
TEST_F(AdTest, EmptyAndNonNumericValuesReadAsTheExtractionReadsThem)
{
    serveDisk({{"Vendor", ""},
               {"Channel", ""},
               {"TargetID", "abc"},
               {"Length", "x1"},
               {"TreeStatus", ""},
               {"BusProtocol", "five"},
               {"PdSectorSize", "512 bytes"},
               {"ObjState", "state"}});
    expectText(3, "");
    expectNumber(10, 0);
    expectNumber(15, 0);
    expectNumber(11, 0);
    expectNumber(23, 1);
    expectNumber(21, 0);
    expectNumber(50, 512);
    const Answer state = get(4); // 0: the number stays unwritten
    EXPECT_EQ(state.result, 0);
    EXPECT_EQ(state.value, kUntouched);
}

TEST_F(AdTest, ValuesOfTheLargestSizeStayInTheirBuffers)
{
    const std::string longest(kXmlValueSize - 1, '1');
    const std::string digits(kXmlValueSize - 1, '9');
    const std::string text(kXmlValueSize - 1, 'Q');
    serve(item(20, "enclosures", "0\\0\\0", {{"EnclosureID", text}}) +
          disk(1, std::string(kXmlValueSize - 1, 'n'),
               {{"Vendor", text},
                {"ModelNumber", text},
                {"AttributesMask", longest},
                {"BusProtocol", digits},
                {"ObjState", digits},
                {"Length", digits},
                {"MediaType", digits},
                {"PCIeSSDDeviceWriteStatus", digits},
                {"RemainingRatedWriteEndurance", digits}},
               20));
    ASSERT_EQ(buildTable(&adList, "arraydisks"), 0);
    for (uint32_t column = 0; column <= 60; column++) {
        const Answer a = get(column);
        EXPECT_TRUE(a.result == 0 || a.result == 2 || a.result == 5) << "column " << column;
    }
    expectText(3, text);
    expectText(9, text);
    expectText(26, std::string(kXmlValueSize - 1, 'n'));
    expectText(44, text);
    expectNumber(31, 2);
    expectNumber(40, 1);
    expectText(48, "Yes");
}

// ---- Rows and names ------------------------------------------------------------------

TEST_F(AdTest, RowsThatDoNotExistAreNoSuchNameAndLeaveTheBindingAlone)
{
    serve(disk(1, "0\\0\\0\\0", {{"Vendor", "A"}}) + disk(2, "0\\0\\0\\1", {{"Vendor", "B"}}));
    ASSERT_EQ(buildTable(&adList, "arraydisks"), 0);
    EXPECT_EQ(get(3, 2).text, "B");
    for (uint32_t row : {0u, 3u, 0xFFFFFFFFu}) {
        for (uint32_t column : {1u, 3u, 16u, 48u, 49u}) {
            const Answer a = get(column, row);
            EXPECT_EQ(a.result, 2) << "row " << row << " column " << column;
            EXPECT_EQ(a.type, kUnsetType) << "row " << row << " column " << column;
            EXPECT_EQ(a.value, kUntouched) << "row " << row << " column " << column;
            EXPECT_FALSE(a.nullBuffer || a.ownBuffer) << "row " << row << " column " << column;
        }
    }
}

TEST_F(AdTest, ADiskRemovedFromTheStoreAfterTheBuildIsNoSuchName)
{
    serve(disk(1, "0\\0\\0\\0", {{"Vendor", "A"}}) + disk(2, "0\\0\\0\\1", {{"Vendor", "B"}}));
    ASSERT_EQ(buildTable(&adList, "arraydisks"), 0);
    ASSERT_TRUE(kelp::ds::removeObject(1, nullptr));
    for (uint32_t column : {1u, 2u, 3u, 16u, 48u, 49u}) {
        const Answer a = get(column, 1);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
        EXPECT_FALSE(a.ownBuffer) << "column " << column;
    }
    EXPECT_EQ(get(3, 2).text, "B");
}

TEST_F(AdTest, ShortNamesAreNoSuchName)
{
    serveDisk({{"Vendor", "A"}});
    std::vector<uint32_t> name = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 4};
    for (uint32_t arc : {1u, 3u}) {
        EXPECT_EQ(getName(name).result, 2) << name.size() << " arcs";
        name.push_back(arc);
    }
    EXPECT_EQ(getName(name).result, 2) << "no row";
    name.insert(name.end(), {1, 7, 7});
    EXPECT_EQ(getName(name).text, "A"); // arcs after the row are ignored
}

TEST_F(AdTest, AnEmptyTableHasNoRows)
{
    serve("");
    ASSERT_EQ(buildTable(&adList, "arraydisks"), 0);
    EXPECT_EQ(get(1).result, 2);
    EXPECT_EQ(get(49).result, 2);
}

TEST_F(AdTest, EveryReturnIsPrecededByTheExitLine)
{
    serveDisk({{"Vendor", "HALDEN"}});
    const std::pair<std::vector<uint32_t>, int32_t> cases[] = {
        {{1, 3, 1}, 0}, // a cell
        {{1, 5, 1}, 2}, // a column the table does not serve
        {{1, 3, 2}, 2}, // a row it does not have
        {{1, 7, 1}, 2}, // a missing attribute
        {{1}, 2},       // a name without column
        {{}, 2},        // a name that ends before the entry arc
    };
    for (const auto &[arcs, result] : cases) {
        std::vector<uint32_t> name = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 4};
        name.insert(name.end(), arcs.begin(), arcs.end());
        DebugCapture capture;
        EXPECT_EQ(getName(name).result, result);
        EXPECT_EQ(capture.text(), "getAD(): Entry\ngetAD: Exit\n") << arcs.size() << " arcs";
    }
}

TEST_F(AdTest, EveryCallFetchesItsRowAfresh)
{
    serveDisk({{"Vendor", "A"}});
    EXPECT_EQ(get(3).text, "A");
    ASSERT_TRUE(kelp::ds::setAttribute(1, "Vendor", "B", nullptr));
    EXPECT_EQ(get(3).text, "B");
}

// ---- The shipped sample model -------------------------------------------------------

// Rows are found by their nexus (column 26), so that disks added to the
// model do not move the ones checked here.
TEST_F(AdTest, TheSampleModelAnswersWhatItsDisksHold)
{
    testmodel::serveSampleModel();
    ASSERT_GE(adList.length, 23u);
    std::vector<std::string> nexus(adList.length + 1);
    for (uint32_t row = 1; row <= adList.length; row++) {
        for (uint32_t column = 0; column <= 60; column++) {
            const Answer a = get(column, row);
            // Column 2 answers the location service's status.
            EXPECT_TRUE(a.result == 0 || a.result == 2 || column == 2)
                << "row " << row << " column " << column;
        }
        nexus[row] = get(26, row).text;
    }
    auto rowOf = [&](const std::string &wanted) {
        for (uint32_t row = 1; row < nexus.size(); row++) {
            if (nexus[row] == wanted) {
                return row;
            }
        }
        ADD_FAILURE() << "no disk " << wanted;
        return 0u;
    };
    struct Expected {
        const char *nexus;
        uint32_t column;
        uint32_t value;
    };
    const Expected numbers[] = {
        {"0\\0\\0\\0", 4, 3},   {"0\\0\\0\\0", 21, 8},   {"0\\0\\0\\0", 22, 5},
        {"0\\0\\0\\0", 36, 0},  {"0\\0\\0\\0", 42, 0},   {"0\\0\\0\\13", 40, 1},
        {"0\\0\\0\\13", 41, 1}, {"0\\0\\0\\13", 42, 99}, {"0\\0\\0\\14", 22, 3},
        {"0\\1\\4", 22, 99},    {"0\\1\\4", 21, 7},      {"0\\2\\0", 36, 99},
        {"0\\2\\0", 21, 9},     {"0\\2\\0", 35, 3},
    };
    for (const Expected &e : numbers) {
        const Answer a = get(e.column, rowOf(e.nexus));
        EXPECT_EQ(a.result, 0) << e.nexus << " column " << e.column;
        EXPECT_EQ(a.value, e.value) << e.nexus << " column " << e.column;
    }
    struct ExpectedText {
        const char *nexus;
        uint32_t column;
        const char *text;
        int32_t result;
    };
    const ExpectedText texts[] = {
        {"0\\0\\0\\0", 3, "HALDEN", 0},      {"0\\0\\0\\13", 49, "97", 0},
        {"0\\1\\4", 49, "Not Available", 0}, {"0\\0\\0\\0", 49, "Not Applicable", 0},
        {"0\\0\\0\\0", 48, "No", 0},         {"0\\1\\4", 9, "", 2},
    };
    for (const ExpectedText &e : texts) {
        const Answer a = get(e.column, rowOf(e.nexus));
        EXPECT_EQ(a.result, e.result) << e.nexus << " column " << e.column;
        EXPECT_EQ(a.text, e.text) << e.nexus << " column " << e.column;
    }
}

} // namespace
