// The controller table through getCtrl: the plain columns, the counts of
// associated disks, the rows and names it refuses, and the shipped sample
// model. The mask and spin-down columns are in ctrl_mask_test.cc.
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "store/build.h"
#include "store/xmlvalue.h"
#include "tables/ctrl_testing.h"
#include "testing/debug_capture.h"
#include "testing/model_fixture.h"

namespace {

using namespace ctrltest;
using testmodel::link;
using testmodel::object;
using testmodel::serve;

// ---- Plain columns ------------------------------------------------------------

TEST_F(CtrlTest, PlainColumnsAnswerTheirAttributes)
{
    serveController({{"Name", "Vorn RX-240"},
                     {"RebuildRate", "30"},
                     {"FirmwareVer", "4.8.2"},
                     {"TreeStatus", "2"},
                     {"ObjStatus", "4"},
                     {"CurrentDriverVersion", "3.14"},
                     {"RequiredFirmwareVersion", "4.8.0"},
                     {"RequiredDriverVersion", "3.12"},
                     {"TargetID", "7"},
                     {"Channels", "3"},
                     {"ReconstructRate", "31"},
                     {"PatrolReadRate", "32"},
                     {"BGIRate", "33"},
                     {"CheckConsistencyRate", "34"},
                     {"PatrolReadState", "1"},
                     {"PatrolReadIterations", "12"},
                     {"CurrentStorPortDriverVersion", "5.1"},
                     {"RequiredStorPortDriverVersion", "5.0"},
                     {"SecurityMode", "1"},
                     {"CtrlPICapable", "1"},
                     {"CtrlStashSlot", "3"},
                     {"CtrlStashInst", "2"}});
    const std::pair<uint32_t, uint32_t> numbers[] = {
        {1, 1},   {7, 30},  {37, 3}, {38, 5},  {46, 7}, {47, 3}, {48, 31}, {49, 32},
        {50, 33}, {51, 34}, {53, 1}, {54, 12}, {63, 1}, {70, 1}, {72, 3},  {73, 2}};
    for (const auto &[column, value] : numbers) {
        expectNumber(column, value);
    }
    const std::pair<uint32_t, const char *> texts[] = {
        {2, "Vorn RX-240"}, {3, "VORN"},  {8, "4.8.2"}, {39, "0"},  {41, "3.14"},
        {44, "4.8.0"},      {45, "3.12"}, {55, "5.1"},  {56, "5.0"}};
    for (const auto &[column, text] : texts) {
        expectText(column, text);
    }
}

TEST_F(CtrlTest, ColumnsOutsideTheTableAreNoSuchName)
{
    serveController({{"Name", "Vorn RX-240"}});
    std::vector<uint32_t> columns = {0, 6, 13, 14, 74, 75, 1000, 0xFFFFFFFF};
    for (uint32_t column = 17; column <= 36; column++) {
        columns.push_back(column);
    }
    for (uint32_t column : columns) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
}

TEST_F(CtrlTest, MissingAttributesFailPlainColumnsAndGiveCapabilityAnswers)
{
    serveController({});
    struct Case {
        uint32_t column;
        int32_t result;
        uint32_t type;
        uint32_t value; // for type 2 answers
        const char *text;
    };
    // 2 everywhere an attribute is simply read; the capability columns answer
    // 99 or 9999 instead, some with success.
    const Case cases[] = {
        {1, 0, kInt, 1, ""},      {3, 0, kStr, 0, "VORN"}, {11, 0, kInt, 1, ""},
        {12, 0, kInt, 0, ""},     {59, 0, kInt, 99, ""},   {60, 0, kInt, 99, ""},
        {61, 0, kInt, 99, ""},    {62, 0, kInt, 9999, ""}, {63, 0, kInt, 99, ""},
        {64, 0, kInt, 99, ""},    {65, 0, kInt, 99, ""},   {66, 0, kInt, 99, ""},
        {67, 0, kStr, 0, "9999"}, {68, 0, kInt, 9999, ""}, {69, 2, kInt, 99, ""},
        {72, 2, kInt, 99, ""},    {73, 2, kInt, 99, ""},
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
             2,  4,  5,  7,  8,  9,  10, 15, 16, 37, 38, 40, 41, 42, 43, 44,
             45, 46, 47, 48, 49, 50, 51, 52, 53, 54, 55, 56, 57, 58, 70, 71}) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
}

