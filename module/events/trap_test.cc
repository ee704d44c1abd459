// The trap sender: the bindings of ordinary and short events, the row name
// of an object in the live tables, the extended fields and service tags,
// aggregation, and every allocation failure.
#include "events/trap.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "datastore/model_store.h"
#include "events/workers.h"
#include "evtmsg/catalogue.h"
#include "frame/state.h"
#include "kelp/runtime.h"
#include "mib/registry.h"
#include "platform/queue.h"
#include "platform/smsnmp.h"
#include "platform/vcsupt.h"
#include "store/tablelist.h"
#include "testing/debug_capture.h"
#include "testing/model_fixture.h"
#include "testing/test_spy.h"

namespace {

// What the framework's trap send was given, copied while the call lasts.
struct SentBinding {
    std::vector<uint32_t> name;
    uint32_t type = 0;
    uint32_t value = 0;
    std::string text;
};

struct SentTrap {
    std::vector<uint32_t> enterprise;
    uint64_t handle = 0;
    uint32_t generic = 0;
    uint32_t specific = 0;
    std::vector<SentBinding> bindings;
};

std::vector<SentTrap> g_sent;
uint32_t g_sendAnswer = 0;

uint32_t recordTrap(uint64_t handle, const SMSnmpOID *enterprise, uint32_t generic,
                    uint32_t specific, uint32_t bindingCount, SMSnmpValue *bindings)
{
    SentTrap trap;
    trap.handle = handle;
    trap.enterprise.assign(enterprise->arcs, enterprise->arcs + enterprise->count);
    trap.generic = generic;
    trap.specific = specific;
    for (uint32_t i = 0; i < bindingCount; i++) {
        const SMSnmpValue &b = bindings[i];
        SentBinding sent;
        sent.name.assign(b.name.arcs, b.name.arcs + b.name.count);
        sent.type = b.type;
        sent.value = b.value;
        if (b.type == SM_ASN_OCTET_STRING && b.value != 0) {
            sent.text.assign(static_cast<const char *>(b.buffer), b.value);
        }
        trap.bindings.push_back(sent);
    }
    g_sent.push_back(trap);
    return g_sendAnswer;
}

void *g_services[SM_SERVICE_COUNT];

const std::vector<uint32_t> kPrefix = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200};

std::vector<uint32_t> bindingName(uint32_t n)
{
    std::vector<uint32_t> name = kPrefix;
    name.push_back(n);
    name.push_back(0);
    return name;
}

std::string rowName(uint32_t group, uint32_t table, uint32_t index)
{
    return "1.3.6.1.4.1.61234.20571.1.20." + std::to_string(group) + "." + std::to_string(table) +
           ".1.1." + std::to_string(index);
}

// An event text of the given elements.
std::string event(std::initializer_list<std::pair<const char *, std::string>> elements)
{
    std::string text = "<Event>";
    for (const auto &[tag, value] : elements) {
        text += std::string("<") + tag + ">" + value + "</" + tag + ">";
    }
    return text + "</Event>";
}

class TrapTest : public ModelTest {
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        char pattern[] = "/tmp/kelp-trap-XXXXXX";
        dir_ = mkdtemp(pattern);
        kelpRuntimeSetIniPath((dir_ + "/kelp.ini").c_str());
        g_sent.clear();
        g_sendAnswer = 0;
        g_services[SM_SERVICE_TRAP_SEND] = reinterpret_cast<void *>(recordTrap);
        g_FrameworkServices = g_services;
        g_FrameworkHandle = 77;
        g_bAggregateEvents = 0;
        EventAggregateInteval = 0;
        freeEventMaps();
        kelp::testspy::reset();
    }

    void TearDown() override
    {
        kelp::testspy::reset();
        freeEventMaps();
        g_bAggregateEvents = 0;
        EventAggregateInteval = 0;
        g_FrameworkServices = nullptr;
        g_FrameworkHandle = 0;
        kelpRuntimeSetIniPath(nullptr);
        std::filesystem::remove_all(dir_);
        ModelTest::TearDown();
    }

    void extendedMessages() const
    {
        std::ofstream(dir_ + "/kelp.ini") << "[vcsipe]\nExtendedSNMPMessages=On\n";
    }

    static void serveTags(const std::string &attributes)
    {
        std::string error;
        ASSERT_TRUE(kelp::ds::loadModelText("<storage ready=\"1\" " + attributes + "></storage>",
                                            "tags", &error))
            << error;
    }

    // The first node of a live list, for an object the sample model has.
    static const ObjNode &firstOf(const ObjList &list)
    {
        EXPECT_NE(list.head, nullptr);
        return *list.head;
    }

    const SentTrap &onlyTrap() const
    {
        EXPECT_EQ(g_sent.size(), 1u);
        return g_sent.front();
    }

    std::string dir_;
};

