// The connection tables through their getters: array disk to virtual disk
// (140.3), to enclosure (130.5) and to channel (130.6); fan, power supply,
// temperature probe and EMM to enclosure (130.8, 130.10, 130.12, 130.14);
// battery to controller (130.16). Every column of each, the partners that
// are missing or have left their lists, the log lines, and the rows the
// request names badly.
#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/evtmsg.h"
#include "platform/vcsupt.h"
#include "store/build.h"
#include "store/tablelist.h"
#include "tables/conn.h"
#include "tables/getters.h"
#include "testing/debug_capture.h"
#include "testing/location_spy.h"
#include "testing/table_fixture.h"

namespace {

using namespace tabletest;
using testmodel::link;

// A server with two controllers: a backplane (type 2) and an external
// enclosure (type 3) on two channels of the first, disks in each and two
// straight on a channel, two virtual disks, and the first enclosure's and
// the second's components; the battery belongs to the first controller.
struct Ids {
    uint32_t firstEnclosure = 5;
    uint32_t secondEnclosure = 6;
    uint32_t diskTwelveParent = 4; // a channel: no enclosure
};

std::string connModel(const Ids &ids = {})
{
    const std::string e1 = std::to_string(ids.firstEnclosure);
    return item(1, "adapters", "0", {{"Name", "Vorn RX-240"}}) +
           item(2, "adapters", "1", {{"Name", "Vorn HX-120"}}) + item(3, "bus", "0\\0", {}, 1) +
           item(4, "bus", "0\\1", {}, 1) +
           item(ids.firstEnclosure, "enclosures", "0\\0\\0",
                {{"EnclosureType", "2"}, {"ProductID", "BP-8"}}, 3) +
           item(ids.secondEnclosure, "enclosures", "0\\1\\0",
                {{"EnclosureType", "3"}, {"ProductID", "MD-1400"}}, 4) +
           item(10, "arraydisks", "0\\0\\0\\4",
                {{"BusProtocol", "8"}, {"AttributesMask", mask({22})}}, ids.firstEnclosure) +
           item(11, "arraydisks", "0\\1\\0\\2",
                {{"BusProtocol", "9"}, {"AttributesMask", mask({22})}}, ids.secondEnclosure) +
           item(12, "arraydisks", ids.diskTwelveParent == 4 ? "0\\1\\3" : "0\\0\\0\\9",
                {{"BusProtocol", "8"}, {"AttributesMask", mask({})}}, ids.diskTwelveParent) +
           item(13, "arraydisks", "0\\0\\5", {{"BusProtocol", "7"}, {"AttributesMask", mask({22})}},
                3) +
           item(20, "vdisks", "0\\128\\1", {{"Name", "Data"}}, 1) +
           item(21, "vdisks", "0\\128\\2", {{"Name", "Logs"}}, 1) + link(10, 20) + link(11, 20) +
           link(12, 21) + item(30, "fans", "0\\0\\0\\1\\1", {}, ids.firstEnclosure) +
           item(31, "psupplies", "0\\0\\0\\2\\1", {}, ids.firstEnclosure) +
           item(32, "psupplies", "0\\1\\0\\2\\1", {{"ProductVersion", "A05"}},
                ids.secondEnclosure) +
           item(33, "tempprobes", "0\\1\\0\\3\\1", {}, ids.secondEnclosure) +
           item(34, "emms", "0\\1\\0\\4\\1", {}, ids.secondEnclosure) +
           item(40, "batteries", "0\\64\\0", {}, 1);
}

// What the location-string service names (objType, nexus).
std::string serviceName(uint32_t objType, const char *nexus)
{
    std::array<char, EVTMSG_TEXT_SIZE> location1{}, location2{}, name{}, detail{};
    evtmsg_getObjLocationStrings(objType, nexus, ",", "en", location1.data(), location2.data(),
                                 name.data(), detail.data(), 0);
    return name.data();
}

class ConnTest : public ModelTest {
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        locationspy::calls().clear();
    }

    void serveModel(const std::string &items)
    {
        testmodel::serve(items);
        ASSERT_EQ(buildAll(), 0);
    }

    // The getter on root.group.table.1.column.row.
    Answer ask(Getter getter, uint32_t group, uint32_t table, uint32_t column, uint32_t row)
    {
        return callGetter(getter,
                          {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, group, table, 1, column, row},
                          &buffer_);
    }