TEST_F(CtrlTest, ObjStateIsTheLowestSetBitCountedFromOne)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"0", 0}, {"1", 1}, {"8", 4}, {"12", 3}, {"4294967296", 33}, {"9223372036854775808", 64}};
    for (const auto &[state, expected] : cases) {
        SetUp();
        serveController({{"ObjState", state}});
        expectNumber(5, expected);
    }
}

TEST_F(CtrlTest, SizesAreCutShiftedAndMasked)
{
    serveController({{"CacheSize", "4294967301"}, {"BuffMemADAP", "3145729"}});
    expectNumber(9, 5);  // the low 32 bits
    expectNumber(10, 0); // read, never reported
    expectNumber(15, 3);
    expectNumber(16, 1);
    SetUp();
    serveController({{"BuffMemADAP", "17592186044416"}}); // 2^44
    expectNumber(15, 1u << 24);
    expectNumber(16, 0);
}

TEST_F(CtrlTest, BusProtocolIsMappedToTheMibNumbers)
{
    const std::pair<const char *, uint32_t> cases[] = {{"0", 0}, {"1", 1}, {"2", 4},  {"3", 3},
                                                       {"4", 0}, {"5", 0}, {"6", 6},  {"7", 5},
                                                       {"8", 6}, {"9", 9}, {"10", 10}};
    for (const auto &[protocol, expected] : cases) {
        SetUp();
        serveController({{"BusProtocol", protocol}});
        expectNumber(4, expected);
    }
}

// ---- Other columns with rules ----------------------------------------------------------

TEST_F(CtrlTest, PersonalityTwoIsAnHba)
{
    const std::pair<const char *, const char *> cases[] = {
        {"2", "HBA"}, {"1", "RAID"}, {"0", "RAID"}, {"7", "RAID"}};
    for (const auto &[state, expected] : cases) {
        SetUp();
        serveController({{"PersonalityState", state}});
        expectText(71, expected);
    }
}

TEST_F(CtrlTest, ArrayDisksAreCountedOneMoreThanTheStoreHas)
{
    std::string disks = object(2, "bus", 1, {{"Nexus", "0\\0"}}) +
                        object(3, "enclosures", 2, {{"Nexus", "0\\0\\1"}});
    for (uint32_t id = 10; id < 14; id++) {
        disks += object(id, "arraydisks", id < 12 ? 3 : 2, {{"Nexus", "d" + std::to_string(id)}});
    }
    serveController({}, disks);
    DebugCapture capture;
    expectNumber(11, 5);
    EXPECT_EQ(capture.text(), "getCtrl: curr ID = 1\n"
                              "getCtrl: GetAssociatedPhyDevCount() returns "
                              "<objectCount>4</objectCount>\n"
                              "getCtrl: getValFromXML() returns 5 devices\n");
    SetUp();
    serveController({});
    expectNumber(11, 1);
}

TEST_F(CtrlTest, VirtualDisksWithAParentAreNotCounted)
{
    serveController({}, object(20, "vdisks", 1, {{"Nexus", "v0"}}) +
                            object(21, "vdisks", 1, {{"Nexus", "v1"}}) +
                            object(22, "vdisks", 21, {{"Nexus", "v1s0"}, {"ParentVDID", "21"}}) +
                            object(23, "vdisks", 21, {{"Nexus", "v1s1"}, {"ParentVDID", "21"}}) +
                            object(24, "vdisks", 0, {{"Nexus", "v2"}}) + link(24, 1));
    expectNumber(12, 3);
    SetUp();
    serveController({});
    expectNumber(12, 0);
}

// ---- Rows and names ------------------------------------------------------------------

TEST_F(CtrlTest, APlainCallLogsOnlyItsCurrentId)
{
    serveController({{"Name", "Vorn RX-240"}});
    DebugCapture capture;
    expectText(2, "Vorn RX-240");
    EXPECT_EQ(capture.text(), "getCtrl: curr ID = 1\n");
}

