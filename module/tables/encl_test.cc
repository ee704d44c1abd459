// The enclosure table through getEncl: the plain columns, the name and model
// number from the enclosure type, the channel taken from the nexus, the slot
// columns, the rows and names it refuses, the reply's buffer pointer and the
// shipped models. The service tag columns are in encl_tag_test.cc.
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/vscil.h"
#include "store/build.h"
#include "store/xmlvalue.h"
#include "tables/encl_testing.h"
#include "testing/debug_capture.h"
#include "testing/model_fixture.h"

// ---- A disk count the data store never answers ------------------------------------
// The data store counts the disks of every object it holds, so the answers
// the slot columns must survive (none at all, or one without "objectCount")
// come from this stand-in. The module objects linked into this program call
// it in place of the data store's; unset, it passes the call on.

namespace {

std::mutex g_countLock;
std::optional<std::optional<std::string>> g_countAnswer; // guarded by g_countLock

} // namespace

void encltest::setDiskCountAnswer(std::optional<std::optional<std::string>> answer)
{
    std::lock_guard lock(g_countLock);
    g_countAnswer = std::move(answer);
}

extern "C" char *GetAssociatedPhyDevCount(uint32_t *status, const char *kind, uint32_t objId)
{
    {
        std::lock_guard lock(g_countLock);
        if (g_countAnswer.has_value()) {
            const std::optional<std::string> &answer = *g_countAnswer;
            *status = answer.has_value() ? 0 : 2;
            // freeMem releases an answer with free().
            return answer.has_value() ? strdup(answer->c_str()) : nullptr;
        }
    }
    using Count = char *(*)(uint32_t *, const char *, uint32_t);
    static const auto real = reinterpret_cast<Count>(dlsym(RTLD_NEXT, "GetAssociatedPhyDevCount"));
    return real(status, kind, objId);
}

namespace {

using namespace encltest;
using testmodel::serve;

// ---- Plain columns ------------------------------------------------------------

// An enclosure with every attribute the table reads.
const Attributes kEveryAttribute = {{"ObjState", "8"},
                                    {"EnclosureType", "1"},
                                    {"ProductID", "BP16-12G"},
                                    {"BusProtocol", "7"},
                                    {"ServiceTag", "7KQ3LM2"},
                                    {"AssetTag", "A-17"},
                                    {"AssetName", "Rack 4"},
                                    {"SplitBusPartNum", "SB-1"},
                                    {"EnclosureConfig", "3"},
                                    {"Channel", "2"},
                                    {"EnclosureAlarm", "1"},
                                    {"BackPlanePartNum", "VN-BP16A-02"},
                                    {"TreeStatus", "2"},
                                    {"ObjStatus", "4"},
                                    {"FirmwareVer", "2.31"},
                                    {"SCSIRate", "12Gbps"},
                                    {"EnclosurePartNum", "VN-BP16A"},
                                    {"EnclosureSerialNum", "BPL0071932"},
                                    {"SASAddress", "500F1E7100000020"},
                                    {"CurrentMethodMask", mask({22})},
                                    {"MaxNumOfPDSlots", "16"}};

TEST_F(EnclTest, PlainColumnsAnswerTheirAttributes)
{
    serveEnclosure(kEveryAttribute);
    const std::pair<uint32_t, uint32_t> numbers[] = {{1, 1},  {4, 4},  {18, 3}, {19, 2},
                                                     {20, 2}, {22, 7}, {23, 3}, {24, 5}};
    for (const auto &[column, value] : numbers) {
        expectNumber(column, value);
    }
    const std::pair<uint32_t, const char *> texts[] = {
        {3, "VORN"},      {9, "A-17"},         {10, "Rack 4"},     {11, "SB-1"},
        {12, "BP16-12G"}, {21, "VN-BP16A-02"}, {25, "0\\0\\0"},    {26, "2.31"},
        {27, "12Gbps"},   {28, "VN-BP16A"},    {29, "BPL0071932"}, {30, "500F1E7100000020"}};
    for (const auto &[column, text] : texts) {
        expectText(column, text);
    }
}

TEST_F(EnclTest, ColumnsOutsideTheTableAreNoSuchName)
{
    serveEnclosure(kEveryAttribute);
    for (uint32_t column : {0u, 5u, 7u, 13u, 14u, 15u, 17u, 35u, 36u, 1000u, 0xFFFFFFFFu}) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.type, kUnsetType) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
    EXPECT_EQ(absentColumns(0, 40),
              (std::vector<uint32_t>{0, 5, 7, 13, 14, 15, 17, 35, 36, 37, 38, 39, 40}));
}