    // The type code of the one call of the location service since the last
    // clear, or 0.
    static uint32_t onlyCodeAsked()
    {
        const auto &calls = locationspy::calls();
        return calls.size() == 1 ? calls[0].objType : 0;
    }

  private:
    std::array<char, 1024> buffer_{};
};

void expectNumber(const Answer &a, uint32_t number)
{
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.type, kInt);
    EXPECT_EQ(a.value, number);
}

void expectText(const Answer &a, const std::string &text)
{
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.type, kStr);
    EXPECT_EQ(a.text, text);
    EXPECT_EQ(a.value, text.size());
}

// ---- Array disk to enclosure (130.5) -------------------------------------------

TEST_F(ConnTest, DiskToEnclosureAnswersEveryColumn)
{
    serveModel(connModel());
    ASSERT_EQ(adEnclConnList.length, 2u);
    const auto ask5 = [&](uint32_t column, uint32_t row) {
        return ask(getADEnclConn, 130, 5, column, row);
    };
    expectNumber(ask5(1, 1), 1);
    expectText(ask5(2, 1), serviceName(783, "0\\0\\0\\4"));
    expectNumber(ask5(3, 1), 1);
    expectText(ask5(4, 1), "Backplane");
    expectNumber(ask5(5, 1), 1);
    expectText(ask5(6, 1), "Vorn RX-240");
    expectNumber(ask5(7, 1), 1);
    expectNumber(ask5(1, 2), 2);
    expectNumber(ask5(3, 2), 2);
    expectNumber(ask5(5, 2), 2);
}

TEST_F(ConnTest, ABackplaneIsNamedSoAndAnyOtherEnclosureByItsProductId)
{
    serveModel(connModel());
    expectText(ask(getADEnclConn, 130, 5, 4, 1), "Backplane"); // type 2
    expectText(ask(getADEnclConn, 130, 5, 4, 2), "MD-1400");   // type 3
}

TEST_F(ConnTest, EnclosureTypeOneIsABackplaneTooAndAnUnreadableTypeIsNot)
{
    for (const char *type : {"1", "abc", ""}) {
        serveModel(
            item(1, "adapters", "0", {}) + item(3, "bus", "0\\0", {}, 1) +
            item(5, "enclosures", "0\\0\\0", {{"EnclosureType", type}, {"ProductID", "X"}}, 3) +
            item(10, "arraydisks", "0\\0\\0\\4", {{"AttributesMask", mask({})}}, 5));
        expectText(ask(getADEnclConn, 130, 5, 4, 1), std::string(type) == "1" ? "Backplane" : "X");
        freeAllLists();
    }
}

TEST_F(ConnTest, DiskNamesInTheEnclosureTableTakeThePcieCodeFirst)
{
    serveModel(connModel());
    // "BusProtocol" 8 and mask position 22 set: 783.
    locationspy::calls().clear();
    ask(getADEnclConn, 130, 5, 2, 1);
    EXPECT_EQ(onlyCodeAsked(), 783u);
    // "BusProtocol" 9: 785, whatever position 22 says.
    locationspy::calls().clear();
    const Answer pcie = ask(getADEnclConn, 130, 5, 2, 2);
    EXPECT_EQ(onlyCodeAsked(), 785u);
    expectText(pcie, serviceName(785, "0\\1\\0\\2"));
    EXPECT_NE(pcie.text, serviceName(783, "0\\1\\0\\2"));
}

TEST_F(ConnTest, ADiskWithoutAMaskIsNotNamed)
{
    serveModel(item(1, "adapters", "0", {}) + item(3, "bus", "0\\0", {}, 1) +
               item(5, "enclosures", "0\\0\\0", {{"EnclosureType", "2"}}, 3) +
               item(10, "arraydisks", "0\\0\\0\\4", {{"BusProtocol", "9"}}, 5));
    EXPECT_EQ(ask(getADEnclConn, 130, 5, 2, 1).result, 2);
    EXPECT_TRUE(locationspy::calls().empty());
}

