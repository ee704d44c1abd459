// The fan, power supply, temperature probe, EMM and battery tables through
// their getters, what all five share: the row index, vendor and name
// columns, the columns they do not have, the state rules, the log lines,
// the rows and names they refuse. Each table's own columns are in
// components_tables_test.cc.
#include <algorithm>
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "datastore/model_store.h"

#include "store/build.h"
#include "store/tablelist.h"
#include "store/xmlvalue.h"
#include "tables/components_testing.h"
#include "tables/getters.h"
#include "testing/debug_capture.h"
#include "testing/location_spy.h"
#include "testing/table_fixture.h"

namespace {

using namespace tabletest;
using namespace componenttest;

// ---- What the five tables share -------------------------------------------------

using States = std::vector<std::pair<uint64_t, uint32_t>>;

// The lowest-bit number of the fan, power supply and EMM tables.
const States kLowestBitStates = {
    {0x1, 1},
    {0x2, 2},
    {0x6, 2},
    {0x8, 4},
    {0x80, 8},
    {0x100, 9},
    {uint64_t{1} << 31, 32},
    {uint64_t{1} << 32, 33},
    {uint64_t{1} << 60, 61},
    {uint64_t{1} << 63, 64},
    {~uint64_t{0}, 1},
};

// The temperature probe's: the lowest-bit number n, with 8, 61 to 64 translated.
const States kProbeStates = {
    {0x1, 1},
    {0x4, 3},                // n = 3
    {0x80, 4},               // n = 8
    {0x180, 4},              // the lowest bit decides
    {0x100, 9},              // n = 9 stays
    {0x40, 7},               // n = 7 stays
    {uint64_t{1} << 59, 60}, // n = 60 stays
    {uint64_t{1} << 60, 6},  // n = 61
    {uint64_t{1} << 61, 2},  // n = 62
    {uint64_t{1} << 62, 6},  // n = 63
    {uint64_t{1} << 63, 2},  // n = 64
    {~uint64_t{0} << 60, 6}, // n = 61 again, more bits above
};

// The battery's: the stored value compared whole.
const States kBatteryStates = {
    {0x1, 1},
    {0x2, 2},
    {0x20, 6},
    {0x200, 10},
    {0x800, 7},
    {0x100000, 21},
    {uint64_t{1} << 48, 36},
    {uint64_t{1} << 49, 10},
    {uint64_t{1} << 50, 12},
    {0x801, 0},                       // two bits
    {0x3, 0},                         // two listed bits
    {0x4, 0},                         // a bit not listed
    {uint64_t{1} << 51, 0},           // nor this one
    {(uint64_t{1} << 32) | 0x800, 0}, // the low 32 bits alone would match
    {(uint64_t{1} << 48) | 0x1, 0},   // two listed bits far apart
    {~uint64_t{0}, 0},
};

// One of the five tables as its tests see it.
struct ComponentTable {
    const char *name; // the tests' suffix
    TableUnderTest table;
    ObjList *staging;
    const char *nexusPrefix; // with a number after it, the nexus of a row's object
    const char *namePrefix;  // with the same number, its display name
    std::string logLines;    // what every call prints
    uint32_t lastColumn;
    std::vector<uint32_t> absent;  // columns up to lastColumn the table does not have
    std::vector<uint32_t> reading; // columns that read an attribute other than "Nexus"
    uint32_t treeStatusColumn;     // "ObjStatus" is the column after it
    uint32_t nexusColumn;
    Attributes every; // each attribute the table reads but "Nexus"
    States states;    // stored "ObjState" and column 4's answer
};

const ComponentTable kFans{.name = "Fans",
                           .table = kFanTable,
                           .staging = &fanListNew,
                           .nexusPrefix = "0\\0\\1\\1\\",
                           .namePrefix = "Fan ",
                           .logLines = "getFan: entry\ngetFan: Exit\n",
                           .lastColumn = 17,
                           .absent = {5, 6, 7, 8, 9, 10, 13},
                           .reading = {4, 11, 12, 14, 15, 17},
                           .treeStatusColumn = 14,
                           .nexusColumn = 16,
                           .every = kFanAttributes,
                           .states = kLowestBitStates};
const ComponentTable kPowerSupplies{.name = "PowerSupplies",
                                    .table = kPowerSupplyTable,
                                    .staging = &psuListNew,
                                    .nexusPrefix = "0\\0\\1\\2\\",
                                    .namePrefix = "Power Supply ",
                                    .logLines = "getPwrSupply: Entry\ngetPwrSupply: Exit\n",
                                    .lastColumn = 11,
                                    .absent = {5, 7},
                                    .reading = {4, 6, 8, 9, 11},
                                    .treeStatusColumn = 8,
                                    .nexusColumn = 10,
                                    .every = kPowerSupplyAttributes,
                                    .states = kLowestBitStates};
const ComponentTable kProbes{.name = "TemperatureProbes",
                             .table = kProbeTable,
                             .staging = &tempListNew,
                             .nexusPrefix = "0\\0\\1\\3\\",
                             .namePrefix = "Temperature Probe ",
                             .logLines = "getTemperature: ENTRY\ngetTemperature: Exit\n",
                             .lastColumn = 14,
                             .absent = {5},
                             .reading = {4, 7, 8, 9, 10, 11, 12, 13},
                             .treeStatusColumn = 12,
                             .nexusColumn = 14,
                             .every = kProbeAttributes,
                             .states = kProbeStates};
const ComponentTable kEmms{.name = "Emms",
                           .table = kEmmTable,
                           .staging = &emmListNew,
                           .nexusPrefix = "0\\0\\1\\4\\",
                           .namePrefix = "EMM ",
                           .logLines = "getEMM: entry\ngetEMM: exit\n",
                           .lastColumn = 13,
                           .absent = {5},
                           .reading = {4, 6, 8, 9, 10, 11, 13},
                           .treeStatusColumn = 10,
                           .nexusColumn = 12,
                           .every = kEmmAttributes,
                           .states = kLowestBitStates};
// No entry line.
const ComponentTable kBatteries{.name = "Batteries",
                                .table = kBatteryTable,
                                .staging = &battListNew,
                                .nexusPrefix = "0\\64\\",
                                .namePrefix = "Battery ",
                                .logLines = "getBattery: exit\n",
                                .lastColumn = 15,
                                .absent = {},
                                .reading = {4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 15},
                                .treeStatusColumn = 5,
                                .nexusColumn = 9,
                                .every = kBatteryAttributes,
                                .states = kBatteryStates};

std::vector<uint32_t> sortedUnion(std::vector<uint32_t> a, const std::vector<uint32_t> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    std::sort(a.begin(), a.end());
    return a;
}

class ComponentTableTest : public TableTest, public ::testing::WithParamInterface<ComponentTable> {
  protected:
    ComponentTableTest() : TableTest(GetParam().table) {}