TEST_F(EnclTest, MissingAttributesFailTheirColumnsButNotTheSlotAndTagColumns)
{
    serveEnclosure({});
    for (uint32_t column : std::initializer_list<uint32_t>{2, 4, 6, 9, 10, 11, 12, 16, 18, 19, 20,
                                                           21, 23, 24, 26, 27, 28, 29, 30}) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
    // No slot reporting without a method mask; an empty tag has no code.
    expectNumber(31, 9999);
    expectNumber(32, 9999);
    expectNumber(33, 9999);
    expectText(8, "");
    expectText(34, "0");
    expectNumber(1, 1);
    expectText(3, "VORN");
}

TEST_F(EnclTest, ObjStateIsTheLowestSetBitAndZeroLeavesTheNumberUnset)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"1", 1}, {"8", 4}, {"12", 3}, {"4294967296", 33}, {"9223372036854775808", 64}};
    for (const auto &[state, expected] : cases) {
        SetUp();
        serveEnclosure({{"ObjState", state}});
        expectNumber(4, expected);
    }
    SetUp();
    serveEnclosure({{"ObjState", "0"}});
    const Answer a = get(4);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.type, kInt);
    EXPECT_EQ(a.value, kUntouched);
}

TEST_F(EnclTest, TheTargetIdIsTheControllersAndAnEnclosureWithoutOneHasNone)
{
    serveEnclosure({});
    expectNumber(22, 7);
    EXPECT_FALSE(get(22).nullBuffer) << "read from the controller, not into the reply";
    SetUp();
    serveTable(item(20, "enclosures", "0\\0\\0", {}));
    const Answer a = get(22);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.value, kUntouched);
}

// ---- Name and model number -------------------------------------------------------

TEST_F(EnclTest, TheNameComesFromTheEnclosureType)
{
    const std::pair<const char *, const char *> cases[] = {
        {"1", "Backplane"},       {"2", "Backplane"},       {"3", "KV500S / KV501S"},
        {"4", "KV510S / KV511S"}, {"5", "KV520S / KV521S"}, {"6", "KV515A / KV516A"}};
    for (const auto &[type, name] : cases) {
        SetUp();
        serveEnclosure({{"EnclosureType", type}, {"ProductID", "JX3210"}});
        expectText(2, name);
    }
    SetUp();
    serveEnclosure({{"EnclosureType", "7"}, {"ProductID", "JX3310"}});
    expectText(2, "JX3310");
}

TEST_F(EnclTest, AnUnknownEnclosureTypeHasNoName)
{
    // "x" and "" read as the number 0, which is no type either.
    for (const char *type : {"0", "8", "9", "4294967295", "x", ""}) {
        SetUp();
        serveEnclosure({{"EnclosureType", type}, {"ProductID", "JX3210"}});
        const Answer a = get(2);
        EXPECT_EQ(a.result, 0) << type;
        EXPECT_EQ(a.type, kUnsetType) << type;
        EXPECT_EQ(a.value, kUntouched) << type;
        EXPECT_FALSE(a.nullBuffer) << type;
    }
}

TEST_F(EnclTest, AProductNamedEnclosureWithoutAProductLosesTheReplyBuffer)
{
    serveEnclosure({{"EnclosureType", "7"}});
    DebugCapture capture;
    const Answer a = get(2);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.type, kStr);
    EXPECT_EQ(a.value, 0u);
    EXPECT_TRUE(a.nullBuffer);
    EXPECT_EQ(capture.text(), "getEncl(): Entry\n"
                              "getEncl():getValFromOID() returned error\n"
                              "getEncl: Exit\n");
}