TEST_F(ConnTest, DiskToEnclosureLogsAMissingOrUnlistedPartner)
{
    // The disk's enclosure and controller are in the store under ids the
    // lists do not hold: a model loaded without a rebuild.
    serveModel(connModel());
    testmodel::serve(connModel({.firstEnclosure = 7}));
    {
        DebugCapture log;
        EXPECT_EQ(ask(getADEnclConn, 130, 5, 5, 1).result, 2);
        EXPECT_EQ(log.text(), "getADEnclConn: Entry\n"
                              "getADEnclConn(): llist NULL => dataOID not found in list\n"
                              "getADEnclConn: Exit\n");
    }
    // Without an enclosure at all: columns 4 and 5.
    testmodel::serve(item(1, "adapters", "0", {}) + item(10, "arraydisks", "0\\0\\0\\4", {}));
    DebugCapture missing;
    EXPECT_EQ(ask(getADEnclConn, 130, 5, 4, 1).result, 2);
    EXPECT_EQ(ask(getADEnclConn, 130, 5, 5, 1).result, 2);
    EXPECT_EQ(ask(getADEnclConn, 130, 5, 6, 1).result, 2);
    EXPECT_EQ(missing.text(), "getADEnclConn: Entry\n"
                              "getADEnclConn(): assocData is NULL\n"
                              "getADEnclConn: Exit\n"
                              "getADEnclConn: Entry\n"
                              "getADEnclConn(): assocData is NULL\n"
                              "getADEnclConn: Exit\n"
                              "getADEnclConn: Entry\n"
                              "getADEnclConn(): assocData is NULL\n"
                              "getADEnclConn: Exit\n");
}

// ---- Array disk to channel (130.6) ---------------------------------------------

TEST_F(ConnTest, DiskToChannelAnswersEveryColumnOfADiskWithoutEnclosure)
{
    serveModel(connModel());
    ASSERT_EQ(adChanConnList.length, 2u);
    const auto ask6 = [&](uint32_t column, uint32_t row) {
        return ask(getADChanConn, 130, 6, column, row);
    };
    // Disk 12 on channel 0\1, disk 13 on channel 0\0.
    expectNumber(ask6(1, 1), 1);
    locationspy::calls().clear();
    expectText(ask6(2, 1), serviceName(772, "0\\1\\3"));
    EXPECT_EQ(locationspy::calls().front().objType, 772u);
    locationspy::calls().clear();
    ask6(2, 2);
    EXPECT_EQ(onlyCodeAsked(), 783u);
    expectNumber(ask6(3, 2), 2);
    expectText(ask6(4, 1), serviceName(770, "0\\1"));
    expectText(ask6(4, 2), serviceName(770, "0\\0"));
    expectNumber(ask6(5, 1), 2);
    expectNumber(ask6(5, 2), 1);
    expectText(ask6(6, 1), "Vorn RX-240");
    expectNumber(ask6(7, 1), 1);
}

TEST_F(ConnTest, ADiskInAnEnclosureAnswersSuccessWithTheReplyUntouched)
{
    serveModel(connModel());
    // Disk 12 moved into the backplane since the list was built.
    testmodel::serve(connModel({.diskTwelveParent = 5}));
    for (const uint32_t column : std::initializer_list<uint32_t>{1, 2, 3, 4, 5, 6, 7, 8, 0}) {
        DebugCapture log;
        const Answer a = ask(getADChanConn, 130, 6, column, 1);
        EXPECT_EQ(a.result, 0) << column;
        EXPECT_EQ(a.type, kUnsetType) << column;
        EXPECT_EQ(a.value, kUntouched) << column;
        EXPECT_FALSE(a.nullBuffer) << column;
        EXPECT_EQ(log.text(), "getADChanConn: ENTRY\ngetADChanConn: Exit\n") << column;
    }
    EXPECT_TRUE(locationspy::calls().empty());
    // Disk 13 still has no enclosure and is answered.
    expectNumber(ask(getADChanConn, 130, 6, 1, 2), 2);
}

TEST_F(ConnTest, AChannelTheServiceCannotNameKeepsItsNexus)
{
    // A channel the service fails to name: the reply holds the nexus and the
    // service's status is the result.
    serveModel(item(1, "adapters", "0", {}) + item(3, "bus", "7\\7\\7", {}, 1) +
               item(12, "arraydisks", "0\\0\\3", {{"AttributesMask", mask({})}}, 3));
    const locationspy::FailingService failing(5);
    const Answer a = ask(getADChanConn, 130, 6, 4, 1);
    EXPECT_EQ(a.result, 5);
    EXPECT_EQ(a.type, kStr);
    EXPECT_EQ(a.text, "7\\7\\7");
}

