// The channel table through getChan: every column, the PCIe channel's name,
// the protocol map and the controller's target id.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "datastore/model_store.h"

#include "platform/evtmsg.h"
#include "store/build.h"
#include "store/tablelist.h"
#include "tables/getters.h"
#include "testing/debug_capture.h"
#include "testing/location_spy.h"
#include "testing/table_fixture.h"

namespace {

using namespace tabletest;

class ChanTest : public TableTest {
  protected:
    ChanTest() : TableTest({getChan, 130, 2, &chanList, "bus"}) {}

    // Controller 1 ("0", target id 7 unless `controller` says otherwise) with
    // channel 10 ("0\1") of `attributes`.
    void serveChannel(const Attributes &attributes,
                      const Attributes &controller = {{"TargetID", "7"}})
    {
        serveTable(item(1, "adapters", "0", controller) + item(10, "bus", "0\\1", attributes, 1));
    }
};

// The service's name and status for a channel nexus, as getChan must pass
// them on when no rule of its own applies.
std::pair<std::string, int32_t> serviceName(const char *nexus)
{
    char location1[EVTMSG_TEXT_SIZE], location2[EVTMSG_TEXT_SIZE], name[EVTMSG_TEXT_SIZE],
        detail[EVTMSG_TEXT_SIZE];
    const uint32_t status =
        evtmsg_getObjLocationStrings(770, nexus, ",", "en", location1, location2, name, detail, 0);
    return {name, static_cast<int32_t>(status)};
}

TEST_F(ChanTest, EveryColumnAnswersItsAttribute)
{
    serveChannel({{"ObjState", "8"},
                  {"Termination", "2"},
                  {"TreeStatus", "2"},
                  {"ObjStatus", "3"},
                  {"SCSIRate", "12Gbps"},
                  {"BusProtocol", "8"}});
    const std::pair<uint32_t, uint32_t> numbers[] = {{1, 1}, {3, 4}, {5, 2}, {6, 7},
                                                     {7, 3}, {8, 4}, {11, 8}};
    for (const auto &[column, value] : numbers) {
        expectNumber(column, value);
    }
    expectText(9, "0\\1");
    expectText(10, "12Gbps");
    const auto [name, status] = serviceName("0\\1");
    expectText(2, name, status);
}

TEST_F(ChanTest, ColumnsTheTableDoesNotHaveAreAbsent)
{
    serveChannel({{"BusProtocol", "8"}});
    EXPECT_EQ(absentColumns(0, 0), std::vector<uint32_t>{0});
    const Answer four = get(4);
    EXPECT_EQ(four.result, 2);
    EXPECT_EQ(four.value, kUntouched);
    EXPECT_EQ(get(12).result, 2);
    EXPECT_EQ(get(5, 2).result, 2) << "no second row";
}

TEST_F(ChanTest, APcieChannelIsExtenderZeroWheneverTheServiceNamesIt)
{
    serveChannel({{"BusProtocol", "9"}});
    const auto [name, status] = serviceName("0\\1");
    ASSERT_EQ(status, 0) << "the location service names channel 0\\1";
    expectText(2, "Extender 0");
    // Another protocol: the service's own name.
    SetUp();
    serveChannel({{"BusProtocol", "8"}});
    expectText(2, name);
}

TEST_F(ChanTest, APcieChannelTheServiceCannotNameKeepsTheServicesAnswer)
{
    // The service fails: the rule for PCIe channels does not apply.
    serveTable(item(1, "adapters", "0", {}) + item(10, "bus", "0\\1", {{"BusProtocol", "9"}}, 1));
    const locationspy::FailingService failing(5);
    const Answer a = get(2);
    EXPECT_EQ(a.result, 5);
    EXPECT_EQ(a.text, "");
}

TEST_F(ChanTest, TheProtocolMapSendsFiveToSixAndSixToZero)
{
    const std::pair<const char *, uint32_t> cases[] = {{"1", 1}, {"4", 4}, {"5", 6},  {"6", 0},
                                                       {"7", 7}, {"9", 9}, {"10", 0}, {"0", 0}};
    for (const auto &[protocol, expected] : cases) {
        SetUp();
        serveChannel({{"BusProtocol", protocol}});
        expectNumber(11, expected);
    }
    SetUp();
    serveChannel({});
    EXPECT_EQ(get(11).result, 2) << "a failed read returns its result";
}

TEST_F(ChanTest, AChannelWithoutAControllerTargetIdIsAbsentInColumnSix)
{
    serveChannel({}, {});
    DebugCapture capture;
    const Answer a = get(6);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.value, kUntouched);
    EXPECT_EQ(capture.text(), "getChan(): Entry\n") << "no log line of its own";
}

TEST_F(ChanTest, AZeroStateLeavesTheNumberUnset)
{
    serveChannel({{"ObjState", "0"}});
    const Answer a = get(3);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.type, kInt);
    EXPECT_EQ(a.value, kUntouched);
}

TEST_F(ChanTest, RowIndicesOutsideTheListAreAbsent)
{
    serveChannel({{"BusProtocol", "8"}});
    for (const uint32_t row : {0u, 2u, 0xFFFFFFFFu}) {
        EXPECT_EQ(get(9, row).result, 2) << row;
    }
}

TEST_F(ChanTest, AChannelThatLeftTheStoreAfterTheBuildIsAbsent)
{
    serveChannel({{"BusProtocol", "8"}});
    // The list still names object 10; the store no longer has it.
    testmodel::serve(item(1, "adapters", "0", {{"TargetID", "7"}}));
    for (uint32_t column = 0; column <= 12; column++) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << column;
        EXPECT_EQ(a.value, kUntouched) << column;
    }
}

TEST_F(ChanTest, OddAttributesAreReadAsTheyStand)
{
    // An empty protocol and a nexus without a channel's shape: no crash, the
    // service's answer and status are passed on.
    serveTable(item(1, "adapters", "0", {}) + item(10, "bus", "0\\1\\2\\3\\4\\5\\6\\7",
                                                   {{"BusProtocol", ""}, {"SCSIRate", ""}}, 1));
    const auto [name, status] = serviceName("0\\1\\2\\3\\4\\5\\6\\7");
    const Answer a = get(2);
    EXPECT_EQ(a.result, status);
    EXPECT_EQ(a.text, name);
    expectText(10, "");
}

// ---- The shipped sample model ---------------------------------------------------

TEST_F(ChanTest, TheSampleModelAnswersWhatItsChannelsHold)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(chanList.length, 5u);
    const char *nexus[] = {"0\\0", "0\\1", "0\\2", "1\\0", "1\\1"};
    for (uint32_t row = 1; row <= 5; row++) {
        const Answer name = get(2, row);
        EXPECT_EQ(name.result, 0) << row;
        if (row == 3) {
            EXPECT_EQ(name.text, "Extender 0") << "the PCIe channel";
        } else {
            EXPECT_EQ(name.text, serviceName(nexus[row - 1]).first) << row;
        }
        const Answer n = get(9, row);
        EXPECT_EQ(n.text, nexus[row - 1]);
        EXPECT_EQ(get(11, row).value, row == 3 ? 9u : 8u);
        EXPECT_EQ(get(6, row).value, row <= 3 ? 7u : 5u) << "the controller's TargetID";
    }
}

} // namespace