    static const ComponentTable &t() { return GetParam(); }

    static std::string nexus(uint32_t number) { return t().nexusPrefix + std::to_string(number); }

    // Object `id` of the table's type with the nexus of `number`.
    static std::string component(uint32_t id, uint32_t number, const Attributes &attributes)
    {
        return item(id, t().table.listType, nexus(number), attributes);
    }

    // Objects 30 and 31 (numbers 0 and 1, rows 1 and 2) with `attributes`.
    void serveTwo(const Attributes &attributes)
    {
        serveTable(component(30, 0, attributes) + component(31, 1, attributes));
    }

    // The columns 0 to lastColumn + 1 that answer 2 on row 1.
    std::vector<uint32_t> absentAround() { return absentColumns(0, t().lastColumn + 1); }

    // Every column of row `row` answers 2 with the reply's value untouched.
    void expectNoColumns(uint32_t row)
    {
        for (uint32_t column = 0; column <= t().lastColumn + 1; column++) {
            const Answer a = get(column, row);
            EXPECT_EQ(a.result, 2) << "column " << column << ", row " << row;
            EXPECT_EQ(a.value, kUntouched) << "column " << column << ", row " << row;
        }
    }
};

void PrintTo(const ComponentTable &table, std::ostream *out)
{
    *out << table.name;
}

INSTANTIATE_TEST_SUITE_P(Tables, ComponentTableTest,
                         ::testing::Values(kFans, kPowerSupplies, kProbes, kEmms, kBatteries),
                         [](const ::testing::TestParamInfo<ComponentTable> &param) {
                             return std::string(param.param.name);
                         });

TEST_P(ComponentTableTest, RowIndexVendorNameAndNexusAnswerForEveryRow)
{
    serveTwo(t().every);
    for (const uint32_t row : {1u, 2u}) {
        const Answer index = get(1, row);
        EXPECT_EQ(index.result, 0);
        EXPECT_EQ(index.type, kInt);
        EXPECT_EQ(index.value, row);
        EXPECT_TRUE(index.nullBuffer) << "as every integer read";
        const Answer vendor = get(3, row);
        EXPECT_EQ(vendor.result, 0);
        EXPECT_EQ(vendor.type, kStr);
        EXPECT_EQ(vendor.text, "VORN");
        EXPECT_EQ(vendor.value, 4u);
        const Answer name = get(2, row);
        EXPECT_EQ(name.result, 0) << "the service found the object";
        EXPECT_EQ(name.type, kStr);
        EXPECT_EQ(name.text, t().namePrefix + std::to_string(row - 1));
        const Answer nexusText = get(t().nexusColumn, row);
        EXPECT_EQ(nexusText.result, 0);
        EXPECT_EQ(nexusText.text, nexus(row - 1));
    }
}

TEST_P(ComponentTableTest, AFullObjectAnswersEveryColumnTheTableHas)
{
    serveTable(component(30, 0, t().every));
    EXPECT_EQ(absentAround(), sortedUnion(t().absent, {0, t().lastColumn + 1}));
}

// Columns outside the table leave the reply as it was.
TEST_P(ComponentTableTest, ColumnsTheTableDoesNotHaveLeaveTheReplyUntouched)
{
    serveTable(component(30, 0, t().every));
    for (const uint32_t column : sortedUnion(t().absent, {0, t().lastColumn + 1, 1000})) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << column;
        EXPECT_EQ(a.type, kUnsetType) << column;
        EXPECT_EQ(a.value, kUntouched) << column;
        EXPECT_FALSE(a.nullBuffer) << column;
    }
}