TEST_F(ConnTest, DiskToChannelLogsOnlyForTheChannelRow)
{
    // No channel and no controller: columns 4, 6 and 7 fail quietly, 5 logs.
    serveModel(item(12, "arraydisks", "0\\0\\3", {{"AttributesMask", mask({})}}));
    {
        DebugCapture log;
        for (const uint32_t column : std::initializer_list<uint32_t>{4, 5, 6, 7}) {
            EXPECT_EQ(ask(getADChanConn, 130, 6, column, 1).result, 2) << column;
        }
        const std::string frame = "getADChanConn: ENTRY\ngetADChanConn: Exit\n";
        EXPECT_EQ(log.text(), frame +
                                  "getADChanConn: ENTRY\ngetADChanConn(): assocData is NULL\n"
                                  "getADChanConn: Exit\n" +
                                  frame + frame);
    }
    // A channel the list does not hold.
    freeAllLists();
    serveModel(item(1, "adapters", "0", {}) + item(3, "bus", "0\\0", {}, 1) +
               item(12, "arraydisks", "0\\0\\3", {{"AttributesMask", mask({})}}, 3));
    testmodel::serve(item(1, "adapters", "0", {}) + item(8, "bus", "0\\0", {}, 1) +
                     item(12, "arraydisks", "0\\0\\3", {{"AttributesMask", mask({})}}, 8));
    DebugCapture unlisted;
    EXPECT_EQ(ask(getADChanConn, 130, 6, 5, 1).result, 2);
    EXPECT_EQ(unlisted.text(), "getADChanConn: ENTRY\n"
                               "getADChanConn(): llist NULL => dataOID not found in list\n"
                               "getADChanConn: Exit\n");
}

// ---- Array disk to virtual disk (140.3) ------------------------------------------

TEST_F(ConnTest, DiskToVirtualDiskAnswersEveryColumn)
{
    serveModel(connModel());
    ASSERT_EQ(adLogConnList.length, 3u);
    const auto ask3 = [&](uint32_t column, uint32_t row) {
        return ask(getADLogConn, 140, 3, column, row);
    };
    expectNumber(ask3(1, 1), 1);
    locationspy::calls().clear();
    expectText(ask3(2, 1), serviceName(783, "0\\0\\0\\4"));
    EXPECT_EQ(locationspy::calls().front().objType, 783u);
    // Disk 11 is a PCIe SSD, but this table does not name it so.
    locationspy::calls().clear();
    ask3(2, 2);
    EXPECT_EQ(onlyCodeAsked(), 783u);
    expectNumber(ask3(3, 1), 1);
    expectNumber(ask3(3, 3), 3);
    expectText(ask3(4, 1), "Data");
    expectText(ask3(4, 3), "Logs");
    expectNumber(ask3(5, 1), 1);
    expectNumber(ask3(5, 2), 1);
    expectNumber(ask3(5, 3), 2);
    EXPECT_EQ(ask3(6, 1).result, 2);
}

TEST_F(ConnTest, ARowPastTheEndOfThePairsFallsBackToTheDiskItself)
{
    serveModel(connModel());
    {
        DebugCapture log;
        EXPECT_EQ(tables::logConnVirtualDisk(1, 10), 20u);
        EXPECT_EQ(tables::logConnVirtualDisk(3, 12), 21u);
        EXPECT_EQ(log.text(), "");
    }
    for (const uint32_t row : std::initializer_list<uint32_t>{4, 0, 4294967295u}) {
        DebugCapture log;
        EXPECT_EQ(tables::logConnVirtualDisk(row, 10), 10u) << row;
        EXPECT_EQ(log.text(), "getADLogConn(): ADLOGCONN_VDNAME_OID is NULL\n") << row;
    }
}

TEST_F(ConnTest, DiskToVirtualDiskWhenAPartnerHasLeftItsList)
{
    serveModel(connModel());
    freeList(&vdList);
    {
        DebugCapture log;
        EXPECT_EQ(ask(getADLogConn, 140, 3, 5, 1).result, 2);
        EXPECT_EQ(log.text(), "getADLogConn: Entry\n"
                              "getADLogConn(): llist NULL => data not found in list\n"
                              "getADLogConn: Exit\n");
    }
    // The name is asked of the store, not of the list.
    expectText(ask(getADLogConn, 140, 3, 4, 1), "Data");
    freeList(&adList);
    DebugCapture quiet;
    EXPECT_EQ(ask(getADLogConn, 140, 3, 3, 1).result, 2);
    EXPECT_EQ(quiet.text(), "getADLogConn: Entry\ngetADLogConn: Exit\n");
}