TEST_F(EnclTest, TheModelNumberComesFromTheTypeAndForType7FromTheWholeProductId)
{
    struct Case {
        const char *type;
        const char *product;
        uint32_t model;
    };
    const Case cases[] = {
        {"1", "JX3210", 1},
        {"2", "", 1},
        {"3", "", 2},
        {"4", "", 3},
        {"5", "", 4},
        {"6", "", 6}, // type 6 stays as read
        {"0", "", 0},
        {"8", "JX3210", 8},
        {"4294967295", "", 4294967295},
        {"7", "JX3000", 8},
        {"7", "JX3110", 9},
        {"7", "JX3200", 10},
        {"7", "JX3210", 11},
        {"7", "JX3300", 12},
        {"7", "JX3310", 13},
        {"7", "JX3210 ", 0},
        {"7", " JX3210", 0},
        {"7", "JX32100", 0},
        {"7", "JX321", 0},
        {"7", "jx3210", 0},
        {"7", "", 0},
        {"7", "KV500S / KV501S", 0},
    };
    for (const Case &c : cases) {
        SetUp();
        serveEnclosure({{"EnclosureType", c.type}, {"ProductID", c.product}});
        const Answer a = get(16);
        EXPECT_EQ(a.result, 0) << c.type << " " << c.product;
        EXPECT_EQ(a.type, kInt) << c.type << " " << c.product;
        EXPECT_EQ(a.value, c.model) << c.type << " " << c.product;
        EXPECT_FALSE(a.nullBuffer) << "the type is read into a record of the getter's own";
    }
    // A product id as long as a value can be is compared whole too.
    SetUp();
    serveEnclosure({{"EnclosureType", "7"}, {"ProductID", "JX3210" + std::string(153, 'x')}});
    expectNumber(16, 0);
}

TEST_F(EnclTest, AType7EnclosureWithoutAProductIdFailsItsModelNumber)
{
    serveEnclosure({{"EnclosureType", "7"}});
    const Answer a = get(16);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.value, 0u);
    SetUp();
    serveEnclosure({{"ProductID", "JX3210"}});
    EXPECT_EQ(get(16).result, 2) << "no type at all";
}

// ---- Channel -------------------------------------------------------------------------

TEST_F(EnclTest, SasAndPcieEnclosuresTakeTheirChannelFromTheNexus)
{
    struct Case {
        const char *protocol;
        std::string nexus;
        std::string channel;
    };
    const Case cases[] = {
        {"8", "0\\2", "2"},                // the example of the rules
        {"8", "0\\0\\0", "0:0"},           // what follows the controller
        {"9", "12\\3\\4", "3:4"},          // a controller of two digits
        {"8", "0\\0\\0\\1\\2", "0:0:1:2"}, // more parts than an enclosure has
        {"8", "0\\", ""},                  // nothing after the separator
        {"9", "0\\\\5", ":5"},             // an empty part
        // No separator after the first character: nothing to cut off (see
        // channelFromNexus).
        {"8", "0", "0"},
        {"8", "\\5", ":5"},
        {"8", "05", "05"},
        {"8", std::string(159, 'n'), std::string(159, 'n')},
        {"8", "0\\" + std::string(157, 'n'), std::string(157, 'n')},
    };
    for (const Case &c : cases) {
        SetUp();
        serveEnclosure({{"BusProtocol", c.protocol}, {"Channel", "5"}}, "", c.nexus);
        const Answer a = get(6);
        EXPECT_EQ(a.result, 0) << c.nexus;
        EXPECT_EQ(a.type, kStr) << c.nexus;
        EXPECT_EQ(a.text, c.channel) << c.nexus;
    }
}