// An object with nothing but its nexus: the columns that need no attribute
// (row index, vendor, the probe's unit, the EMM's constant) and those that
// read only the nexus answer from the row's fetch alone; every other column
// fails its read.
TEST_P(ComponentTableTest, AMissingAttributeFailsItsColumnOnly)
{
    serveTable(component(30, 0, {}));
    EXPECT_EQ(absentAround(),
              sortedUnion(sortedUnion(t().absent, t().reading), {0, t().lastColumn + 1}));
    expectNumber(1, 1);
    expectText(3, "VORN");
    expectText(t().nexusColumn, nexus(0));
}

TEST_P(ComponentTableTest, StateColumnAnswersItsRule)
{
    for (const auto &[stored, expected] : t().states) {
        SetUp();
        serveTable(component(30, 0, {{"ObjState", std::to_string(stored)}}));
        const Answer a = get(4);
        EXPECT_EQ(a.result, 0) << stored;
        EXPECT_EQ(a.type, kInt) << stored;
        EXPECT_EQ(a.value, expected) << stored;
        EXPECT_TRUE(a.nullBuffer) << "as every integer read";
    }
}

TEST_P(ComponentTableTest, StateZeroSucceedsWithoutWritingTheNumber)
{
    serveTable(component(30, 0, {{"ObjState", "0"}}));
    const Answer a = get(4);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.type, kInt);
    EXPECT_EQ(a.value, kUntouched);
}

TEST_P(ComponentTableTest, StatusesAreAnsweredPlusOne)
{
    serveTable(component(30, 0, {{"TreeStatus", "2"}, {"ObjStatus", "0"}}));
    expectNumber(t().treeStatusColumn, 3);
    expectNumber(t().treeStatusColumn + 1, 1);
}