TEST_F(ConnTest, AVirtualDiskGoneFromTheStoreHasNoName)
{
    serveModel(connModel());
    std::string without = connModel();
    const std::string data = item(20, "vdisks", "0\\128\\1", {{"Name", "Data"}}, 1);
    without.erase(without.find(data), data.size());
    without.erase(without.find(link(10, 20)), link(10, 20).size());
    without.erase(without.find(link(11, 20)), link(11, 20).size());
    testmodel::serve(without);
    EXPECT_EQ(ask(getADLogConn, 140, 3, 4, 1).result, 2);
    // Its row is the list's until the tables are rebuilt.
    expectNumber(ask(getADLogConn, 140, 3, 5, 1), 1);
    expectText(ask(getADLogConn, 140, 3, 4, 3), "Logs");
}

// ---- Components to enclosure, battery to controller -------------------------

struct ComponentTable {
    Getter getter;
    uint32_t table;
    uint32_t code;
    const char *nexus;
    const char *enclosure; // product id; the battery: controller name
    uint32_t partnerRow;
};

const ComponentTable kComponents[] = {
    {getFanEnclConn, 8, 777, "0\\0\\0\\1\\1", "BP-8", 1},
    {getPwrEnclConn, 10, 779, "0\\0\\0\\2\\1", "BP-8", 1},
    {getTempEnclConn, 12, 778, "0\\1\\0\\3\\1", "MD-1400", 2},
    {getEMMEnclConn, 14, 780, "0\\1\\0\\4\\1", "MD-1400", 2},
    {getBatteryCtrlConn, 16, 771, "0\\64\\0", "Vorn RX-240", 1},
};

TEST_F(ConnTest, ComponentsAnswerEveryColumn)
{
    serveModel(connModel());
    for (const ComponentTable &t : kComponents) {
        SCOPED_TRACE(t.table);
        expectNumber(ask(t.getter, 130, t.table, 1, 1), 1);
        locationspy::calls().clear();
        expectText(ask(t.getter, 130, t.table, 2, 1), serviceName(t.code, t.nexus));
        EXPECT_EQ(locationspy::calls().front().objType, t.code);
        expectNumber(ask(t.getter, 130, t.table, 3, 1), 1);
        expectText(ask(t.getter, 130, t.table, 4, 1), t.enclosure);
        expectNumber(ask(t.getter, 130, t.table, 5, 1), t.partnerRow);
        const uint32_t past = t.table == 10 ? 7 : 6;
        EXPECT_EQ(ask(t.getter, 130, t.table, past, 1).result, 2);
        EXPECT_EQ(ask(t.getter, 130, t.table, 0, 1).result, 2);
    }
    // The second power supply is in the second enclosure.
    expectNumber(ask(getPwrEnclConn, 130, 10, 5, 2), 2);
    expectText(ask(getPwrEnclConn, 130, 10, 4, 2), "MD-1400");
}

TEST_F(ConnTest, APowerSupplyWithoutFirmwareRevisionIsNotAvailable)
{
    serveModel(connModel());
    DebugCapture log;
    const Answer none = ask(getPwrEnclConn, 130, 10, 6, 1);
    expectText(none, "Not Available");
    EXPECT_EQ(none.value, 13u);
    EXPECT_TRUE(none.ownBuffer);
    EXPECT_EQ(log.text(), "getPwrEnclConn: Entry\n"
                          "getPwrEnclConn:: PWRCONN_PSU_FIRMWARE_REV entry\n"
                          "getPwrEnclConn:: PWRCONN_PSU_FIRMWARE_REV  = Not Available\n"
                          "getPwrEnclConn:: PWRCONN_PSU_FIRMWARE_REV exit\n"
                          "getPwrEnclConn: Exit\n");
    const Answer a05 = ask(getPwrEnclConn, 130, 10, 6, 2);
    expectText(a05, "A05");
    EXPECT_TRUE(a05.ownBuffer);
}

TEST_F(ConnTest, AnEmptyFirmwareRevisionIsNotAvailableEither)
{
    serveModel(item(1, "adapters", "0", {}) +
               item(31, "psupplies", "0\\0\\0\\2\\1", {{"ProductVersion", ""}}, 1));
    expectText(ask(getPwrEnclConn, 130, 10, 6, 1), "Not Available");
}

