// The array disk's display name (column 2) through getAD: the message number
// chosen for the location-string service, the nexus handed to it, and what
// the getter answers from the service's answer. The tests do not rely on
// particular name texts: they compare with a direct call of the service.
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/evtmsg.h"
#include "store/xmlvalue.h"
#include "tables/ad_testing.h"
#include "testing/location_spy.h"

namespace {

using namespace adtest;

// What the service answers for (objType, nexus): its status and third text.
struct ServiceName {
    int32_t status;
    std::string name;
};

ServiceName serviceName(uint32_t objType, const std::string &nexus)
{
    char location1[EVTMSG_TEXT_SIZE], location2[EVTMSG_TEXT_SIZE], name[EVTMSG_TEXT_SIZE],
        detail[EVTMSG_TEXT_SIZE];
    const auto status = static_cast<int32_t>(evtmsg_getObjLocationStrings(
        objType, nexus.c_str(), ",", "en", location1, location2, name, detail, 0));
    name[sizeof name - 1] = '\0';
    // The getter answers at most what its text buffers hold.
    return {status, std::string(name).substr(0, kXmlValueSize - 1)};
}

class AdNameTest : public AdTest {
  protected:
    void SetUp() override
    {
        AdTest::SetUp();
        locationspy::calls().clear();
    }

    // Column 2 of row 1: the getter's answer must be the service's for
    // `objType` and `nexus`, and the getter must have asked for just that.
    void expectName(uint32_t objType, const std::string &nexus)
    {
        locationspy::calls().clear();
        const Answer a = get(2);
        ASSERT_EQ(locationspy::calls().size(), 1u) << "one call of the service";
        EXPECT_EQ(locationspy::calls()[0].objType, objType);
        EXPECT_EQ(locationspy::calls()[0].nexus, nexus);
        EXPECT_EQ(locationspy::calls()[0].separator, ",");
        EXPECT_EQ(locationspy::calls()[0].language, "en");
        const ServiceName expected = serviceName(objType, nexus);
        EXPECT_EQ(a.result, expected.status);
        EXPECT_EQ(a.type, kStr);
        EXPECT_EQ(a.text, expected.name);
        EXPECT_EQ(a.value, expected.name.size());
    }
};

TEST_F(AdNameTest, APcieDiskIsAlwaysNamedByMessage785)
{
    for (const std::string &attributes : {mask({}), mask({22}), std::string(40, '1')}) {
        SetUp();
        serveDisk({{"BusProtocol", "9"}, {"AttributesMask", attributes}});
        expectName(785, "0\\0\\0\\3");
    }
}

TEST_F(AdNameTest, OtherDisksUse783WithPosition22And772Without)
{
    struct Case {
        Attributes attributes;
        uint32_t objType;
    };
    const Case cases[] = {
        {{{"BusProtocol", "8"}, {"AttributesMask", mask({22})}}, 783},
        {{{"BusProtocol", "7"}, {"AttributesMask", mask({22, 23})}}, 783},
        {{{"BusProtocol", "8"}, {"AttributesMask", mask({})}}, 772},
        {{{"BusProtocol", "8"}, {"AttributesMask", mask({21, 23})}}, 772},
        {{{"BusProtocol", "8"}, {"AttributesMask", withChar(mask({}), 22, 'x')}}, 772},
        {{{"BusProtocol", "8"}, {"AttributesMask", "0000000000000000000000"}}, 772}, // too short
        // A protocol that cannot be read is not PCIe.
        {{{"AttributesMask", mask({22})}}, 783},
        {{{"AttributesMask", mask({})}}, 772},
        {{{"BusProtocol", "90"}, {"AttributesMask", mask({})}}, 772},
    };
    for (const Case &c : cases) {
        SetUp();
        serveDisk(c.attributes);
        expectName(c.objType, "0\\0\\0\\3");
    }
}

TEST_F(AdNameTest, WithoutAnAttributeMaskThereIsNoName)
{
    serveDisk({{"BusProtocol", "9"}});
    EXPECT_EQ(get(2).result, 2);
    EXPECT_TRUE(locationspy::calls().empty());
}

TEST_F(AdNameTest, WithoutAReplyBufferThereIsNoName)
{
    serveDisk({{"AttributesMask", mask({})}});
    std::vector<uint32_t> arcs = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 4, 1, 2, 1};
    SMSnmpValue request{};
    request.name = SMSnmpOID{static_cast<uint32_t>(arcs.size()), 0, arcs.data()};
    SMSnmpValue reply{};
    EXPECT_EQ(getAD(&request, &reply, 12), 2);
    EXPECT_TRUE(locationspy::calls().empty());
}

// The nexus goes to the service as the object holds it, whatever its shape;
// the service judges it.
TEST_F(AdNameTest, NexusesOfAnyShapeAreHandedOverWhole)
{
    const std::string nexuses[] = {
        "",       "7",
        "0\\0",   "0\\0\\0\\3\\1\\2\\3\\4\\5\\6\\7\\8\\9",
        "\\\\\\", std::string(kXmlValueSize - 1, '1'),
    };
    for (const std::string &nexus : nexuses) {
        SetUp();
        serveTable(disk(1, nexus, {{"AttributesMask", mask({})}}));
        ASSERT_EQ(adList.length, 1u) << "an empty nexus is a nexus too";
        expectName(772, nexus);
    }
}

} // namespace
