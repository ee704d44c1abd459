// The NVMe adapter and tape tables through getNVMEAdapter and getTape: every
// column, the NVMe table's success for a column it does not have, the
// speeds, and the tape's name and protocol.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "datastore/model_store.h"

#include "platform/evtmsg.h"
#include "store/build.h"
#include "store/tablelist.h"
#include "tables/getters.h"
#include "testing/debug_capture.h"
#include "testing/table_fixture.h"

namespace {

using namespace tabletest;

class NvmeTest : public TableTest {
  protected:
    NvmeTest() : TableTest({getNVMEAdapter, 130, 18, &nvmeList, "NVMeAdapter"}) {}
};

class TapeTest : public TableTest {
  protected:
    TapeTest() : TableTest({getTape, 130, 17, &tapeList, "Tape"}) {}

    void serveTape(const Attributes &attributes)
    {
        serveTable(item(1, "adapters", "0", {}) + item(10, "bus", "0\\1", {}, 1) +
                   item(40, "Tape", "0\\1\\5", attributes, 10));
    }
};

TEST_F(NvmeTest, EveryColumnAnswersItsAttribute)
{
    serveTable(item(60, "NVMeAdapter", "2",
                    {{"ObjState", "4"},
                     {"ControllerNum", "1"},
                     {"Channel", "3"},
                     {"DeviceName", "nvme0"},
                     {"Vendor", "Vorn"},
                     {"ProductID", "VX-9"},
                     {"DeviceSerialNumber", "S123"},
                     {"Revision", "1.2"},
                     {"CurrentDriverVersion", "6.1"},
                     {"PCIBusNo", "65"},
                     {"PCIDeviceNum", "2"},
                     {"PCIFunctionNum", "1"},
                     {"BusProtocol", "9"},
                     {"MediaType", "2"},
                     {"Length", "3145729"},
                     {"DeviceID", "11"},
                     {"ModelNumber", "VX-9 1.6TB"},
                     {"NegotiatedSpeed", "79"},
                     {"CapableSpeed", "160"},
                     {"RemainingRatedWriteEndurance", "98"},
                     {"FormFactor", "3"},
                     {"NVMeSpecVerSupported", "1.4"},
                     {"MaxLinkWidth", "4"},
                     {"NegotiatedLinkWidth", "4"},
                     {"SubVendor", "Vorn OEM"}}));
    const std::pair<uint32_t, uint32_t> numbers[] = {
        {1, 1},  {2, 4},  {3, 1},   {4, 3},  {11, 65}, {12, 2},  {13, 1}, {15, 9}, {16, 2},
        {17, 3}, {18, 1}, {19, 11}, {21, 7}, {22, 16}, {23, 98}, {24, 3}, {26, 4}, {27, 4}};
    for (const auto &[column, value] : numbers) {
        expectNumber(column, value);
    }
    const std::pair<uint32_t, const char *> texts[] = {
        {5, "nvme0"}, {6, "Vorn"}, {7, "VX-9"},        {8, "S123"}, {9, "1.2"},
        {10, "6.1"},  {14, "2"},   {20, "VX-9 1.6TB"}, {25, "1.4"}, {28, "Vorn OEM"}};
    for (const auto &[column, text] : texts) {
        expectText(column, text);
    }
}

TEST_F(NvmeTest, AColumnTheTableDoesNotHaveAnswersSuccessWithTheReplyUntouched)
{
    serveTable(item(60, "NVMeAdapter", "2", {{"ObjState", "4"}}));
    for (const uint32_t column : {0u, 29u, 1000u}) {
        DebugCapture capture;
        const Answer a = get(column);
        EXPECT_EQ(a.result, 0) << column;
        EXPECT_EQ(a.type, kUnsetType) << column;
        EXPECT_EQ(a.value, kUntouched) << column;
        EXPECT_FALSE(a.nullBuffer) << column;
        EXPECT_EQ(capture.text(),
                  "getNVMEAdapter\ngetNVMEAdapter: Entry\ngetNVMEAdapter: curr ID = 1\n");
    }
    EXPECT_EQ(get(29, 2).result, 2) << "a row that does not exist is still absent";
}

TEST_F(NvmeTest, SpeedsAreTenthsWithTheFractionDropped)
{
    const std::pair<const char *, uint32_t> cases[] = {{"79", 7}, {"80", 8}, {"9", 0}, {"0", 0}};
    for (const auto &[speed, expected] : cases) {
        SetUp();
        serveTable(item(60, "NVMeAdapter", "2", {{"NegotiatedSpeed", speed}}));
        expectNumber(21, expected);
    }
    EXPECT_EQ(get(22).result, 2) << "a failed read returns its result";
}

TEST_F(TapeTest, EveryColumnAnswersItsAttribute)
{
    serveTape({{"Vendor", "Vorn"},
               {"ProductID", "LTO-9"},
               {"BusProtocol", "8"},
               {"SASAddress", "5000c500a1b2c3d4"},
               {"MediaType", "3"}});
    expectNumber(1, 1);
    expectText(3, "Vorn");
    expectText(4, "LTO-9");
    expectText(5, "0\\1\\5");
    expectNumber(6, 8);
    expectText(7, "5000c500a1b2c3d4");
    expectNumber(8, 3);
    char location1[EVTMSG_TEXT_SIZE], location2[EVTMSG_TEXT_SIZE], name[EVTMSG_TEXT_SIZE],
        detail[EVTMSG_TEXT_SIZE];
    const auto status = static_cast<int32_t>(evtmsg_getObjLocationStrings(
        774, "0\\1\\5", ",", "en", location1, location2, name, detail, 0));
    expectText(2, name, status);
}

TEST_F(TapeTest, OnlySataAndSasProtocolsAreReported)
{
    const std::pair<const char *, uint32_t> cases[] = {{"7", 7}, {"8", 8}, {"9", 0}, {"1", 0}};
    for (const auto &[protocol, expected] : cases) {
        SetUp();
        serveTape({{"BusProtocol", protocol}});
        expectNumber(6, expected);
    }
    EXPECT_EQ(absentColumns(6, 6), std::vector<uint32_t>{}) << "the last tape has a protocol";
}

TEST_F(TapeTest, ColumnsOutsideOneToEightAreAbsent)
{
    serveTape({{"BusProtocol", "8"}});
    EXPECT_EQ(absentColumns(0, 0), std::vector<uint32_t>{0});
    const Answer nine = get(9);
    EXPECT_EQ(nine.result, 2);
    EXPECT_EQ(nine.value, kUntouched);
}

TEST_F(TapeTest, ATapeThatLeftTheStoreOrARowOutsideTheListIsAbsent)
{
    serveTape({{"BusProtocol", "8"}});
    for (const uint32_t row : {0u, 2u, 0xFFFFFFFFu}) {
        EXPECT_EQ(get(3, row).result, 2) << row;
    }
    testmodel::serve(item(1, "adapters", "0", {}));
    for (uint32_t column = 0; column <= 9; column++) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << column;
        EXPECT_EQ(a.value, kUntouched) << column;
    }
}