TEST_F(ConnTest, AnOversizedFirmwareRevisionIsAnsweredWhole)
{
    const std::string longest(159, 'r');
    serveModel(item(1, "adapters", "0", {}) +
               item(31, "psupplies", "0\\0\\0\\2\\1", {{"ProductVersion", longest}}, 1));
    expectText(ask(getPwrEnclConn, 130, 10, 6, 1), longest);
}

TEST_F(ConnTest, AnEnclosureNoLongerInTheListLeavesComponentsWithoutARow)
{
    serveModel(connModel());
    // The same model, with both enclosures under new ids: the store has them,
    // the enclosure list (not rebuilt) does not.
    testmodel::serve(connModel({.firstEnclosure = 7, .secondEnclosure = 8}));
    DebugCapture log;
    EXPECT_EQ(ask(getFanEnclConn, 130, 8, 5, 1).result, 2);
    EXPECT_EQ(ask(getTempEnclConn, 130, 12, 5, 1).result, 2);
    EXPECT_EQ(ask(getEMMEnclConn, 130, 14, 5, 1).result, 2);
    EXPECT_EQ(ask(getPwrEnclConn, 130, 10, 5, 1).result, 2);
    EXPECT_EQ(log.text(), "getFanEnclConn: Exit\ngetFanEnclConn: Exit\n"
                          "getTempEnclConn: Entry\n"
                          "getTempEnclConn(): llist NULL => dataOID not found in list\n"
                          "getTempEnclConn: Exit\n"
                          "getEMMEnclConn: Entry\n"
                          "getEMMEnclConn: llist NULL => dataOID not found in list\n"
                          "getEMMEnclConn: Exit\n"
                          "getPwrEnclConn: Entry\ngetPwrEnclConn: Exit\n");
    // The product id is still the store's.
    expectText(ask(getFanEnclConn, 130, 8, 4, 1), "BP-8");
}

TEST_F(ConnTest, ComponentsWithoutAnEnclosureLogAsEachTableDoes)
{
    // Every component straight under the controller.
    serveModel(item(1, "adapters", "0", {}) + item(30, "fans", "0\\0\\0\\1\\1", {}, 1) +
               item(31, "psupplies", "0\\0\\0\\2\\1", {}, 1) +
               item(33, "tempprobes", "0\\1\\0\\3\\1", {}, 1) +
               item(34, "emms", "0\\1\\0\\4\\1", {}, 1));
    const auto lines = [&](Getter getter, uint32_t table) {
        DebugCapture log;
        EXPECT_EQ(ask(getter, 130, table, 4, 1).result, 2);
        EXPECT_EQ(ask(getter, 130, table, 5, 1).result, 2);
        return log.text();
    };
    EXPECT_EQ(lines(getFanEnclConn, 8), "getFanEnclConn: Exit\n"
                                        "getFanEnclConn(): assocData is NULL\n"
                                        "getFanEnclConn: Exit\n"
                                        "getFanEnclConn: Exit\ngetFanEnclConn: Exit\n");
    EXPECT_EQ(lines(getPwrEnclConn, 10), "getPwrEnclConn: Entry\ngetPwrEnclConn: Exit\n"
                                         "getPwrEnclConn: Entry\ngetPwrEnclConn: Exit\n");
    EXPECT_EQ(lines(getTempEnclConn, 12), "getTempEnclConn: Entry\n"
                                          "getTempEnclConn(): assocData is NULL\n"
                                          "getTempEnclConn: Exit\n"
                                          "getTempEnclConn: Entry\n"
                                          "getTempEnclConn(): assocData is NULL\n"
                                          "getTempEnclConn: Exit\n");
    EXPECT_EQ(lines(getEMMEnclConn, 14), "getEMMEnclConn: Entry\ngetEMMEnclConn: Exit\n"
                                         "getEMMEnclConn: Entry\n"
                                         "getEMMEnclConn: assocData is NULL\n"
                                         "getEMMEnclConn: Exit\n");
}