TEST_F(EnclTest, OtherEnclosuresAnswerTheirChannelNumber)
{
    for (const char *protocol : {"7", "1", "0", "x"}) {
        SetUp();
        serveEnclosure({{"BusProtocol", protocol}, {"Channel", "5"}});
        const Answer a = get(6);
        EXPECT_EQ(a.result, 0) << protocol;
        EXPECT_EQ(a.type, kInt) << protocol;
        EXPECT_EQ(a.value, 5u) << protocol;
        EXPECT_TRUE(a.nullBuffer) << "the channel is read into the reply";
    }
    SetUp();
    serveEnclosure({{"Channel", "3"}});
    expectNumber(6, 3); // no protocol
    SetUp();
    serveEnclosure({{"BusProtocol", "7"}});
    const Answer a = get(6);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.type, kInt);
    EXPECT_EQ(a.value, kUntouched);
}

// ---- Slot occupancy ------------------------------------------------------------------

const std::string kSlotsReported = mask({22});

TEST_F(EnclTest, SlotColumnsCountTheEnclosuresDisks)
{
    serveEnclosure({{"CurrentMethodMask", kSlotsReported}, {"MaxNumOfPDSlots", "16"}},
                   disks(20, 300, 3) + item(400, "arraydisks", "0\\0\\9", {}, 10));
    DebugCapture capture;
    expectNumber(31, 3);
    expectNumber(32, 16);
    expectNumber(33, 13);
    EXPECT_EQ(capture.text(), "getEncl(): Entry\n"
                              "getCtrl: Retrieving SLOT reporting OID's\n"
                              "getEncl: GetAssociatedPhyDevCount() returns "
                              "<objectCount>3</objectCount>\n"
                              "getEncl: getValFromXML() returns 4 devices\n"
                              "getEncl: Exit\n"
                              "getEncl(): Entry\n"
                              "getCtrl: Retrieving SLOT reporting OID's\n"
                              "getEncl: Total Number of slots:16"
                              "getEncl: Exit\n"
                              "getEncl(): Entry\n"
                              "getCtrl: Retrieving SLOT reporting OID's\n"
                              "getEncl: GetAssociatedPhyDevCount() returns "
                              "<objectCount>3</objectCount>\n"
                              "getEncl: getValFromXML() returns 4 devices\n"
                              "getEncl: Total Number of slots:16"
                              "getEncl: Total Number of Empty slots:13"
                              "getEncl: Exit\n");
}

TEST_F(EnclTest, WithoutSlotReportingTheSlotColumnsAre9999)
{
    const std::string masks[] = {
        mask({}),                            // '0' at 22
        withChar(kSlotsReported, 22, 'x'),   // neither
        kSlotsReported.substr(0, 22),        // too short to say
        std::string(kXmlValueSize - 1, '0'), // the longest mask
        std::string(22, '1') + std::string(137, '0'),
    };
    for (const std::string &methods : masks) {
        SetUp();
        serveEnclosure({{"CurrentMethodMask", methods}, {"MaxNumOfPDSlots", "16"}},
                       disks(20, 300, 3));
        for (uint32_t column : {31u, 32u, 33u}) {
            const Answer a = get(column);
            EXPECT_EQ(a.result, 0) << methods << " column " << column;
            EXPECT_EQ(a.type, kInt) << methods << " column " << column;
            EXPECT_EQ(a.value, 9999u) << methods << " column " << column;
        }
    }
    // The longest mask with reporting on reports.
    SetUp();
    serveEnclosure(
        {{"CurrentMethodMask", std::string(kXmlValueSize - 1, '1')}, {"MaxNumOfPDSlots", "16"}},
        disks(20, 300, 3));
    expectNumber(33, 13);
}

TEST_F(EnclTest, TheUnsupportedSlotReportNamesTheMasksCharacter)
{
    serveEnclosure(
        {{"CurrentMethodMask", withChar(kSlotsReported, 22, 'x')}, {"MaxNumOfPDSlots", "16"}},
        disks(20, 300, 3));
    DebugCapture capture;
    expectNumber(33, 9999);
    EXPECT_EQ(capture.text(), "getEncl(): Entry\n"
                              "getCtrl: Retrieving SLOT reporting OID's\n"
                              "getEncl: GetAssociatedPhyDevCount() returns "
                              "<objectCount>3</objectCount>\n"
                              "getEncl: getValFromXML() returns 4 devices\n"
                              "Unsupported functionality for OccupancySlotReport on controller: x\n"
                              "getEncl: Total Number of slots:16"
                              "getEncl: Total Number of Empty slots:13"
                              "Unsupported functionality for OccupancySlotReport on controller: x\n"
                              "getEncl: Exit\n");
}