TEST_P(ComponentTableTest, EveryCallPrintsTheTablesLogLines)
{
    serveTable(component(30, 0, t().every));
    const std::vector<uint32_t> root = {1,     3,     6, 1,  4,   1,
                                        61234, 20571, 1, 20, 130, t().table.table};
    struct Call {
        const char *what;
        uint32_t column;
        uint32_t row;
        int32_t result;
    };
    const Call calls[] = {
        {"a column answered", 3, 1, 0},
        {"a column the table does not have", t().lastColumn + 1, 1, 2},
        {"a row that does not exist", 1, 2, 2},
    };
    for (const Call &call : calls) {
        DebugCapture capture;
        EXPECT_EQ(get(call.column, call.row).result, call.result) << call.what;
        EXPECT_EQ(capture.text(), t().logLines) << call.what;
    }
    DebugCapture capture;
    EXPECT_EQ(getName(root).result, 2);
    EXPECT_EQ(capture.text(), t().logLines) << "a name without the entry arc";
}

TEST_P(ComponentTableTest, AFailedReadIsLoggedLikeAnyOtherCall)
{
    serveTable(component(30, 0, {}));
    DebugCapture capture;
    EXPECT_EQ(get(4).result, 2);
    EXPECT_EQ(capture.text(), t().logLines);
}

TEST_P(ComponentTableTest, ShortNamesAndRowsOutsideTheListAreAbsent)
{
    serveTable(component(30, 0, t().every));
    std::vector<uint32_t> name = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, t().table.table};
    for (const uint32_t arc : {1u, 3u}) { // the entry arc, then the column
        const Answer a = getName(name);
        EXPECT_EQ(a.result, 2) << name.size() << " arcs";
        EXPECT_EQ(a.value, kUntouched) << name.size() << " arcs";
        name.push_back(arc);
    }
    EXPECT_EQ(getName(name).result, 2) << "no row index";
    name.insert(name.end(), {1, 9, 9});
    const Answer longer = getName(name);
    EXPECT_EQ(longer.result, 0) << "arcs after the row are ignored";
    EXPECT_EQ(longer.text, "VORN");
    for (const uint32_t row : {0u, 2u, 0xFFFFFFFFu}) {
        const Answer a = get(3, row);
        EXPECT_EQ(a.result, 2) << row;
        EXPECT_EQ(a.value, kUntouched) << row;
    }
}

TEST_P(ComponentTableTest, AnEmptyTableHasNoRows)
{
    serveTable("");
    expectNoColumns(1);
}

TEST_P(ComponentTableTest, AnObjectThatLeftTheStoreAnswersNoColumn)
{
    serveTwo(t().every);
    ASSERT_TRUE(kelp::ds::removeObject(30, nullptr));
    expectNoColumns(1);
    // After a rebuild its row is a hole, and the next row keeps its index.
    ASSERT_EQ(buildTable(t().staging, t().table.listType), 0);
    ASSERT_EQ(rebuildTable(t().table.list, t().staging), 0);
    expectNoColumns(1);
    const Answer second = get(1, 2);
    EXPECT_EQ(second.result, 0);
    EXPECT_EQ(second.value, 2u);
}

TEST_P(ComponentTableTest, EveryCallFetchesItsRowAfresh)
{
    serveTable(component(30, 0, {{"TreeStatus", "1"}}) + component(31, 1, {{"TreeStatus", "4"}}));
    expectNumber(t().treeStatusColumn, 2);
    EXPECT_EQ(cachedObjId, 30u);
    ASSERT_TRUE(kelp::ds::setAttribute(30, "TreeStatus", "6", nullptr));
    expectNumber(t().treeStatusColumn, 7); // not the copy in the cache
    const Answer second = get(t().treeStatusColumn, 2);
    EXPECT_EQ(second.value, 5u);
    EXPECT_EQ(cachedObjId, 31u);
}

// The name column answers the service's status, with the reply filled: a
// nexus the service cannot read gives 5 and an empty name.
TEST_P(ComponentTableTest, TheNameColumnReturnsTheServicesStatus)
{
    serveTable(item(30, t().table.listType, "not a nexus", t().every));
    const locationspy::FailingService failing(5);
    const Answer a = get(2);
    EXPECT_EQ(a.result, 5);
    EXPECT_EQ(a.type, kStr);
    EXPECT_EQ(a.text, "");
    EXPECT_FALSE(a.nullBuffer);
    expectText(t().nexusColumn, "not a nexus");
}

} // namespace