TEST_F(TrapTest, ShortEventWithoutExtendedMessagesHasExactlyTheFirstTwoBindings)
{
    ASSERT_EQ(KelpmibSendTrap(901, 2135, event({{"Parm01", "/tmp/cfg"}}).c_str(), 0), 0u);
    const SentTrap &trap = onlyTrap();
    EXPECT_EQ(trap.enterprise, kPrefix);
    EXPECT_EQ(trap.handle, 77u);
    EXPECT_EQ(trap.generic, 6u);
    EXPECT_EQ(trap.specific, 901u);
    ASSERT_EQ(trap.bindings.size(), 2u);
    EXPECT_EQ(trap.bindings[0].name, bindingName(1));
    EXPECT_EQ(trap.bindings[0].type, 2u);
    EXPECT_EQ(trap.bindings[0].value, 2135u);
    EXPECT_EQ(trap.bindings[1].name, bindingName(2));
    EXPECT_EQ(trap.bindings[1].type, 4u);
    EXPECT_EQ(trap.bindings[1].text, "The storage configuration was saved to /tmp/cfg.");
}

TEST_F(TrapTest, EveryShortEventHasTwoBindings)
{
    for (uint32_t e : std::initializer_list<uint32_t>{2135, 2164, 2167, 2168, 2287}) {
        g_sent.clear();
        ASSERT_EQ(KelpmibSendTrap(1, e, event({}).c_str(), 0), 0u) << e;
        EXPECT_EQ(onlyTrap().bindings.size(), 2u) << e;
    }
}

TEST_F(TrapTest, OrdinaryEventHasEightNamedAndTypedBindings)
{
    testmodel::serveSampleModel();
    const ObjNode &disk = firstOf(adList);
    const std::string xml = event({{"Parm01", "0:1:2"},
                                   {"Nexus", disk.nexusId},
                                   {"ObjType", "772"},
                                   {"ObjStatus", "3"},
                                   {"PreviousStatus", "1"}});
    ASSERT_EQ(KelpmibSendTrap(904, 2048, xml.c_str(), 0), 0u);
    const SentTrap &trap = onlyTrap();
    EXPECT_EQ(trap.specific, 904u);
    ASSERT_EQ(trap.bindings.size(), 8u);
    const uint32_t types[] = {2, 4, 4, 4, 4, 4, 2, 2};
    for (uint32_t n = 1; n <= 8; n++) {
        EXPECT_EQ(trap.bindings[n - 1].name, bindingName(n)) << n;
        EXPECT_EQ(trap.bindings[n - 1].type, types[n - 1]) << n;
    }
    EXPECT_EQ(trap.bindings[0].value, 2048u);
    EXPECT_EQ(trap.bindings[1].text, "Physical disk 0:1:2 has failed.");
    EXPECT_NE(trap.bindings[2].text, "");
    EXPECT_NE(trap.bindings[3].text, "");
    EXPECT_EQ(trap.bindings[4].text, rowName(130, 4, disk.index));
    EXPECT_EQ(trap.bindings[5].text, disk.nexusId);
    EXPECT_EQ(trap.bindings[6].value, 4u);
    EXPECT_EQ(trap.bindings[7].value, 2u);
}

