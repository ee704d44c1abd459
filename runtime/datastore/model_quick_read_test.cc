// readQuickly takes model texts of the usual shape and must give the very
// model parseModelText then Model::build give (its text, every object's and
// link's line); anything else it must leave to the general reader, so that
// readModel's answer, model or message, stays that of parse-then-build.
#include <gtest/gtest.h>

#include <string>

#include "datastore/model.h"
#include "datastore/model_testing.h"
#include "datastore/model_writer.h"

namespace {

namespace ds = kelp::ds;

// A model's text and where each of its parts was written, so that two
// models compare whole.
std::string described(const ds::Model &model)
{
    const ds::ModelData data = model.data();
    std::string out = ds::modelText(model) + "\nstorage line " +
                      std::to_string(data.storageWhere.line) + "\nobject lines";
    for (const ds::ObjectData &o : data.objects)
        out += " " + std::to_string(o.where.line);
    out += "\nlink lines";
    for (const ds::LinkData &l : data.links)
        out += " " + std::to_string(l.where.line);
    return out;
}

// "error: " and the message of parseModelText then Model::build, or the
// description of the model they give.
std::string twoSteps(const std::string &text)
{
    ds::ModelData data;
    std::string error;
    if (!ds::parseModelText(text, "m.xml", &data, &error))
        return "error: " + error;
    auto model = ds::Model::build(std::move(data), &error);
    return model == nullptr ? "error: " + error : described(*model);
}

// The same from readModel.
std::string oneStep(const std::string &text)
{
    std::string error;
    auto model = ds::readModel(text, "m.xml", &error);
    return model == nullptr ? "error: " + error : described(*model);
}

// Null, or the description of the model readQuickly gives.
std::string quickly(const std::string &text)
{
    auto model = ds::readQuickly(text, "m.xml");
    return model == nullptr ? "null" : described(*model);
}

std::string storage(const std::string &items)
{
    return "<storage ready=\"1\">\n" + items + "\n</storage>\n";
}

TEST(ModelQuickReadTest, TakesTheUsualShapesAndReadsThemAsParseThenBuild)
{
    const std::string disk = R"(<object id="7" type="arraydisks"><Nexus>0\7</Nexus></object>)";
    const struct {
        const char *what;
        std::string text;
    } cases[] = {
        {"the shared test model", ds::testing::kTestModel},
        {"an empty storage", "<storage/>"},
        {"an empty storage with an end tag", "<storage ready=\"0\">\n\n</storage>"},
        {"a byte order mark, a declaration, comments and instructions around",
         "\xEF\xBB\xBF<?xml version=\"1.0\"?>\n<!-- a -->\n<?pi x?>" + storage(disk) +
             "<!-- b --> <?pi?>\n"},
        {"comments and instructions between items and attributes",
         storage("<!-- c -->" + std::string(R"(<object id="1" type="fans">
              <!-- d --><A>1</A><?pi?>
              <B>2</B></object><!--e--><?f?>)"))},
        {"carriage returns and tabs",
         "<storage\r\n\tready=\"1\">\r\n<object\tid=\"1\"\r\ntype=\"fans\">\r\n\t<A>x\r\ny</A>\r\n"
         "</object>\r\n</storage>\r\n"},
        {"single quotes and blanks around =",
         storage("<object id = '3' type\n=\t'bus' parent='4' ></object >"
                 "<object type='adapters' id='4'/><link b = '3' a='4'></link >")},
        {"empty values", storage(R"(<object id="1" type="fans"><A/><B></B><C /></object>)")},
        {"references in values",
         storage(R"(<object id="1" type="fans"><A>R&amp;D</A><B>&lt;&gt;&quot;&apos;</B>)"
                 R"(<C>&#10;&#x41;&#xe9;x</C><D>plain</D><E>&amp;</E></object>)")},
        {"blanks and markup-like text kept in values",
         storage("<object id=\"1\" type=\"fans\"><A>  two  words </A><B>a > b ]]> c</B>"
                 "<C>\n</C></object>")},
        {"storage attributes with blanks and references",
         "<storage ready=\"1\" url=\"a&amp;b\" note=\"x\ty&#9;z\n\"/>"},
        {"a type with a blank, and every attribute repeated",
         storage(R"(<object id="9" type="Tidal Cache"><A>1</A><A>1</A><A>2</A></object>)")},
        {"names and values beyond ASCII",
         storage("<object id=\"1\" type=\"fans\"><N\xC3\xA9>\xE2\x82\xAC</N\xC3\xA9></object>")},
        {"an attribute element called object",
         storage(R"(<object id="1" type="fans"><object>x</object></object>)")},
        {"values of 159 bytes",
         storage("<object id=\"1\" type=\"fans\"><A>" + std::string(159, 'v') + "</A><B>" +
                 std::string(158, 'w') + "&amp;</B></object>")},
        {"the largest id", storage(R"(<object id="4294967295" type="fans"/>)")},
        {"objects that share values",
         storage(disk + R"(<object id="8" type="arraydisks"><Nexus>0\8</Nexus></object>
                 <object id="9" type="arraydisks"><Other>0\7</Other><Nexus>0\8</Nexus></object>)")},
        {"line feeds at every offset of a word, beside bytes beyond ASCII",
         [] {
             std::string items;
             for (int i = 1; i <= 40; ++i) {
                 items += std::string(static_cast<size_t>(i % 9), '\n') + "<object id=\"" +
                          std::to_string(i) + "\" type=\"fans\"><A>\xC3\x8A" +
                          std::string(static_cast<size_t>(i % 3), '\n') + "\xE2\x80\x8A</A>" +
                          std::string(static_cast<size_t>(i % 5), ' ') + "</object>";
                 if (i % 7 == 0)
                     items += "\n<link a=\"" + std::to_string(i) + "\" b=\"1\"/>";
             }
             return storage(items);
         }()},
    };
    for (const auto &c : cases) {
        const std::string expected = twoSteps(c.text);
        ASSERT_EQ(expected.rfind("error: ", 0), std::string::npos) << c.what << ": " << expected;
        EXPECT_EQ(quickly(c.text), expected) << c.what;
        EXPECT_EQ(oneStep(c.text), expected) << c.what;
    }
}

TEST(ModelQuickReadTest, LeavesEverythingElseToTheGeneralReader)
{
    const std::string one = R"(<object id="1" type="fans"><A>1</A></object>)";
    const std::string large = [] {
        std::string many;
        for (int i = 0; i < 500; ++i)
            many += "<A>" + std::string(150, static_cast<char>('a' + i % 26)) + "</A>";
        return "<object id=\"1\" type=\"vdisks\">" + many + "</object>";
    }();
    const struct {
        const char *what;
        std::string text;
    } cases[] = {
        // Good models of a shape it leaves alone.
        {"a CDATA value", storage(R"(<object id="1" type="fans"><A><![CDATA[<x>]]></A></object>)")},
        {"a comment in a value",
         storage(R"(<object id="1" type="fans"><A>a<!--c-->b</A></object>)")},
        {"a reference in an id", storage(R"(<object id="&#49;" type="fans"/>)")},
        {"a tab in a type", storage("<object id=\"1\" type=\"Tidal\tCache\"/>")},
        {"blank CDATA in storage", storage("<![CDATA[ ]]>" + one)},
        {"a comment inside a link", storage(one + "<object id=\"2\" type=\"fans\"/>"
                                                  "<link a=\"1\" b=\"2\"><!-- c --></link>")},
        // Bad XML.
        {"an attribute with no value", storage(one + R"(<link a="1" b="1" c>)")},
        {"attributes with no blank between", storage(R"(<object id="1"type="fans"/>)")},
        {"an unquoted value", storage("<object id=1 type=\"fans\"/>")},
        {"a repeated attribute", storage(R"(<object id="1" id="1" type="fans"/>)")},
        {"a repeated storage attribute", "<storage ready=\"1\" ready=\"1\"/>"},
        {"'<' in a value", storage(R"(<object id="1" type="fa<ns"/>)")},
        {"an unknown entity", storage(R"(<object id="1" type="fans"><A>&nbsp;</A></object>)")},
        {"a bare '&'", storage(R"(<object id="1" type="fans"><A>a & b</A></object>)")},
        {"a bad character reference",
         storage(R"(<object id="1" type="fans"><A>&#0;</A></object>)")},
        {"a bad storage reference", "<storage url=\"&bogus;\"/>"},
        {"a mismatched end tag", storage(R"(<object id="1" type="fans"><A>1</B></object>)")},
        {"an end tag with an attribute", storage(R"(<object id="1" type="fans"></object x>)")},
        {"a storage end tag with an attribute", "<storage></storage x>"},
        {"an element in a value", storage(R"(<object id="1" type="fans"><A><B/></A></object>)")},
        {"nesting too deep",
         storage(R"(<object id="1" type="fans"><A><B><C><D/></C></B></A></object>)")},
        {"a second root", storage(one) + "<storage/>"},
        {"text after the root", storage(one) + "x"},
        {"a byte order mark after the root", storage(one) + "\xEF\xBB\xBF"},
        {"a DOCTYPE", "<!DOCTYPE storage>" + storage(one)},
        {"a byte that is not UTF-8",
         storage("<object id=\"1\" type=\"fans\"><A>\xFF</A></object>")},
        {"a control character", storage("<object id=\"1\" type=\"fans\"><A>\x01</A></object>")},
        {"an unclosed comment", storage(one + "<!-- c")},
        {"no root", "<!-- nothing -->"},
        {"an empty text", ""},
        // Not a model.
        {"another root", "<model>" + one + "</model>"},
        {"text in storage", storage("x" + one)},
        {"text in an object", storage(R"(<object id="1" type="fans">x<A>1</A></object>)")},
        {"an XML attribute on an attribute element",
         storage(R"(<object id="1" type="fans"><A k="v">1</A></object>)")},
        {"an unknown element", storage("<thing/>")},
        {"an unknown object attribute", storage(R"(<object id="1" type="fans" colour="red"/>)")},
        {"no id", storage(R"(<object type="fans"/>)")},
        {"no type", storage(R"(<object id="1"/>)")},
        {"id 0", storage(R"(<object id="0" type="fans"/>)")},
        {"an id over 32 bits", storage(R"(<object id="4294967296" type="fans"/>)")},
        {"a signed id", storage(R"(<object id="+1" type="fans"/>)")},
        {"an unknown type", storage(R"(<object id="1" type="Fans"/>)")},
        {"a link with one end", storage(one + R"(<link a="1"/>)")},
        {"a link holding text", storage(one + R"(<link a="1" b="1">x</link>)")},
        {"a bad storage attribute", "<storage ready=\"2\"/>"},
        // Not a good model.
        {"a value of 160 bytes",
         storage("<object id=\"1\" type=\"fans\"><A>" + std::string(160, 'v') + "</A></object>")},
        {"a value of 160 bytes once decoded",
         storage("<object id=\"1\" type=\"fans\"><A>" + std::string(159, 'v') +
                 "&amp;</A></object>")},
        {"an object over 64 KiB", storage(large)},
        {"ObjID as an attribute",
         storage(R"(<object id="1" type="fans"><ObjID>1</ObjID></object>)")},
        {"a duplicate id", storage(one + one)},
        {"a missing parent", storage(R"(<object id="1" type="fans" parent="2"/>)")},
        {"a parent cycle",
         storage(
             R"(<object id="1" type="bus" parent="2"/><object id="2" type="bus" parent="1"/>)")},
        {"a dangling link", storage(one + R"(<link a="1" b="9"/>)")},
        {"a link to itself", storage(one + R"(<link a="1" b="1"/>)")},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(quickly(c.text), "null") << c.what;
        EXPECT_EQ(oneStep(c.text), twoSteps(c.text)) << c.what;
    }
}

// Every prefix of a good model, and the model with each byte replaced by
// one that means something to XML or removed: whatever readQuickly takes
// must be what parse-then-build give, and readModel must answer as they do.
TEST(ModelQuickReadTest, CutAndAlteredTextsReadAsParseThenBuild)
{
    const std::string text = "\xEF\xBB\xBF<?xml version=\"1.0\"?>\n" +
                             storage(R"(<object id="12" type="bus" parent="3"><A>x&amp;y</A>
  <B/><!-- c --></object>
<object id='3' type="Tidal Cache"><A>1</A></object><link a="3" b="12"/>)");
    ASSERT_NE(quickly(text), "null");
    int taken = 0;
    auto check = [&](const std::string &altered, const std::string &what) {
        const std::string expected = twoSteps(altered);
        const std::string quick = quickly(altered);
        if (quick != "null") {
            ++taken;
            EXPECT_EQ(quick, expected) << what << ": " << altered;
        }
        EXPECT_EQ(oneStep(altered), expected) << what << ": " << altered;
    };
    for (size_t size = 0; size < text.size(); ++size)
        check(text.substr(0, size), "cut at " + std::to_string(size));
    for (size_t at = 0; at < text.size(); ++at) {
        std::string removed = text;
        removed.erase(at, 1);
        check(removed, "byte " + std::to_string(at) + " removed");
        for (char c : std::string("<>&;/=\"' \n\tx0!?-#")) {
            std::string replaced = text;
            replaced[at] = c;
            check(replaced, "byte " + std::to_string(at) + " made '" + std::string(1, c) + "'");
        }
    }
    // Blanks, names and values changed in ways that stay good are taken.
    EXPECT_GT(taken, 100);
}

} // namespace
