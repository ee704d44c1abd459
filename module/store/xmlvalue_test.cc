// Value extraction: getValFromXML, getValFromOID and the one-object cache,
// getAssocVal, and the data-store readiness test.
#include "store/xmlvalue.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "testing/model_fixture.h"
#include "testing/test_spy.h"

namespace {

using testmodel::link;
using testmodel::object;
using testmodel::serve;

struct Freed {
    void operator()(char *p) const { std::free(p); }
};
using Text = std::unique_ptr<char, Freed>;

TEST(GetValFromXML, ReadsTheNthOccurrence)
{
    const char *xml = "<a><ObjID>4</ObjID><Nexus>0\\1</Nexus><ObjID>9</ObjID></a>";
    Text first(getValFromXML(xml, "ObjID", 0));
    Text second(getValFromXML(xml, "ObjID", 1));
    ASSERT_TRUE(first && second);
    EXPECT_STREQ(first.get(), "4");
    EXPECT_STREQ(second.get(), "9");
    EXPECT_EQ(getValFromXML(xml, "ObjID", 2), nullptr);
    EXPECT_EQ(getValFromXML(xml, "Name", 0), nullptr);
}

TEST(GetValFromXML, NullArgumentsAnswerNull)
{
    EXPECT_EQ(getValFromXML(nullptr, "Code", 0), nullptr);
    EXPECT_EQ(getValFromXML("<Code>0</Code>", nullptr, 0), nullptr);
}

TEST(GetValFromXML, AValueOfTheLargestSizeFits)
{
    const std::string value(kXmlValueSize - 1, 'v');
    const std::string xml = "<Name>" + value + "</Name>";
    Text text(getValFromXML(xml.c_str(), "Name", 0));
    ASSERT_TRUE(text);
    EXPECT_EQ(std::string(text.get()), value);
}

TEST(GetValFromXML, AValueTooLongForTheBufferIsNotFound)
{
    const std::string xml = "<Name>" + std::string(kXmlValueSize, 'v') + "</Name>";
    EXPECT_EQ(getValFromXML(xml.c_str(), "Name", 0), nullptr);
}

TEST(DecimalPrefix, ReadsLeadingDigitsOnly)
{
    EXPECT_EQ(decimalPrefix("17"), 17u);
    EXPECT_EQ(decimalPrefix("17abc"), 17u);
    EXPECT_EQ(decimalPrefix("-1"), 0u);
    EXPECT_EQ(decimalPrefix(""), 0u);
}

class ValueTest : public ModelTest {
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        kelp::testspy::reset();
        serve(object(1, "adapters", 0,
                     {{"Nexus", "0"},
                      {"Name", "Vorn RX-240"},
                      {"TreeStatus", "2"},
                      {"Size", "-1"},
                      {"Count", "17"},
                      {"Odd", "12ab"}}) +
              object(2, "bus", 1, {{"Nexus", "0\\0"}}) +
              object(3, "enclosures", 2, {{"Nexus", "0\\0\\1"}}) +
              object(4, "arraydisks", 3, {{"Nexus", "0\\0\\1\\4"}, {"Name", "Disk 4"}}) +
              object(5, "arraydisks", 3, {{"Nexus", "0\\0\\1\\5"}, {"Name", "Disk 5"}}));
        cachedObjId = 0;
        cachedObjXML[0] = '\0';
    }

    SMSnmpValue value(uint32_t type)
    {
        SMSnmpValue v{};
        v.type = type;
        v.value = 0xEEEE;
        v.buffer = buffer_;
        return v;
    }

    char buffer_[kXmlValueSize] = {};
};

TEST_F(ValueTest, AnIntegerAttributeIsReadAsADecimalNumber)
{
    SMSnmpValue v = value(SM_ASN_INTEGER);
    uint64_t slot = 0;
    ASSERT_EQ(getValFromOID(1, "TreeStatus", &v, &slot), 0);
    EXPECT_EQ(v.value, 2u);
    EXPECT_EQ(v.buffer, nullptr);
    v = value(SM_ASN_INTEGER);
    ASSERT_EQ(getValFromOID(1, "Odd", &v, &slot), 0);
    EXPECT_EQ(v.value, 12u);
}

TEST_F(ValueTest, AStringAttributeIsCopiedWithItsLength)
{
    SMSnmpValue v = value(SM_ASN_OCTET_STRING);
    uint64_t slot = 0;
    ASSERT_EQ(getValFromOID(1, "Name", &v, &slot), 0);
    EXPECT_STREQ(buffer_, "Vorn RX-240");
    EXPECT_EQ(v.value, 11u);
    EXPECT_EQ(v.type, static_cast<uint32_t>(SM_ASN_OCTET_STRING));
}

TEST_F(ValueTest, MinusOneAsA64BitNumberIsTranslatedAsSigned)
{
    SMSnmpValue v = value(kValueTypeU64);
    uint64_t slot = 0;
    ASSERT_EQ(getValFromOID(1, "Size", &v, &slot), 0);
    EXPECT_EQ(kelp::testspy::spy().lastFromUTF8Type, 4u);
    EXPECT_EQ(slot, UINT64_MAX);
    EXPECT_EQ(v.type, static_cast<uint32_t>(SM_ASN_INTEGER));
    EXPECT_EQ(v.buffer, nullptr);
    EXPECT_EQ(v.value, 0xEEEEu); // the getter derives it from the slot
}

