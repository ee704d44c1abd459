// XMLSupGetXMLMemData: occurrences, exact names, attributes, self-closing
// elements, entities, buffer sizes, arguments, and bounds of the text.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "xmlsup.h"

namespace {

// The plug-in's call: modes 0,1,1,0 and no context. "<status N>" on failure.
std::string get(const std::string &xml, const char *tag, uint32_t occurrence,
                uint32_t capacity = 160)
{
    auto out = std::make_unique<char[]>(capacity);
    uint32_t size = capacity;
    uint32_t status = XMLSupGetXMLMemData(0, tag, 1, occurrence, 1, &size, out.get(), 0, nullptr,
                                          xml.data(), static_cast<uint32_t>(xml.size()));
    if (status != 0)
        return "<status " + std::to_string(status) + ">";
    EXPECT_EQ(size, std::strlen(out.get()) + 1);
    return out.get();
}

struct Case {
    const char *name;
    const char *xml;
    const char *tag;
    uint32_t occurrence;
    const char *expected;
};

const Case kCases[] = {
    {"first occurrence", "<a><Nexus>0:1</Nexus><Nexus>0:2</Nexus></a>", "Nexus", 0, "0:1"},
    {"second occurrence", "<a><Nexus>0:1</Nexus><Nexus>0:2</Nexus></a>", "Nexus", 1, "0:2"},
    {"past the last occurrence", "<a><Nexus>0:1</Nexus><Nexus>0:2</Nexus></a>", "Nexus", 2,
     "<status 2>"},
    {"no such tag", "<a><b>1</b></a>", "Nexus", 0, "<status 2>"},
    {"longer names do not match", "<NexusX>a</NexusX><XNexus>b</XNexus><Nexus>c</Nexus>", "Nexus",
     0, "c"},
    {"only exact names count", "<NexusX>a</NexusX><Nexus>c</Nexus>", "Nexus", 1, "<status 2>"},
    {"names are case-sensitive", "<nexus>a</nexus>", "Nexus", 0, "<status 2>"},
    {"element with attributes", "<Nexus kind=\"x\" b='y'>v</Nexus>", "Nexus", 0, "v"},
    {"quoted '>' in an attribute", "<Nexus a=\"1>2\">v</Nexus>", "Nexus", 0, "v"},
    {"self-closing is empty", "<Nexus/><Nexus>b</Nexus>", "Nexus", 0, ""},
    {"self-closing counts", "<Nexus/><Nexus>b</Nexus>", "Nexus", 1, "b"},
    {"self-closing with blank", "<Nexus  />", "Nexus", 0, ""},
    {"empty element", "<Nexus></Nexus>", "Nexus", 0, ""},
    {"blanks kept verbatim", "<Name>  Vorn RX-240 \n</Name>", "Name", 0, "  Vorn RX-240 \n"},
    {"end tag with blank", "<Name>x</Name >", "Name", 0, "x"},
    {"entities decoded", "<M>&lt;a&gt; &amp; &quot;q&quot; &apos;s&apos;</M>", "M", 0,
     "<a> & \"q\" 's'"},
    {"other entities kept", "<M>&unknown; &#65; & x</M>", "M", 0, "&unknown; &#65; & x"},
    {"child elements verbatim", "<o><ObjID>5</ObjID></o>", "o", 0, "<ObjID>5</ObjID>"},
    {"nested same name, outer", "<a>1<a>2</a>3</a>", "a", 0, "1<a>2</a>3"},
    {"nested same name, inner", "<a>1<a>2</a>3</a>", "a", 1, "2"},
    {"commented element skipped", "<!-- <a>x</a> --><a>y</a>", "a", 0, "y"},
    {"CDATA skipped while searching", "<![CDATA[<a>x</a>]]><a>y</a>", "a", 0, "y"},
    {"declaration skipped", "<?xml version=\"1.0\"?><a>y</a>", "a", 0, "y"},
    {"end tag in a comment inside", "<a>1<!-- </a> -->2</a>", "a", 0, "1<!-- </a> -->2"},
    {"unclosed element", "<a>1", "a", 0, "<status 2>"},
    {"unclosed start tag", "<a b=\"1>", "a", 0, "<status 2>"},
    {"code of a readiness answer", "<Status><Code>0</Code></Status>", "Code", 0, "0"},
    {"same first letter, other name", "<Nd>x</Nd><Nexusy>z</Nexusy><Nexus>c</Nexus>", "Nexus", 0,
     "c"},
    {"'<' and a blank is no tag", "< b>x</b><b>y</b>", "b", 0, "y"},
    {"lone '<' at the end", "<a>1</a><", "a", 0, "1"},
    {"lone '<' at the end, no more", "<a>1</a><", "a", 1, "<status 2>"},
    {"processing instruction holding a tag", "<?pi <a>x</a> ?><a>y</a>", "a", 0, "y"},
};

TEST(XmlSupTest, ElementTextByNameAndOccurrence)
{
    for (const auto &c : kCases)
        EXPECT_EQ(get(c.xml, c.tag, c.occurrence), c.expected) << c.name;
}

TEST(XmlSupTest, ShortBufferAnswers16WithTheSizeNeeded)
{
    std::string xml = "<Name>Vorn RX-240</Name>";
    char out[11];
    std::memset(out, 'z', sizeof out);
    uint32_t size = sizeof out;
    EXPECT_EQ(XMLSupGetXMLMemData(0, "Name", 1, 0, 1, &size, out, 0, nullptr, xml.data(),
                                  static_cast<uint32_t>(xml.size())),
              16u);
    EXPECT_EQ(size, 12u);
    EXPECT_EQ(out[0], 'z');
    EXPECT_EQ(get(xml, "Name", 0, 12), "Vorn RX-240");
    EXPECT_EQ(get("<M>&amp;&amp;</M>", "M", 0, 3), "&&"); // sized after decoding
}

TEST(XmlSupTest, OtherModesAndNullArgumentsAnswer5)
{
    std::string xml = "<a>1</a>";
    char out[16];
    uint32_t size = sizeof out;
    auto call = [&](uint32_t m0, const char *tag, uint32_t m1, uint32_t m2, uint32_t *sz, char *o,
                    uint32_t m3, const void *ctx, const char *text) {
        return XMLSupGetXMLMemData(m0, tag, m1, 0, m2, sz, o, m3, ctx, text,
                                   static_cast<uint32_t>(xml.size()));
    };
    EXPECT_EQ(call(0, "a", 1, 1, &size, out, 0, nullptr, xml.data()), 0u);
    EXPECT_EQ(call(1, "a", 1, 1, &size, out, 0, nullptr, xml.data()), 5u);
    EXPECT_EQ(call(0, "a", 0, 1, &size, out, 0, nullptr, xml.data()), 5u);
    EXPECT_EQ(call(0, "a", 1, 0, &size, out, 0, nullptr, xml.data()), 5u);
    EXPECT_EQ(call(0, "a", 1, 1, &size, out, 1, nullptr, xml.data()), 5u);
    EXPECT_EQ(call(0, "a", 1, 1, &size, out, 0, &size, xml.data()), 5u);
    EXPECT_EQ(call(0, nullptr, 1, 1, &size, out, 0, nullptr, xml.data()), 5u);
    EXPECT_EQ(call(0, "", 1, 1, &size, out, 0, nullptr, xml.data()), 5u);
    EXPECT_EQ(call(0, "a", 1, 1, nullptr, out, 0, nullptr, xml.data()), 5u);
    EXPECT_EQ(call(0, "a", 1, 1, &size, nullptr, 0, nullptr, xml.data()), 5u);
    EXPECT_EQ(call(0, "a", 1, 1, &size, out, 0, nullptr, nullptr), 5u);
}

// Each prefix of the text is handed over in a heap block of exactly its length,
// without a NUL, so that AddressSanitizer reports any read past xmlLength.
TEST(XmlSupTest, NeverReadsPastXmlLength)
{
    const std::string full =
        "<?xml version=\"1.0\"?><!-- c --><o a=\"x>y\"><Nexus>0:1</Nexus><Nexus/>"
        "<![CDATA[<Nexus>z</Nexus>]]><Name>a &amp; b</Name ></o>";
    for (size_t len = 0; len <= full.size(); ++len) {
        auto block = std::make_unique<char[]>(len == 0 ? 1 : len);
        std::memcpy(block.get(), full.data(), len);
        for (const char *tag : {"Nexus", "Name", "o", "N", "x"}) {
            for (uint32_t occurrence = 0; occurrence < 3; ++occurrence) {
                char out[160];
                uint32_t size = sizeof out;
                uint32_t status =
                    XMLSupGetXMLMemData(0, tag, 1, occurrence, 1, &size, out, 0, nullptr,
                                        block.get(), static_cast<uint32_t>(len));
                EXPECT_TRUE(status == 0 || status == 2) << len << ' ' << tag;
            }
        }
    }
}

TEST(XmlSupTest, ATextCutAtXmlLengthEndsThere)
{
    const char text[] = "<a>12</a><a>34</a>";
    char out[16];
    uint32_t size = sizeof out;
    EXPECT_EQ(XMLSupGetXMLMemData(0, "a", 1, 1, 1, &size, out, 0, nullptr, text, 9), 2u);
    size = sizeof out;
    EXPECT_EQ(XMLSupGetXMLMemData(0, "a", 1, 0, 1, &size, out, 0, nullptr, text, 8), 2u);
    size = sizeof out;
    EXPECT_EQ(XMLSupGetXMLMemData(0, "a", 1, 0, 1, &size, out, 0, nullptr, text, 9), 0u);
    EXPECT_STREQ(out, "12");
}

} // namespace