TEST_F(TrapTest, VirtualDiskCreatedHasStatusOneWhateverTheEventSays)
{
    testmodel::serveSampleModel();
    const ObjNode &vd = firstOf(vdList);
    const std::string xml = event({{"Parm01", "Data"},
                                   {"Nexus", vd.nexusId},
                                   {"ObjType", "773"},
                                   {"ObjStatus", "3"},
                                   {"PreviousStatus", "4"}});
    ASSERT_EQ(KelpmibSendTrap(1201, 2053, xml.c_str(), 0), 0u);
    const SentTrap &trap = onlyTrap();
    ASSERT_EQ(trap.bindings.size(), 8u);
    EXPECT_EQ(trap.bindings[4].text, rowName(140, 1, vd.index));
    EXPECT_EQ(trap.bindings[6].value, 1u);
    EXPECT_EQ(trap.bindings[7].value, 1u);
}

TEST_F(TrapTest, FixedStatusEventsAllGiveOne)
{
    for (uint32_t e : std::initializer_list<uint32_t>{2122, 2123, 2124, 2053, 2054}) {
        g_sent.clear();
        const std::string xml = event({{"ObjStatus", "5"}, {"PreviousStatus", "5"}});
        ASSERT_EQ(KelpmibSendTrap(1, e, xml.c_str(), 0), 0u);
        EXPECT_EQ(onlyTrap().bindings[6].value, 1u) << e;
        EXPECT_EQ(onlyTrap().bindings[7].value, 1u) << e;
    }
}

TEST_F(TrapTest, NexusNotInTheLiveTablesGivesUnknownRow)
{
    testmodel::serveSampleModel();
    const std::string xml = event({{"Nexus", "9\\9\\9"}, {"ObjType", "773"}});
    ASSERT_EQ(KelpmibSendTrap(1201, 2055, xml.c_str(), 0), 0u);
    const SentTrap &trap = onlyTrap();
    EXPECT_EQ(trap.bindings[4].text, "UNKNOWN");
    EXPECT_EQ(trap.bindings[5].text, "9\\9\\9");
}

TEST_F(TrapTest, PreviousStatusDefaultsToTheCurrentOne)
{
    ASSERT_EQ(KelpmibSendTrap(1, 2055, event({{"ObjStatus", "4"}}).c_str(), 0), 0u);
    EXPECT_EQ(onlyTrap().bindings[6].value, 5u);
    EXPECT_EQ(onlyTrap().bindings[7].value, 5u);
}

TEST_F(TrapTest, EventWithoutAnyElementGivesUnknownsAndDefaults)
{
    for (const char *xml : {"<Event></Event>", "", static_cast<const char *>(nullptr)}) {
        g_sent.clear();
        ASSERT_EQ(KelpmibSendTrap(904, 2048, xml, 0), 0u);
        const SentTrap &trap = onlyTrap();
        ASSERT_EQ(trap.bindings.size(), 8u);
        EXPECT_EQ(trap.bindings[1].text, "Physical disk %1 has failed.");
        for (uint32_t position : std::initializer_list<uint32_t>{2, 3, 4, 5}) {
            EXPECT_EQ(trap.bindings[position].text, "UNKNOWN") << position;
        }
        EXPECT_EQ(trap.bindings[6].value, 2u);
        EXPECT_EQ(trap.bindings[7].value, 2u);
    }
}

TEST_F(TrapTest, ControllerWithoutLocationIsTheSystem)
{
    const std::string xml = event({{"Nexus", "not a nexus"}, {"ObjType", "769"}});
    ASSERT_EQ(KelpmibSendTrap(1, 2300, xml.c_str(), 0), 0u);
    EXPECT_EQ(onlyTrap().bindings[2].text, "system");
    EXPECT_EQ(onlyTrap().bindings[3].text, "UNKNOWN");
}

