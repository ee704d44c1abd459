// The strict XML reader: the tree it builds, entities and character data,
// and a table of malformed texts, each refused with the right line.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "datastore/xml_reader.h"
#include "datastore/xml_text.h"

namespace {

using kelp::ds::xml::Element;
using kelp::ds::xml::Error;

TEST(XmlReaderTest, BuildsTheTreeWithLinesAttributesAndText)
{
    const std::string text = "<?xml version=\"1.0\"?>\n"
                             "<!-- a model -->\n"
                             "<storage ready='1' url=\"https://h:1311\">\n"
                             "  <object id=\"1\" type=\"adapters\">\n"
                             "    <Name>Vorn &amp; Co &lt;x&gt;</Name>\n"
                             "    <Empty/>\n"
                             "  </object>\n"
                             "  <link a=\"1\" b=\"2\"/>\n"
                             "</storage>\n";
    Element root;
    Error error;
    ASSERT_TRUE(kelp::ds::xml::parseDocument(text, &root, &error)) << error.message;
    EXPECT_EQ(root.name, "storage");
    EXPECT_EQ(root.line, 3u);
    EXPECT_EQ(root.textLine, 0u);
    ASSERT_NE(root.attribute("url"), nullptr);
    EXPECT_EQ(*root.attribute("url"), "https://h:1311");
    EXPECT_EQ(*root.attribute("ready"), "1");
    EXPECT_EQ(root.attribute("none"), nullptr);
    ASSERT_EQ(root.children.size(), 2u);
    const Element &object = root.children[0];
    EXPECT_EQ(object.line, 4u);
    ASSERT_EQ(object.children.size(), 2u);
    EXPECT_EQ(object.children[0].name, "Name");
    EXPECT_EQ(object.children[0].text, "Vorn & Co <x>");
    EXPECT_EQ(object.children[0].line, 5u);
    EXPECT_EQ(object.children[0].textLine, 5u);
    EXPECT_EQ(object.children[1].name, "Empty");
    EXPECT_EQ(object.children[1].text, "");
    EXPECT_EQ(root.children[1].name, "link");
    EXPECT_EQ(root.children[1].line, 8u);
}

struct TextCase {
    const char *name;
    const char *xml;
    const char *text;
};

const TextCase kTextCases[] = {
    {"character references", "<a>&#65;&#x42;&#x20AC;&#128512;</a>",
     "AB\xE2\x82\xAC\xF0\x9F\x98\x80"},
    {"CDATA kept verbatim", "<a>x<![CDATA[<b>&amp;]]>y</a>", "x<b>&amp;y"},
    {"comments inside dropped", "<a>1<!-- </a> -->2</a>", "12"},
    {"blanks kept", "<a>  two words \n</a>", "  two words \n"},
    {"UTF-8 kept", "<a>Gr\xC3\xBC\xC3\x9F</a>", "Gr\xC3\xBC\xC3\x9F"},
    {"'>' allowed in text", "<a>1 > 0</a>", "1 > 0"},
};

TEST(XmlReaderTest, DecodesCharacterData)
{
    for (const auto &c : kTextCases) {
        Element root;
        Error error;
        ASSERT_TRUE(kelp::ds::xml::parseDocument(c.xml, &root, &error)) << c.name;
        EXPECT_EQ(root.text, c.text) << c.name;
    }
}

TEST(XmlReaderTest, NormalisesWhiteSpaceInAttributeValues)
{
    Element root;
    Error error;
    ASSERT_TRUE(kelp::ds::xml::parseDocument("<a v='x\ty\nz' w=\"&quot;&apos;\"/>", &root, &error));
    EXPECT_EQ(*root.attribute("v"), "x y z");
    EXPECT_EQ(*root.attribute("w"), "\"'");
}

TEST(XmlReaderTest, WhiteSpaceWrittenAsReferencesInAttributeValuesIsKept)
{
    Element root;
    Error error;
    ASSERT_TRUE(
        kelp::ds::xml::parseDocument("<a v='x&#9;y&#10;z&#xD;\t.' w=' &#32; '/>", &root, &error))
        << error.message;
    EXPECT_EQ(*root.attribute("v"), "x\ty\nz\r .");
    EXPECT_EQ(*root.attribute("w"), "   ");
}

struct BadCase {
    const char *name;
    std::string xml;
    uint32_t line;
    const char *message; // a part of the message
};

const BadCase kBadCases[] = {
    {"empty text", "", 1, "no root element"},
    {"only a comment", "<!-- x -->\n", 2, "no root element"},
    {"unclosed root", "<a>\n<b></b>\n", 1, "<a> is not closed"},
    {"unclosed child", "<a>\n<b>\n</a>", 3, "</a> does not close <b> (line 2)"},
    {"stray end tag", "<a/>\n</a>", 2, "without a start tag"},
    {"two roots", "<a/>\n<b/>", 2, "a second root element <b>"},
    {"text before the root", "x<a/>", 1, "text outside an element"},
    {"text after the root", "<a/>\n\n  junk", 3, "text outside an element"},
    {"unquoted attribute", "<a\n b=1/>", 2, "not quoted"},
    {"attribute without value", "<a b/>", 1, "has no value"},
    {"attribute not closed", "<a b=\"1/>", 1, "not closed"},
    {"repeated attribute", "<a b='1' b='2'/>", 1, "repeated"},
    {"attributes without blank", "<a b='1'c='2'/>", 1, "bad attribute"},
    {"'<' in an attribute", "<a b='<'/>", 1, "'<' in the value"},
    {"start tag not closed", "<a b='1'", 1, "start tag <a> is not closed"},
    {"bad element name", "<a>\n<1x/></a>", 2, "does not start a tag"},
    {"lone '<'", "<a>1 < 2</a>", 1, "does not start a tag"},
    {"lone '&'", "<a>\nR&D</a>", 2, "does not start an entity"},
    {"unknown entity", "<a>&nbsp;</a>", 1, "unknown entity &nbsp;"},
    {"reference to NUL", "<a>&#0;</a>", 1, "invalid character reference"},
    {"reference to a surrogate", "<a>&#xD800;</a>", 1, "invalid character reference"},
    {"reference past Unicode", "<a>&#x110000;</a>", 1, "invalid character reference"},
    {"huge reference", "<a>&#9999999999;</a>", 1, "invalid character reference"},
    {"empty reference", "<a>&#;</a>", 1, "invalid character reference"},
    {"DOCTYPE", "<!DOCTYPE a [<!ENTITY x 'y'>]>\n<a/>", 1, "not supported"},
    {"comment not closed", "<a>\n<!-- x</a>", 2, "comment is not closed"},
    {"CDATA not closed", "<a><![CDATA[x</a>", 1, "CDATA section is not closed"},
    {"CDATA outside", "<![CDATA[x]]><a/>", 1, "CDATA outside"},
    {"processing instruction not closed", "<a><? x</a>", 1, "not closed"},
    {"bad end tag", "<a></ a>", 1, "bad end tag"},
    {"NUL byte", std::string("<a>x\0y</a>", 10), 1, "not UTF-8"},
    {"control character", "<a>\n\x01</a>", 2, "control character"},
    {"invalid UTF-8", "<a>\n\n\xC3\x28</a>", 3, "not UTF-8"},
    {"overlong UTF-8", "<a>\xC0\xAF</a>", 1, "not UTF-8"},
    {"UTF-8 surrogate", "<a>\xED\xA0\x80</a>", 1, "not UTF-8"},
    {"cut UTF-8", "<a>\xE2\x82", 1, "not UTF-8"},
    {"too deep", "<a><b><c><d/></c></b></a>", 1, "nested deeper than 3"},
    {"byte order mark twice", "\xEF\xBB\xBF\xEF\xBB\xBF<a/>", 1, "byte order mark"},
    {"byte order mark after a blank", " \xEF\xBB\xBF<a/>", 1, "byte order mark"},
    {"byte order mark after the declaration", "<?xml version='1.0'?>\n\xEF\xBB\xBF<a/>", 2,
     "byte order mark"},
    {"byte order mark after the root", "<a/>\n\n\xEF\xBB\xBF", 3, "byte order mark"},
};

TEST(XmlReaderTest, RefusesMalformedTextNamingTheLine)
{
    for (const auto &c : kBadCases) {
        Element root;
        Error error;
        EXPECT_FALSE(kelp::ds::xml::parseDocument(c.xml, &root, &error, 3)) << c.name;
        EXPECT_EQ(error.line, c.line) << c.name << ": " << error.message;
        EXPECT_NE(error.message.find(c.message), std::string::npos)
            << c.name << ": " << error.message;
    }
}

TEST(XmlReaderTest, AByteOrderMarkMayOpenADocument)
{
    const std::string text = "<?xml version='1.0'?>\n<a b='1'>\n<c>x</c></a>";
    Element plain, marked;
    Error error;
    ASSERT_TRUE(kelp::ds::xml::parseDocument(text, &plain, &error)) << error.message;
    ASSERT_TRUE(kelp::ds::xml::parseDocument("\xEF\xBB\xBF" + text, &marked, &error))
        << error.message;
    EXPECT_EQ(marked.name, "a");
    EXPECT_EQ(marked.line, plain.line);
    EXPECT_EQ(*marked.attribute("b"), "1");
    ASSERT_EQ(marked.children.size(), 1u);
    EXPECT_EQ(marked.children[0].text, "x");
    EXPECT_EQ(marked.children[0].line, 3u);
    // A fragment is no document: it has no byte order mark to skip.
    std::vector<Element> elements;
    EXPECT_FALSE(kelp::ds::xml::parseFragment("\xEF\xBB\xBF<a/>", &elements, &error));
    EXPECT_EQ(error.line, 1u);
    EXPECT_NE(error.message.find("byte order mark"), std::string::npos) << error.message;
}

// <storage> may carry any number of attributes: all are read, in order, and
// a repeat is found wherever it is.
TEST(XmlReaderTest, ATagWithAHundredThousandAttributesIsReadWhole)
{
    constexpr int kCount = 100000;
    std::string tag = "<a";
    for (int i = 0; i < kCount; ++i)
        tag += " n" + std::to_string(i) + "='" + std::to_string(i) + "'";
    Element root;
    Error error;
    ASSERT_TRUE(kelp::ds::xml::parseDocument(tag + "/>", &root, &error)) << error.message;
    ASSERT_EQ(root.attributes.size(), size_t{kCount});
    EXPECT_EQ(root.attributes[0].name, "n0");
    EXPECT_EQ(root.attributes[kCount - 1].name, "n99999");
    EXPECT_EQ(root.attributes[kCount - 1].value, "99999");
    EXPECT_EQ(*root.attribute("n54321"), "54321");

    // A repeat among the first names, past them, and the last.
    std::string shorter = "<a";
    for (int i = 0; i < 1000; ++i)
        shorter += " n" + std::to_string(i) + "='" + std::to_string(i) + "'";
    for (const char *repeated : {"n3", "n12", "n999"}) {
        Element bad;
        EXPECT_FALSE(
            kelp::ds::xml::parseDocument(shorter + "\n " + repeated + "='x'/>", &bad, &error))
            << repeated;
        EXPECT_EQ(error.line, 2u) << repeated;
        EXPECT_EQ(error.message, "attribute " + std::string(repeated) + " repeated in <a>");
    }
    // The ninth name is the first one the set holds rather than the scan.
    EXPECT_FALSE(kelp::ds::xml::parseDocument(
        "<a n1='' n2='' n3='' n4='' n5='' n6='' n7='' n8='' n9='' n1=''/>", &root, &error));
    EXPECT_EQ(error.message, "attribute n1 repeated in <a>");
}

TEST(XmlReaderTest, FragmentsHoldElementsAndBlanksOnly)
{
    std::vector<Element> elements;
    Error error;
    ASSERT_TRUE(kelp::ds::xml::parseFragment(" <a/>\n<!-- c -->\n<b>x</b> ", &elements, &error));
    ASSERT_EQ(elements.size(), 2u);
    EXPECT_EQ(elements[1].name, "b");
    EXPECT_EQ(elements[1].line, 3u);
    EXPECT_TRUE(kelp::ds::xml::parseFragment("  \n", &elements, &error));
    EXPECT_TRUE(elements.empty());
    EXPECT_FALSE(kelp::ds::xml::parseFragment("<a/>\ntext", &elements, &error));
    EXPECT_EQ(error.line, 2u);
    EXPECT_FALSE(kelp::ds::xml::parseFragment("</storage><storage>", &elements, &error));
}

TEST(XmlReaderTest, NamesEscapesAndTextChecks)
{
    EXPECT_TRUE(kelp::ds::xml::isName("Nexus"));
    EXPECT_TRUE(kelp::ds::xml::isName("_a-b.c:d9"));
    EXPECT_FALSE(kelp::ds::xml::isName(""));
    EXPECT_FALSE(kelp::ds::xml::isName("9a"));
    EXPECT_FALSE(kelp::ds::xml::isName("a b"));
    EXPECT_FALSE(kelp::ds::xml::isName("a>"));
    EXPECT_EQ(kelp::ds::xml::escapeText("a<b>&c\"'"), "a&lt;b&gt;&amp;c\"'");
    EXPECT_EQ(kelp::ds::xml::escapeValue(" a<b>&c\"'\t\n\r\\ "),
              " a&lt;b&gt;&amp;c&quot;'&#9;&#10;&#13;\\ ");
    EXPECT_TRUE(kelp::ds::xml::isXmlText("tab\tand\nlines\r"));
    EXPECT_FALSE(kelp::ds::xml::isXmlText(std::string("a\0b", 3)));
    EXPECT_FALSE(kelp::ds::xml::isXmlText("\x7F\x80"));
}

// The check reads ASCII eight bytes at a time: a bad byte, or a character of
// several bytes, is found at every offset, in words and in the tail.
TEST(XmlReaderTest, TheFirstBadByteIsFoundAtEveryOffset)
{
    using kelp::ds::xml::firstBadByte;
    const struct {
        std::string inserted;
        bool bad;
    } cases[] = {
        {std::string(1, '\0'), true},
        {"\x01", true},
        {"\x1F", true},
        {"\x80", true},
        {"\x08", true},
        {"\x0B", true},
        {"\x0C", true},
        {"\r", false},
        {"\x20", false},
        {"\xC3", true},
        {"\xED\xA0\x80", true},
        {"\xEF\xBF\xBE", true},
        {"\t", false},
        {"\n", false},
        {"\x7F", false},
        {"\xC3\xA9", false},
        {"\xE2\x98\x83", false},
        {"\xF0\x9F\x98\x80", false},
    };
    for (const auto &c : cases) {
        for (size_t at = 0; at < 20; ++at) {
            for (size_t after : {size_t{0}, size_t{1}, size_t{7}, size_t{8}, size_t{9}}) {
                const std::string text =
                    std::string(at, 'a') + c.inserted + std::string(after, 'z');
                EXPECT_EQ(firstBadByte(text), c.bad ? at : std::string_view::npos)
                    << "at " << at << ", " << after << " after";
            }
        }
    }
    EXPECT_EQ(firstBadByte(std::string(64, ' ')), std::string_view::npos);
    EXPECT_EQ(firstBadByte(""), std::string_view::npos);
}

// Random damage to a valid text must never read or write out of bounds (the
// sanitizer build checks that); the answer is simply yes or no.
TEST(XmlReaderTest, SurvivesRandomDamage)
{
    const std::string good = "<?xml version='1.0'?><storage ready=\"1\"><object id=\"1\" "
                             "type=\"adapters\"><Name>A &amp; B</Name><X><![CDATA[c]]></X>"
                             "</object><!-- c --><link a=\"1\" b=\"2\"/></storage>";
    std::mt19937 rng(20571);
    const char kBytes[] = "<>/&;=\"' !-[]?x#\n\xC3\xFF";
    for (int round = 0; round < 20000; ++round) {
        std::string text = good;
        int edits = 1 + static_cast<int>(rng() % 4);
        for (int e = 0; e < edits && !text.empty(); ++e) {
            size_t at = rng() % text.size();
            switch (rng() % 3) {
            case 0:
                text[at] = kBytes[rng() % (sizeof kBytes - 1)];
                break;
            case 1:
                text.erase(at, 1 + rng() % 8);
                break;
            default:
                text.resize(at);
                break;
            }
        }
        Element root;
        Error error;
        if (!kelp::ds::xml::parseDocument(text, &root, &error)) {
            EXPECT_GE(error.line, 1u);
        }
    }
}

} // namespace
