// getValFromXML over the XML library, and the data-store readiness test.
#include "store/xmlvalue.h"

#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

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

// The runtime's data store serves nothing until a model is loaded.
TEST(DataStoreIsReady, FalseWithoutADataStore)
{
    EXPECT_FALSE(dataStoreIsReady());
}

} // namespace