TEST_F(CtrlTest, RowsThatDoNotExistAreNoSuchName)
{
    serve(adapter(1, "0", {{"Name", "A"}}) + adapter(2, "1", {{"Name", "B"}}));
    ASSERT_EQ(buildTable(&ctrlList, "adapters"), 0);
    EXPECT_EQ(get(2, 2).text, "B");
    EXPECT_EQ(get(2, 0).result, 2);
    EXPECT_EQ(get(2, 3).result, 2);
    // Controller 1 vanishes: its row stays a hole and row 2 keeps its index.
    ASSERT_TRUE(kelp::ds::removeObject(1, nullptr));
    ASSERT_EQ(buildTable(&ctrlListNew, "adapters"), 0);
    ASSERT_EQ(rebuildTable(&ctrlList, &ctrlListNew), 0);
    const Answer hole = get(2, 1);
    EXPECT_EQ(hole.result, 2);
    EXPECT_EQ(hole.value, kUntouched);
    EXPECT_EQ(get(1, 1).result, 2);
    const Answer second = get(2, 2);
    EXPECT_EQ(second.result, 0);
    EXPECT_EQ(second.text, "B");
}

TEST_F(CtrlTest, ShortNamesAreNoSuchName)
{
    serveController({{"Name", "A"}});
    const std::vector<uint32_t> root = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 1};
    std::vector<uint32_t> entry = root;
    entry.push_back(1);
    std::vector<uint32_t> column = entry;
    column.push_back(2);
    {
        DebugCapture capture;
        EXPECT_EQ(getName(root).result, 2);
        EXPECT_EQ(capture.text(), ""); // no entry arc to show
    }
    EXPECT_EQ(getName(entry).result, 2);
    EXPECT_EQ(getName(column).result, 2);
    std::vector<uint32_t> longer = column;
    longer.insert(longer.end(), {1, 9, 9});
    EXPECT_EQ(getName(longer).text, "A"); // arcs after the row are ignored
}

TEST_F(CtrlTest, AnEmptyTableHasNoRows)
{
    serve("");
    ASSERT_EQ(buildTable(&ctrlList, "adapters"), 0);
    EXPECT_EQ(get(1).result, 2);
}

TEST_F(CtrlTest, EveryCallFetchesItsRowAfresh)
{
    serve(adapter(1, "0", {{"Name", "A"}}) + adapter(2, "1", {{"Name", "B"}}));
    ASSERT_EQ(buildTable(&ctrlList, "adapters"), 0);
    EXPECT_EQ(get(2, 1).text, "A");
    EXPECT_EQ(cachedObjId, 1u);
    ASSERT_TRUE(kelp::ds::setAttribute(1, "Name", "A2", nullptr));
    EXPECT_EQ(get(2, 1).text, "A2"); // not the copy in the cache
    EXPECT_EQ(get(2, 2).text, "B");
    EXPECT_EQ(cachedObjId, 2u);
}

TEST_F(CtrlTest, ValuesOfTheLargestSizeStayInTheirBuffers)
{
    const std::string longest(kXmlValueSize - 1, '1');
    serve(adapter(1, std::string(kXmlValueSize - 1, 'n'),
                  {{"Name", std::string(kXmlValueSize - 1, 'Q')},
                   {"AttributesMask", longest},
                   {"DimmerPropertyMask", longest},
                   {"ChangeControllerPropertyMask", longest},
                   {"CurrentMethodMask", longest},
                   {"PatrolReadMode", longest},
                   {"ClusterMode", longest},
                   {"BusProtocol", "8"},
                   {"PCISlot", longest},
                   {"DisableLDPSTime", longest}}));
    // The builder keeps 79 characters of a nexus; the object keeps all 159.
    ASSERT_EQ(buildTable(&ctrlList, "adapters"), 0);
    for (uint32_t column = 0; column <= 80; column++) {
        get(column);
    }
    expectText(2, std::string(kXmlValueSize - 1, 'Q'));
    expectText(39, std::string(kXmlValueSize - 1, 'n'));
    expectText(42, longest);
    expectNumber(57, 1);
    expectNumber(60, 1);
    expectNumber(69, 1);
}