TEST_F(NvmeTest, AnAdapterThatLeftTheStoreOrARowOutsideTheListIsAbsent)
{
    serveTable(item(60, "NVMeAdapter", "2", {{"ObjState", "4"}}));
    for (const uint32_t row : {0u, 2u, 0xFFFFFFFFu}) {
        EXPECT_EQ(get(2, row).result, 2) << row;
        EXPECT_EQ(get(29, row).result, 2) << "even a column it does not have, row " << row;
    }
    testmodel::serve(item(1, "adapters", "0", {}));
    EXPECT_EQ(get(2).result, 2);
    EXPECT_EQ(get(29).result, 2);
}

TEST_F(NvmeTest, OddAttributesAreReadAsTheyStand)
{
    serveTable(
        item(60, "NVMeAdapter", "2", {{"DeviceName", ""}, {"Length", "18446744073709551615"}}));
    expectText(5, "");
    expectNumber(17, 0xFFFFFFFFu);
    expectNumber(18, 0xFFFFFu);
}

// ---- The shipped sample model ---------------------------------------------------

TEST_F(TapeTest, TheSampleModelAnswersWhatItsTapeHolds)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(tapeList.length, 1u);
    expectText(3, "KESWICK");
    expectText(4, "KLT-9 HH");
    expectText(5, "1\\1\\3");
    expectNumber(6, 8);
    expectText(7, "500F1E7200000080");
    expectNumber(8, 1);
}

TEST_F(NvmeTest, TheSampleModelAnswersWhatItsAdapterHolds)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(nvmeList.length, 1u);
    expectText(5, "/dev/nvme0n1");
    expectText(6, "TESSALY");
    expectText(28, "VORN");
    expectText(20, "Tessaly TS3200 3.2TB NVMe");
    expectNumber(3, 2);
    expectNumber(11, 101);
    expectNumber(19, 41);
}

} // namespace