TEST_F(EnclTest, AMaskWithoutPosition22ShowsABlankInTheLog)
{
    serveEnclosure({{"MaxNumOfPDSlots", "16"}});
    DebugCapture capture;
    expectNumber(31, 9999);
    EXPECT_NE(capture.text().find("on controller:  \n"), std::string::npos) << capture.text();
    EXPECT_EQ(capture.text().find('\0'), std::string::npos);
}

TEST_F(EnclTest, WithoutAnObjectCountTheOccupiedCountIsMinusOne)
{
    for (const std::optional<std::string> &answer :
         {std::optional<std::string>(), std::optional<std::string>("<Other>3</Other>")}) {
        SetUp();
        serveEnclosure({{"CurrentMethodMask", kSlotsReported}, {"MaxNumOfPDSlots", "12"}},
                       disks(20, 300, 3));
        setDiskCountAnswer(answer);
        DebugCapture capture;
        expectNumber(31, 4294967295u);
        expectNumber(32, 12);
        expectNumber(33, 13); // the total plus 1
        EXPECT_NE(capture.text().find("getEncl: getValFromXML() not able to find ObjectCount\n"),
                  std::string::npos);
    }
}

TEST_F(EnclTest, AnEnclosureWithoutDisksHasEveryPlaceEmpty)
{
    serveEnclosure({{"CurrentMethodMask", kSlotsReported}, {"MaxNumOfPDSlots", "12"}});
    expectNumber(31, 0);
    expectNumber(33, 12);
}

TEST_F(EnclTest, AMissingSlotTotalLeavesTheNumberAsItStands)
{
    serveEnclosure({{"CurrentMethodMask", kSlotsReported}}, disks(20, 300, 3));
    const Answer total = get(32);
    EXPECT_EQ(total.result, 0);
    EXPECT_EQ(total.type, kInt);
    EXPECT_EQ(total.value, kUntouched);
    EXPECT_FALSE(total.nullBuffer) << "nothing was read into the reply";
    // Column 33 then subtracts the occupied count from itself.
    expectNumber(33, 0);
    // Not numbers: the leading digits, none giving 0.
    SetUp();
    serveEnclosure({{"CurrentMethodMask", kSlotsReported}, {"MaxNumOfPDSlots", "x12"}},
                   disks(20, 300, 3));
    expectNumber(32, 0);
    expectNumber(33, 4294967293u); // 0 - 3
}

// ---- Rows and names --------------------------------------------------------------

TEST_F(EnclTest, EveryReturnIsPrecededByTheExitLine)
{
    serveEnclosure({{"AssetTag", "A-17"}});
    const std::pair<std::vector<uint32_t>, int32_t> cases[] = {
        {{9, 1}, 0},          // a cell
        {{9, 2}, 2},          // no such row
        {{5, 1}, 2},          // no such column
        {{10, 1}, 2},         // no such attribute
        {{1, 0xFFFFFFFF}, 2}, // the largest row index
    };
    for (const auto &[arcs, result] : cases) {
        DebugCapture capture;
        EXPECT_EQ(get(arcs[0], arcs[1]).result, result);
        EXPECT_EQ(capture.text(), "getEncl(): Entry\ngetEncl: Exit\n");
    }
}