TEST_F(TrapTest, DiskMarkedInItsMaskHasNoRow)
{
    testmodel::serveSampleModel();
    const ObjNode &disk = firstOf(adList);
    const std::string tapeMask = std::string(22, '0') + "1" + std::string(9, '0');
    const std::string xml =
        event({{"Nexus", disk.nexusId}, {"ObjType", "772"}, {"AttributesMask", tapeMask}});
    ASSERT_EQ(KelpmibSendTrap(1, 2048, xml.c_str(), 0), 0u);
    EXPECT_EQ(onlyTrap().bindings[4].text, "UNKNOWN");

    g_sent.clear();
    const std::string shortMask = std::string(22, '0');
    const std::string plain =
        event({{"Nexus", disk.nexusId}, {"ObjType", "772"}, {"AttributesMask", shortMask}});
    ASSERT_EQ(KelpmibSendTrap(1, 2048, plain.c_str(), 0), 0u);
    EXPECT_EQ(onlyTrap().bindings[4].text, rowName(130, 4, disk.index));
}

TEST_F(TrapTest, AnEventTheCatalogueDoesNotKnowHasTheMessageUnknown)
{
    // The catalogue answers such an event with status 2 and its default
    // line; any status but 0 makes the message UNKNOWN.
    ASSERT_EQ(KelpmibSendTrap(1, 9999, event({}).c_str(), 0), 0u);
    EXPECT_EQ(onlyTrap().bindings[1].text, "UNKNOWN");
}

TEST_F(TrapTest, AtMostTenInsertsAreRead)
{
    const std::string path = dir_ + "/alerts.txt";
    std::ofstream(path) << "default | 4 | K0 | d | d\n"
                           "9001 | 4 | K9001 | %1 %2 %3 %4 %5 %6 %7 %8 %9 %10. | d\n";
    std::string error;
    ASSERT_TRUE(kelp::rt::evtmsg::serveCatalogueFile(path, &error)) << error;

    std::string ten = "<Event>";
    for (int i = 1; i <= 10; i++) {
        ten += "<Parm" + std::string(i < 10 ? "0" : "") + std::to_string(i) + ">v" +
               std::to_string(i) + "</Parm" + std::string(i < 10 ? "0" : "") + std::to_string(i) +
               ">";
    }
    const std::string twelve = ten + "<Parm11>v11</Parm11><Parm12>v12</Parm12></Event>";
    ten += "</Event>";

    kelp::testspy::reset();
    ASSERT_EQ(KelpmibSendTrap(1, 9001, ten.c_str(), 0), 0u);
    const int allocationsForTen = kelp::testspy::spy().allocations;
    kelp::testspy::reset();
    ASSERT_EQ(KelpmibSendTrap(1, 9001, twelve.c_str(), 0), 0u);
    EXPECT_EQ(kelp::testspy::spy().allocations, allocationsForTen);
    EXPECT_EQ(kelp::testspy::spy().frees, kelp::testspy::spy().allocations);
    ASSERT_EQ(g_sent.size(), 2u);
    EXPECT_EQ(g_sent[1].bindings[1].text, "v1 v2 v3 v4 v5 v6 v7 v8 v9 v10.");

    // The first missing one ends the list.
    g_sent.clear();
    const std::string gap = event({{"Parm01", "a"}, {"Parm02", "b"}, {"Parm04", "d"}});
    ASSERT_EQ(KelpmibSendTrap(1, 9001, gap.c_str(), 0), 0u);
    EXPECT_EQ(onlyTrap().bindings[1].text, "a b %3 %4 %5 %6 %7 %8 %9 %10.");

    ASSERT_TRUE(kelp::rt::evtmsg::reloadCatalogue(&error)) << error;
}

// The XML library gives no value beyond 159 bytes: a longer insert reads as
// missing and ends the list; the longest it gives goes in whole.
TEST_F(TrapTest, LongInsertsStayInTheirAreas)
{
    const std::string tooLong = event({{"Parm01", std::string(400, 'x')}});
    ASSERT_EQ(KelpmibSendTrap(1, 2048, tooLong.c_str(), 0), 0u);
    EXPECT_EQ(onlyTrap().bindings[1].text, "Physical disk %1 has failed.");

    g_sent.clear();
    const std::string longest = event({{"Parm01", std::string(159, 'y')}});
    ASSERT_EQ(KelpmibSendTrap(1, 2048, longest.c_str(), 0), 0u);
    EXPECT_EQ(onlyTrap().bindings[1].text,
              "Physical disk " + std::string(159, 'y') + " has failed.");
}