TEST_F(CtrlTest, ATextColumnWithoutAReplyBufferIsNoSuchName)
{
    serveController({{"Name", "A"}, {"PersonalityState", "2"}});
    std::vector<uint32_t> arcs = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 1, 1, 2, 1};
    SMSnmpValue request{};
    request.name = SMSnmpOID{static_cast<uint32_t>(arcs.size()), 0, arcs.data()};
    for (uint32_t column : {2u, 3u, 42u, 67u, 71u}) {
        arcs[13] = column;
        SMSnmpValue reply{};
        EXPECT_EQ(getCtrl(&request, &reply, 12), 2) << "column " << column;
    }
}

// ---- The shipped sample model -------------------------------------------------------

TEST_F(CtrlTest, TheSampleModelAnswersWhatItsControllersHold)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(ctrlList.length, 2u);
    for (uint32_t row : {1u, 2u}) {
        for (uint32_t column = 0; column <= 80; column++) {
            const Answer a = get(column, row);
            EXPECT_TRUE(a.result == 0 || a.result == 2) << column;
        }
    }
    struct Expected {
        uint32_t column;
        uint32_t first;
        uint32_t second;
    };
    const Expected numbers[] = {
        {1, 1, 2},   {4, 6, 6},   {5, 1, 1},     {9, 8192, 0},   {10, 0, 0},
        {11, 20, 7}, {12, 6, 0},  {15, 8192, 0}, {16, 0, 0},     {37, 3, 3},
        {40, 1, 2},  {43, 2, 2},  {52, 1, 3},    {57, 1, 99},    {58, 1, 99},
        {59, 1, 99}, {60, 1, 99}, {61, 1, 99},   {62, 30, 9999}, {64, 1, 0},
        {65, 1, 99}, {66, 0, 99}, {68, 6, 9999}, {69, 1, 0},     {72, 1, 0},
    };
    for (const Expected &e : numbers) {
        for (uint32_t row : {1u, 2u}) {
            const Answer a = get(e.column, row);
            EXPECT_EQ(a.result, 0) << "column " << e.column << " row " << row;
            EXPECT_EQ(a.type, kInt) << "column " << e.column << " row " << row;
            EXPECT_EQ(a.value, row == 1 ? e.first : e.second)
                << "column " << e.column << " row " << row;
        }
    }
    struct ExpectedText {
        uint32_t column;
        const char *first;
        const char *second;
    };
    const ExpectedText texts[] = {{2, "Vorn RX-240", "Vorn HX-120"},
                                  {3, "VORN", "VORN"},
                                  {39, "0", "1"},
                                  {42, "embedded", "2"},
                                  {67, "22:00", "9999"},
                                  {71, "RAID", "HBA"}};
    for (const ExpectedText &e : texts) {
        for (uint32_t row : {1u, 2u}) {
            const Answer a = get(e.column, row);
            EXPECT_EQ(a.result, 0) << "column " << e.column << " row " << row;
            EXPECT_EQ(a.text, row == 1 ? e.first : e.second)
                << "column " << e.column << " row " << row;
        }
    }
}

// ---- The reply's buffer pointer ----------------------------------------------
// Only column 1, column 12 and integer reads into the reply (as the value
// extraction does them) leave the reply without its buffer; every other
// number is answered with the caller's buffer still in place.

TEST_F(CtrlTest, OnlyReadsIntoTheReplyAndTheNamedColumnsDropTheBuffer)
{
    serveController({{"Name", "Vorn RX-240"},
                     {"RebuildRate", "30"},
                     {"ObjState", "8"},
                     {"BusProtocol", "8"},
                     {"AttributesMask", mask({1, 5, 8})},
                     {"CurrentMethodMask", mask({28})},
                     {"DimmerPropertyMask", mask({0, 22, 26})},
                     {"SpinDownTime", "30"},
                     {"DisableLDPSInterval", "4"},
                     {"PersonalityState", "1"}});
    const std::pair<uint32_t, bool> columns[] = {
        {1, true},   {7, true},   {5, true},   {4, true},   {12, true},  {43, true},  {62, true},
        {68, true},  {11, false}, {40, false}, {57, false}, {58, false}, {59, false}, {60, false},
        {63, false}, {64, false}, {69, false}, {72, false}, {73, false}};
    for (const auto &[column, dropped] : columns) {
        const Answer a = get(column);
        EXPECT_EQ(a.type, kInt) << "column " << column;
        EXPECT_EQ(a.nullBuffer, dropped) << "column " << column;
    }
}

} // namespace