TEST_F(EnclTest, RowsThatDoNotExistAreNoSuchName)
{
    serve(controllerAndChannel() + item(20, "enclosures", "0\\0\\0", {{"AssetTag", "A"}}, 10) +
          item(21, "enclosures", "0\\0\\1", {{"AssetTag", "B"}}, 10));
    ASSERT_EQ(buildTable(&enclList, "enclosures"), 0);
    EXPECT_EQ(get(9, 2).text, "B");
    for (uint32_t row : {0u, 3u, 0xFFFFFFFFu}) {
        const Answer a = get(9, row);
        EXPECT_EQ(a.result, 2) << row;
        EXPECT_EQ(a.value, kUntouched) << row;
    }
    // Enclosure 20 leaves the store: until the next build its row names an
    // object the store no longer has.
    ASSERT_TRUE(kelp::ds::removeObject(20, nullptr));
    for (uint32_t column = 0; column <= 36; column++) {
        const Answer a = get(column, 1);
        EXPECT_EQ(a.result, 2) << column;
        EXPECT_EQ(a.value, kUntouched) << column;
    }
    // After it the row is a hole and row 2 keeps its index.
    ASSERT_EQ(buildTable(&enclListNew, "enclosures"), 0);
    ASSERT_EQ(rebuildTable(&enclList, &enclListNew), 0);
    EXPECT_EQ(get(9, 1).result, 2);
    EXPECT_EQ(get(9, 2).text, "B");
}

TEST_F(EnclTest, ShortNamesAreNoSuchName)
{
    serveEnclosure({{"AssetTag", "A"}});
    std::vector<uint32_t> name = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 3};
    EXPECT_EQ(getName(name).result, 2);
    name.push_back(1);
    EXPECT_EQ(getName(name).result, 2);
    name.push_back(9);
    EXPECT_EQ(getName(name).result, 2);
    name.insert(name.end(), {1, 7, 7});
    EXPECT_EQ(getName(name).text, "A"); // arcs after the row are ignored
}

TEST_F(EnclTest, AnEmptyTableHasNoRows)
{
    serve(controllerAndChannel());
    ASSERT_EQ(buildTable(&enclList, "enclosures"), 0);
    EXPECT_EQ(get(1).result, 2);
}

TEST_F(EnclTest, TextColumnsWithoutAReplyBufferAreNoSuchName)
{
    serveEnclosure({{"EnclosureType", "7"},
                    {"ProductID", "JX3210"},
                    {"BusProtocol", "8"},
                    {"ServiceTag", "AB"},
                    {"AssetTag", "A"}});
    std::vector<uint32_t> arcs = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 3, 1, 2, 1};
    SMSnmpValue request{};
    request.name = SMSnmpOID{static_cast<uint32_t>(arcs.size()), 0, arcs.data()};
    for (uint32_t column : {2u, 3u, 6u, 8u, 9u, 34u}) {
        arcs[13] = column;
        SMSnmpValue reply{};
        EXPECT_EQ(getEncl(&request, &reply, 12), 2) << "column " << column;
    }
}

// ---- The reply's buffer pointer ----------------------------------------------
// Column 1, the slot counts, a product-named enclosure without a product and
// integer reads into the reply leave the reply without its buffer; every
// other number is answered with the caller's buffer still in place.

TEST_F(EnclTest, OnlyReadsIntoTheReplyAndTheNamedColumnsDropTheBuffer)
{
    serveEnclosure({{"ObjState", "8"},
                    {"EnclosureType", "7"},
                    {"ProductID", "JX3210"},
                    {"BusProtocol", "7"},
                    {"Channel", "2"},
                    {"EnclosureConfig", "0"},
                    {"EnclosureAlarm", "0"},
                    {"TreeStatus", "2"},
                    {"ObjStatus", "2"},
                    {"MaxNumOfPDSlots", "16"}});
    const std::pair<uint32_t, bool> columns[] = {
        {1, true},   {4, true},  {6, true},  {16, false}, {18, true}, {19, true}, {20, true},
        {22, false}, {23, true}, {24, true}, {31, true},  {32, true}, {33, true}};
    for (const auto &[column, dropped] : columns) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 0) << "column " << column;
        EXPECT_EQ(a.type, kInt) << "column " << column;
        EXPECT_EQ(a.nullBuffer, dropped) << "column " << column;
    }
}