TEST_F(TrapTest, AggregationAppendsTheRepeatSentence)
{
    g_bAggregateEvents = 1;
    EventAggregateInteval = 7;
    const std::string xml = event({{"Parm01", "0:1:2"}, {"Nexus", "0\\1\\2"}, {"ObjType", "772"}});
    ASSERT_EQ(KelpmibSendTrap(904, 2048, xml.c_str(), 3), 0u);
    EXPECT_EQ(onlyTrap().bindings[1].text,
              "Physical disk 0:1:2 has failed.This has been logged 3 times in the last 7 minutes.");
    EXPECT_EQ(getNumberofEvents(), 0u);
}

TEST_F(TrapTest, RepeatCountIsIgnoredWithAggregationOff)
{
    ASSERT_EQ(KelpmibSendTrap(904, 2048, event({{"Parm01", "d"}}).c_str(), 3), 0u);
    EXPECT_EQ(onlyTrap().bindings[1].text, "Physical disk d has failed.");
}

TEST_F(TrapTest, QueueHoldsBackARepeat)
{
    g_bAggregateEvents = 1;
    const std::string xml = event({{"Parm01", "d"}, {"Nexus", "0\\1\\2"}, {"ObjType", "772"}});
    ASSERT_EQ(KelpmibSendTrap(904, 2048, xml.c_str(), 0), 0u);
    EXPECT_EQ(g_sent.size(), 1u);
    EXPECT_EQ(getNumberofEvents(), 1u);
    kelp::testspy::reset();
    ASSERT_EQ(KelpmibSendTrap(904, 2048, xml.c_str(), 0), 0u);
    EXPECT_EQ(g_sent.size(), 1u);
    EXPECT_EQ(kelp::testspy::spy().frees, kelp::testspy::spy().allocations);

    // An event without a nexus is never offered to the queue.
    const std::string anonymous = event({{"Parm01", "d"}});
    ASSERT_EQ(KelpmibSendTrap(904, 2048, anonymous.c_str(), 0), 0u);
    ASSERT_EQ(KelpmibSendTrap(904, 2048, anonymous.c_str(), 0), 0u);
    EXPECT_EQ(g_sent.size(), 3u);
    EXPECT_EQ(getNumberofEvents(), 1u);
}

TEST_F(TrapTest, ExtendedMessagesMultiplyTheTrapAndAddFourBindings)
{
    extendedMessages();
    serveTags("chassisServiceTag=\"7XYZ123\" baseBoardServiceTag=\"7XYZ124\"");
    setenv("KELP_FQDN", "node1.example.com", 1);
    DebugCapture debug;
    const std::string xml = event({{"Parm01", "0:1:2"}, {"Nexus", "0\\1\\2"}, {"ObjType", "772"}});
    ASSERT_EQ(KelpmibSendTrap(754, 2048, xml.c_str(), 0), 0u);
    unsetenv("KELP_FQDN");
    const SentTrap &trap = onlyTrap();
    EXPECT_EQ(trap.specific, 75400u);
    ASSERT_EQ(trap.bindings.size(), 12u);
    for (uint32_t n = 1; n <= 12; n++) {
        EXPECT_EQ(trap.bindings[n - 1].name, bindingName(n)) << n;
    }
    EXPECT_EQ(trap.bindings[1].text,
              "Physical disk 0:1:2 has failed and no longer takes part in any virtual disk. "
              "Replace the disk; a redundant virtual disk rebuilds onto the new disk or a hot "
              "spare.");
    EXPECT_EQ(trap.bindings[8].text, "KLP2048");
    EXPECT_EQ(trap.bindings[9].text, "node1.example.com");
    EXPECT_EQ(trap.bindings[10].text, "7XYZ124");
    EXPECT_EQ(trap.bindings[11].text, "7XYZ123");
    for (uint32_t position : std::initializer_list<uint32_t>{8, 9, 10, 11}) {
        EXPECT_EQ(trap.bindings[position].type, 4u) << position;
    }
    const std::string log = debug.text();
    EXPECT_NE(log.find("KelpmibSendTrap: entry; trapID: 754\n"), std::string::npos);
    EXPECT_NE(log.find("KelpmibSendTrap: Calling getEEMItrap()\n"), std::string::npos);
    EXPECT_NE(log.find("KelpmibSendTrap: Returning description string:Physical disk 0:1:2"),
              std::string::npos);
    EXPECT_NE(log.find("KelpmibSendTrap: fqdnName: node1.example.com\n"), std::string::npos);
    EXPECT_NE(log.find("KelpmibSendTrap: eemimesssageServiceTagEvent_ATTRIBUTE: 7XYZ124\n"),
              std::string::npos);
    EXPECT_NE(log.find("KelpmibSendTrap: eemimesssageChassisServiceTagEvent_ATTRIBUTE: 7XYZ123\n"),
              std::string::npos);
    EXPECT_NE(log.find("KelpmibSendTrap: exit\n"), std::string::npos);
}