TEST_F(ConnTest, ABatteryWhoseControllerLeftTheListHasNoRow)
{
    serveModel(connModel());
    freeList(&ctrlList);
    DebugCapture log;
    EXPECT_EQ(ask(getBatteryCtrlConn, 130, 16, 5, 1).result, 2);
    expectText(ask(getBatteryCtrlConn, 130, 16, 4, 1), "Vorn RX-240");
    EXPECT_EQ(log.text(), "getBatteryCtrlConn: Entry\ngetBatteryCtrlConn: Exit\n"
                          "getBatteryCtrlConn: Entry\ngetBatteryCtrlConn: Exit\n");
}

// ---- Rows the request names badly, objects gone ---------------------------------

struct AnyTable {
    Getter getter;
    uint32_t group;
    uint32_t table;
    uint32_t lastColumn;
};

const AnyTable kAllTables[] = {
    {getADEnclConn, 130, 5, 7},       {getADChanConn, 130, 6, 7},    {getFanEnclConn, 130, 8, 5},
    {getPwrEnclConn, 130, 10, 6},     {getTempEnclConn, 130, 12, 5}, {getEMMEnclConn, 130, 14, 5},
    {getBatteryCtrlConn, 130, 16, 5}, {getADLogConn, 140, 3, 5},
};

TEST_F(ConnTest, RowsOutsideTheListsAreAbsent)
{
    serveModel(connModel());
    for (const AnyTable &t : kAllTables) {
        for (const uint32_t row : std::initializer_list<uint32_t>{0, 9, 4294967295u}) {
            for (uint32_t column = 1; column <= t.lastColumn; column++) {
                const Answer a = ask(t.getter, t.group, t.table, column, row);
                EXPECT_EQ(a.result, 2) << t.table << "." << column << "." << row;
                EXPECT_EQ(a.type, kUnsetType);
            }
        }
        EXPECT_EQ(ask(t.getter, t.group, t.table, t.lastColumn + 1, 1).result, 2) << t.table;
    }
}

TEST_F(ConnTest, AShortNameIsAbsent)
{
    serveModel(connModel());
    std::vector<uint32_t> arcs{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 8, 1, 1};
    SMSnmpValue request{};
    request.name = SMSnmpOID{static_cast<uint32_t>(arcs.size()), 0, arcs.data()};
    SMSnmpValue reply{};
    for (const Getter getter :
         {getADEnclConn, getADChanConn, getFanEnclConn, getPwrEnclConn, getTempEnclConn,
          getEMMEnclConn, getBatteryCtrlConn, getADLogConn}) {
        EXPECT_EQ(getter(&request, &reply, 12), 2);
    }
}

TEST_F(ConnTest, ObjectsGoneFromTheStoreAreAbsentInEveryColumn)
{
    serveModel(connModel());
    testmodel::serve(item(99, "adapters", "9", {}));
    for (const AnyTable &t : kAllTables) {
        for (uint32_t column = 1; column <= t.lastColumn; column++) {
            EXPECT_EQ(ask(t.getter, t.group, t.table, column, 1).result, 2)
                << t.table << "." << column;
        }
    }
}

TEST_F(ConnTest, EachTableLogsItsEntryAndExit)
{
    serveModel(connModel());
    const auto frame = [&](Getter getter, uint32_t group, uint32_t table) {
        DebugCapture log;
        ask(getter, group, table, 1, 1);
        return log.text();
    };
    EXPECT_EQ(frame(getADLogConn, 140, 3), "getADLogConn: Entry\ngetADLogConn: Exit\n");
    EXPECT_EQ(frame(getADEnclConn, 130, 5), "getADEnclConn: Entry\ngetADEnclConn: Exit\n");
    EXPECT_EQ(frame(getADChanConn, 130, 6), "getADChanConn: ENTRY\ngetADChanConn: Exit\n");
    EXPECT_EQ(frame(getFanEnclConn, 130, 8), "getFanEnclConn: Exit\ngetFanEnclConn: Exit\n");
    EXPECT_EQ(frame(getPwrEnclConn, 130, 10), "getPwrEnclConn: Entry\ngetPwrEnclConn: Exit\n");
    EXPECT_EQ(frame(getTempEnclConn, 130, 12), "getTempEnclConn: Entry\ngetTempEnclConn: Exit\n");
    EXPECT_EQ(frame(getEMMEnclConn, 130, 14), "getEMMEnclConn: Entry\ngetEMMEnclConn: Exit\n");
    EXPECT_EQ(frame(getBatteryCtrlConn, 130, 16),
              "getBatteryCtrlConn: Entry\ngetBatteryCtrlConn: Exit\n");
}

} // namespace