TEST_F(EnclTest, AFailedNumberKeepsTheCallersBuffer)
{
    serveEnclosure({});
    for (uint32_t column : {4u, 6u, 16u, 18u, 19u, 20u, 22u, 23u, 24u, 32u}) {
        EXPECT_FALSE(get(column).nullBuffer) << "column " << column;
    }
}

// ---- Models ----------------------------------------------------------------------

std::string modelPath(const char *file)
{
    const char *source = std::getenv("KELP_SOURCE_DIR");
    return std::string(source != nullptr ? source : ".") + "/data/models/" + file;
}

TEST_F(EnclTest, EveryCellOfTheShippedModelsIsAnsweredOrAbsent)
{
    for (const char *file : {"sample.xml", "test/minimal.xml", "test/encl-types.xml"}) {
        SetUp();
        std::string error;
        ASSERT_TRUE(kelp::ds::loadModelFile(modelPath(file), &error)) << error;
        ASSERT_EQ(buildAll(), 0) << file;
        ASSERT_GT(enclList.length, 0u) << file;
        for (uint32_t row = 1; row <= enclList.length; row++) {
            for (uint32_t column = 0; column <= 40; column++) {
                const Answer a = get(column, row);
                EXPECT_TRUE(a.result == 0 || a.result == 2) << file << " " << column << " " << row;
            }
        }
    }
}

TEST_F(EnclTest, TheEnclosureTestModelAnswersWhatItsEnclosuresHold)
{
    std::string error;
    ASSERT_TRUE(kelp::ds::loadModelFile(modelPath("test/encl-types.xml"), &error)) << error;
    ASSERT_EQ(buildAll(), 0);
    ASSERT_EQ(enclList.length, 9u);
    struct Row {
        const char *name; // null: no value
        uint32_t model;
        const char *channel; // null: the number 1
        const char *tag;
        const char *code;
        uint32_t occupied;
        uint32_t total;
        uint32_t empty;
    };
    const Row rows[] = {
        {"Backplane", 1, "0:0", "7KQ3LM2", "16490637866", 2, 8, 6},
        {"Backplane", 1, nullptr, "AB1", "13357", 0, 4, 4},
        {"KV500S / KV501S", 2, "0:2", "9KT-B31", "9KT-B31", 9999, 9999, 9999},
        {"KV510S / KV511S", 3, "0:3", "", "0", 1, 12, 11},
        {"KV520S / KV521S", 4, "0:4", "", "0", 0, 12, 12},
        {"KV515A / KV516A", 6, "0:5", "9KTRB31", "20850347485", 9999, 9999, 9999},
        {"JX3310", 13, "0:6", "9KTRB31", "20850347485", 1, 12, 11},
        {"JX3210 ", 0, "0:7", "9KTRB31", "20850347485", 0, 12, 12},
        {nullptr, 9, "1:8", "9KTRB31", "20850347485", 0, 24, 24},
    };
    for (uint32_t row = 1; row <= 9; row++) {
        const Row &r = rows[row - 1];
        const Answer name = get(2, row);
        EXPECT_EQ(name.result, 0) << row;
        if (r.name != nullptr) {
            EXPECT_EQ(name.text, r.name) << row;
        } else {
            EXPECT_EQ(name.type, kUnsetType) << row;
        }
        EXPECT_EQ(get(16, row).value, r.model) << row;
        const Answer channel = get(6, row);
        if (r.channel != nullptr) {
            EXPECT_EQ(channel.text, r.channel) << row;
        } else {
            EXPECT_EQ(channel.type, kInt) << row;
            EXPECT_EQ(channel.value, 1u) << row;
        }
        EXPECT_EQ(get(8, row).text, r.tag) << row;
        EXPECT_EQ(get(34, row).text, r.code) << row;
        EXPECT_EQ(get(31, row).value, r.occupied) << row;
        EXPECT_EQ(get(32, row).value, r.total) << row;
        EXPECT_EQ(get(33, row).value, r.empty) << row;
        EXPECT_EQ(get(22, row).value, 7u) << row;
    }
}

} // namespace