TEST_F(TrapTest, ExtendedShortEventPutsTheFourAfterTheFirstTwo)
{
    extendedMessages();
    ASSERT_EQ(KelpmibSendTrap(9, 2135, event({{"Parm01", "f"}}).c_str(), 0), 0u);
    const SentTrap &trap = onlyTrap();
    EXPECT_EQ(trap.specific, 900u);
    ASSERT_EQ(trap.bindings.size(), 6u);
    const uint32_t names[] = {1, 2, 9, 10, 11, 12};
    for (uint32_t i = 0; i < 6; i++) {
        EXPECT_EQ(trap.bindings[i].name, bindingName(names[i])) << i;
    }
    EXPECT_EQ(trap.bindings[1].text, "The configuration of all controllers was saved to f.");
    EXPECT_EQ(trap.bindings[2].text, "KLP2135");
}

TEST_F(TrapTest, MissingServiceTagsAreLoggedAndTheTrapStillGoesOut)
{
    extendedMessages();
    DebugCapture debug;
    ASSERT_EQ(KelpmibSendTrap(754, 2048, event({}).c_str(), 0), 0u);
    const SentTrap &trap = onlyTrap();
    ASSERT_EQ(trap.bindings.size(), 12u);
    EXPECT_EQ(trap.bindings[10].text, "");
    EXPECT_EQ(trap.bindings[11].text, "");
    const std::string log = debug.text();
    EXPECT_NE(log.find("KelpmibSendTrap: eemimesssageServiceTagEvent_ATTRIBUTE not found\n"),
              std::string::npos);
    EXPECT_NE(log.find("KelpmibSendTrap: eemimesssageChassisServiceTagEvent_ATTRIBUTE not found\n"),
              std::string::npos);
}

TEST_F(TrapTest, SendStatusIsTheAnswer)
{
    g_sendAnswer = 5;
    EXPECT_EQ(KelpmibSendTrap(1, 2048, event({}).c_str(), 0), 5u);
    g_FrameworkServices = nullptr;
    EXPECT_EQ(KelpmibSendTrap(1, 2048, event({}).c_str(), 0), 5u);
}

TEST_F(TrapTest, NoMemoryForTheBindings)
{
    DebugCapture debug;
    kelp::testspy::spy().failAllocationsAfter = 0;
    EXPECT_EQ(KelpmibSendTrap(1, 2048, event({}).c_str(), 0), 5u);
    EXPECT_TRUE(g_sent.empty());
    EXPECT_NE(debug.text().find("KelpmibSendTrap: ERROR: no memory for VarBinds\n"),
              std::string::npos);
}