TEST_F(ValueTest, SeventeenAsA64BitNumberIsTranslatedAsUnsigned)
{
    SMSnmpValue v = value(kValueTypeU64Alt);
    uint64_t slot = 0;
    ASSERT_EQ(getValFromOID(1, "Count", &v, &slot), 0);
    EXPECT_EQ(kelp::testspy::spy().lastFromUTF8Type, 8u);
    EXPECT_EQ(slot, 17u);
    EXPECT_EQ(v.type, static_cast<uint32_t>(SM_ASN_INTEGER));
}

TEST_F(ValueTest, AnotherTypeCodeIsNotAnswered)
{
    SMSnmpValue v = value(SM_ASN_COUNTER32);
    uint64_t slot = 0;
    EXPECT_EQ(getValFromOID(1, "Count", &v, &slot), 2);
}

TEST_F(ValueTest, AMissingAttributeFailsButStillRefreshesTheCache)
{
    SMSnmpValue v = value(SM_ASN_INTEGER);
    uint64_t slot = 0;
    EXPECT_EQ(getValFromOID(4, "NoSuchAttribute", &v, &slot), 2);
    EXPECT_EQ(cachedObjId, 4u);
    EXPECT_NE(std::string(cachedObjXML).find("<ObjID>4</ObjID>"), std::string::npos);
    EXPECT_NE(std::string(cachedObjXML).find("Disk 4"), std::string::npos);
}

TEST_F(ValueTest, AnUnknownObjectFailsAndLeavesTheCache)
{
    SMSnmpValue v = value(SM_ASN_OCTET_STRING);
    uint64_t slot = 0;
    ASSERT_EQ(getValFromOID(5, "Name", &v, &slot), 0);
    v = value(SM_ASN_OCTET_STRING);
    EXPECT_EQ(getValFromOID(99, "Name", &v, &slot), 2);
    EXPECT_EQ(cachedObjId, 5u);
    EXPECT_EQ(v.value, 0xEEEEu);
}

TEST_F(ValueTest, TheCachedTextAnswersWithoutTheDataStore)
{
    SMSnmpValue v = value(SM_ASN_OCTET_STRING);
    uint64_t slot = 0;
    ASSERT_EQ(getValFromOID(5, "Nexus", &v, &slot), 0);
    kelp::ds::unloadModel(); // the store is gone, the cache is not
    v = value(SM_ASN_OCTET_STRING);
    ASSERT_EQ(getValFromCachedXML(cachedObjXML, "Name", &v, &slot), 0);
    EXPECT_STREQ(buffer_, "Disk 5");
    EXPECT_EQ(getValFromOID(5, "Name", &v, &slot), 2);
}

TEST_F(ValueTest, TheCachedObjectIsReadToTheEndOfTheTextFetchedLast)
{
    SMSnmpValue v = value(SM_ASN_INTEGER);
    uint64_t slot = 0;
    ASSERT_EQ(getValFromOID(1, "Count", &v, &slot), 0);
    ASSERT_EQ(getValFromCachedObj("Count", &v, &slot), 0);
    EXPECT_EQ(v.value, 17u);
    const size_t first = std::strlen(cachedObjXML);
    // Object 4's text is shorter: what object 1's left beyond it in the
    // buffer is no part of it.
    v = value(SM_ASN_OCTET_STRING);
    ASSERT_EQ(getValFromOID(4, "Name", &v, &slot), 0);
    ASSERT_LT(std::strlen(cachedObjXML), first);
    kelp::ds::unloadModel(); // the cache answers alone
    v = value(SM_ASN_INTEGER);
    EXPECT_EQ(getValFromCachedObj("Count", &v, &slot), 2);
    EXPECT_EQ(getValFromCachedObj("TreeStatus", &v, &slot), 2);
    v = value(SM_ASN_OCTET_STRING);
    ASSERT_EQ(getValFromCachedObj("Name", &v, &slot), 0);
    EXPECT_STREQ(buffer_, "Disk 4");
    EXPECT_EQ(v.value, 6u);
}

TEST_F(ValueTest, OnlyTheFirstOfTwoOccurrencesIsRead)
{
    const char *xml = "<ObjID>7</ObjID><State>1</State><State>5</State>";
    SMSnmpValue v = value(SM_ASN_INTEGER);
    uint64_t slot = 0;
    ASSERT_EQ(getValFromCachedXML(xml, "State", &v, &slot), 0);
    EXPECT_EQ(v.value, 1u);
}

TEST_F(ValueTest, AssociatedValuesComeFromTheAssociatedObjects)
{
    Text nexus(getAssocVal(4, "enclosures", "Nexus", 0));
    ASSERT_TRUE(nexus);
    EXPECT_STREQ(nexus.get(), "0\\0\\1");
    Text second(getAssocVal(1, "arraydisks", "Name", 1));
    ASSERT_TRUE(second);
    EXPECT_STREQ(second.get(), "Disk 5");
    EXPECT_EQ(getAssocVal(4, "batteries", "Nexus", 0), nullptr);
}

TEST_F(ValueTest, TheStoreIsReadyWhenItsCodeIsZero)
{
    EXPECT_TRUE(dataStoreIsReady());
    std::string error;
    ASSERT_TRUE(kelp::ds::setReady(false, &error)) << error;
    EXPECT_FALSE(dataStoreIsReady());
    kelp::ds::unloadModel();
    EXPECT_FALSE(dataStoreIsReady());
}

} // namespace