TEST_F(TrapTest, NoMemoryForAnInsert)
{
    DebugCapture debug;
    // The bindings, the first binding's name, the first insert; the second fails.
    kelp::testspy::spy().failAllocationsAfter = 3;
    const std::string xml = event({{"Parm01", "a"}, {"Parm02", "b"}});
    EXPECT_EQ(KelpmibSendTrap(1, 2048, xml.c_str(), 0), 5u);
    EXPECT_TRUE(g_sent.empty());
    EXPECT_EQ(kelp::testspy::spy().frees, kelp::testspy::spy().allocations);
    EXPECT_NE(debug.text().find("KelpmibSendTrap: ERROR: no memory for insertstrings[]\n"),
              std::string::npos);
}

// From each allocation on, every allocation fails: the call ends with 5 and
// no trap, except when only the chassis tag's value is lost, which is logged
// and the trap still goes out. Nothing is left allocated either way.
TEST_F(TrapTest, EveryAllocationFailureIsClean)
{
    extendedMessages();
    testmodel::serveSampleModel();
    const ObjNode &vd = firstOf(vdList);
    const std::string xml = event({{"Parm01", "a"},
                                   {"Parm02", "b"},
                                   {"Nexus", vd.nexusId},
                                   {"ObjType", "773"},
                                   {"ObjStatus", "2"}});
    kelp::testspy::reset();
    ASSERT_EQ(KelpmibSendTrap(1, 2055, xml.c_str(), 0), 0u);
    const int total = kelp::testspy::spy().allocations;
    ASSERT_GT(total, 10);
    int sentAnyway = 0;
    for (int n = 0; n < total; n++) {
        g_sent.clear();
        kelp::testspy::reset();
        kelp::testspy::spy().failAllocationsAfter = n;
        DebugCapture debug;
        const uint32_t status = KelpmibSendTrap(1, 2055, xml.c_str(), 0);
        EXPECT_EQ(kelp::testspy::spy().frees, kelp::testspy::spy().allocations) << n;
        if (status == 0) {
            EXPECT_EQ(g_sent.size(), 1u) << n;
            sentAnyway++;
            // Only the last one, the chassis tag's value, is merely logged.
            EXPECT_EQ(n, total - 1);
            EXPECT_NE(
                debug.text().find("KelpmibSendTrap: Error: MPIVarBindSetValueOctStr could not "
                                  "set eemimesssageChassisServiceTagEvent_ATTRIBUTE value\n"),
                std::string::npos);
            ASSERT_EQ(g_sent.size(), 1u);
            EXPECT_EQ(g_sent[0].bindings[11].text, "");
        } else {
            EXPECT_EQ(status, 5u) << n;
            EXPECT_TRUE(g_sent.empty()) << n;
        }
    }
    EXPECT_EQ(sentAnyway, 1);
}

TEST_F(TrapTest, RowNameOfObjectsOfTheSampleModel)
{
    testmodel::serveSampleModel();
    struct Case {
        uint32_t objType;
        ObjList *list;
        uint32_t group;
        uint32_t table;
    };
    const Case cases[] = {
        {769, &ctrlList, 130, 1}, {772, &adList, 130, 4},   {773, &vdList, 140, 1},
        {770, &chanList, 130, 2}, {776, &enclList, 130, 3},
    };
    for (const Case &c : cases) {
        ASSERT_NE(c.list->head, nullptr) << c.objType;
        for (const ObjNode *node = c.list->head; node != nullptr; node = node->next) {
            if (node->nexusId == nullptr) {
                continue;
            }
            char *text = getObjectRowOID(node->nexusId, c.objType);
            ASSERT_NE(text, nullptr) << c.objType;
            EXPECT_EQ(std::string(text), rowName(c.group, c.table, node->index));
            SMFreeMem(text);
        }
    }
}

TEST_F(TrapTest, RowNameRefusesTypesWithoutTableNullAndUnknownNexus)
{
    testmodel::serveSampleModel();
    const ObjNode &disk = firstOf(adList);
    EXPECT_EQ(getObjectRowOID(disk.nexusId, 783), nullptr);
    EXPECT_EQ(getObjectRowOID(disk.nexusId, 0), nullptr);
    EXPECT_EQ(getObjectRowOID(nullptr, 772), nullptr);
    EXPECT_EQ(getObjectRowOID("no such nexus", 772), nullptr);
    kelp::testspy::spy().failAllocationsAfter = 0;
    EXPECT_EQ(getObjectRowOID(disk.nexusId, 772), nullptr);
}

TEST_F(TrapTest, ServiceTagsComeFromTheModel)
{
    serveTags("chassisServiceTag=\"CH-1\" baseBoardServiceTag=\"BB-2\"");
    DebugCapture debug;
    char buffer[128];
    ASSERT_EQ(getBaseBoardServiceTag(buffer, sizeof buffer), 0u);
    EXPECT_STREQ(buffer, "BB-2");
    ASSERT_EQ(getChassisServiceTag(buffer, sizeof buffer), 0u);
    EXPECT_STREQ(buffer, "CH-1");
    const std::string log = debug.text();
    EXPECT_NE(log.find("getBaseBoardServiceTag: entry \n"), std::string::npos);
    EXPECT_NE(log.find("GetBaseBoardServiceTag: SMILGetObjByOID baseBoardType =  13\n"),
              std::string::npos);
    EXPECT_NE(log.find("getBaseBoardServiceTag: exit: status: 0\n"), std::string::npos);
    EXPECT_NE(log.find("getChassisServiceTag: entry\n"), std::string::npos);
    EXPECT_NE(log.find("getChassisServiceTag: exit: status: 0\n"), std::string::npos);
}

TEST_F(TrapTest, EmptyServiceTagIsEmptyText)
{
    serveTags("chassisServiceTag=\"\" baseBoardServiceTag=\"\"");
    char buffer[16] = "junk";
    ASSERT_EQ(getBaseBoardServiceTag(buffer, sizeof buffer), 0u);
    EXPECT_STREQ(buffer, "");
    std::snprintf(buffer, sizeof buffer, "junk");
    ASSERT_EQ(getChassisServiceTag(buffer, sizeof buffer), 0u);
    EXPECT_STREQ(buffer, "");
}

TEST_F(TrapTest, NoPlatformObjectsIsAStatusAndLogged)
{
    DebugCapture debug;
    char buffer[128];
    EXPECT_NE(getBaseBoardServiceTag(buffer, sizeof buffer), 0u);
    EXPECT_NE(getChassisServiceTag(buffer, sizeof buffer), 0u);
    const std::string log = debug.text();
    EXPECT_NE(log.find("getBaseBoardServiceTag: SMILListChildOIDByType failed on OID: "
                       "00000002\nobjType: BASE_BOARD_OBJ_TYPE\n"),
              std::string::npos);
    EXPECT_NE(log.find("getChassisServiceTag: SMILListChildOIDByType failed on OID: "
                       "00000002\nobjType: CHASSIS_PROPS2_OBJ_TYPE\n"),
              std::string::npos);
}

TEST_F(TrapTest, ServiceTagTooLongForTheBufferIsAConversionFailure)
{
    serveTags("chassisServiceTag=\"ABCDEFGH\" baseBoardServiceTag=\"ABCDEFGH\"");
    DebugCapture debug;
    char buffer[4];
    EXPECT_EQ(getBaseBoardServiceTag(buffer, sizeof buffer), 16u);
    EXPECT_EQ(getChassisServiceTag(buffer, sizeof buffer), 16u);
    EXPECT_EQ(getBaseBoardServiceTag(nullptr, 8), 5u);
    EXPECT_EQ(getChassisServiceTag(buffer, 0), 5u);
    const std::string log = debug.text();
    EXPECT_NE(log.find("getBaseBoardServiceTag: SMUCS2StrToUTF8Str failed with status 16\n"),
              std::string::npos);
    EXPECT_NE(log.find("getChassisServiceTag: SMUCS2StrToUTF8Str failed with status 16\n"),
              std::string::npos);
}

} // namespace
